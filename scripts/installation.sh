# Sourced by install and by uninstall, which is installed beside it: what they share about a place.

# In the prefix: the paths of what was installed, folders that were made for it with a slash behind.
installed_list=share/ferovane/installed-files

default_prefix=/usr/local
[ "$(uname -s)" != Darwin ] || default_prefix=/Library/Ferovane # Homebrew gives the other to a user

fail() {
    echo "$*" >&2
    exit 1
}

# A prefix as it really is: without a link that somebody could point elsewhere between a look at it
# and its use. What does not exist of it stands behind what does.
real_prefix() {
    case "$1" in
    *[!A-Za-z0-9\ ._/+@-]* | *[/\ ] | */../* | */.. | */./*)
        fail "The prefix may hold letters, digits, blanks and ._+@- only, and end in none of / and blank: $1" ;;
    /*) ;;
    *) fail "The prefix has to be an absolute path: $1" ;;
    esac
    existing="$1" rest=""
    while [ ! -d "$existing" ]; do
        rest="/${existing##*/}$rest"
        existing="$(dirname "$existing")"
    done
    existing="$(cd "$existing" && pwd -P)"
    echo "${existing%/}$rest"
}

# What root writes, deletes or runs lies where only root may change it, all the way up. In a sticky
# folder nobody else can replace what is root's.
only_roots() {
    folder="$1"
    while [ ! -d "$folder" ]; do
        folder="$(dirname "$folder")"
    done
    folder="$(cd "$folder" && pwd -P)"
    while :; do
        # shellcheck disable=SC2046
        set -- $(ls -ldn "$folder")
        case "$1" in
        ?????????[tT]*) ;;
        ?????w* | ????????w*)
            fail "$folder is writable for others than its owner: no place for what root runs." ;;
        esac
        [ "$3" -eq 0 ] || fail "$folder is not root's: no place for what root runs."
        [ "$folder" != / ] || return 0
        folder="$(dirname "$folder")"
    done
}

# The same of the folder of every file in a list.
only_roots_of() {
    grep -v '/$' "$1" | sed 's,/[^/]*$,,' | sort -u >"$2"
    while read -r place; do
        only_roots "$place"
    done <"$2"
}

# The path of the installed helper, by the list; nothing when there is none.
helper_in() {
    grep '/FerovaneHelper$' "$1"
}

# The ids of the processes that run the helper at a path, a session's guardian included.
processes_of() {
    case "$(uname -s)" in
    Linux)
        [ -d "$(dirname "$1")" ] || return 0
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
