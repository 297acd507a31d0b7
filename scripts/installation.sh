# Sourced by install and by uninstall, which is installed beside it: what they share about a place.

# In the prefix: the paths of what was installed, folders that were made for it with a slash behind.
installed_list=share/ferovane/installed-files

fail() {
    echo "$*" >&2
    exit 1
}

# The path of the installed helper, by the list; nothing when there is none.
helper_in() {
    grep '/FerovaneHelper$' "$1"
}

# The ids of the processes that run the helper at a path, a session's guardian included.
processes_of() {
    case "$(uname -s)" in
    Linux)
        set -- "$(cd "$(dirname "$1")" && pwd -P)/${1##*/}"
        for process in /proc/[0-9]*; do
            case "$(readlink "$process/exe")" in
            "$1" | "$1 (deleted)") echo "${process#/proc/}" ;;
            esac
        done
        ;;
    *) # By name: which file of that name it is cannot be told.
        ps -A -o pid= -o comm= | sed -n -E 's/^ *([0-9]+) +(.*\/)?(FerovaneHelper|fan-guardian)$/\1/p'
        ;;
    esac
}

refuse_during_session() {
    running="$(processes_of "$1" | tr '\n' ' ')"
    [ -z "$running" ] || fail "The helper is running (process $running): its session would lose its" \
        "guardian. End the program that started it, then try again. Nothing was changed."
}
