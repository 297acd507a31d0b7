# Sourced by the other scripts: makes sure that the tools and libraries of the build are there.
# Installs them through the system's package manager when that is allowed, else names the command.

debian_packages="build-essential cmake ninja-build nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev python3 python3-jsonschema"
homebrew_packages="cmake ninja nlohmann-json googletest google-benchmark python3"

missing_debian_packages() {
    for package in $debian_packages; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
            printf '%s ' "$package"
    done
}

ensure_dependencies() {
    case "$(uname -s)" in
    Darwin)
        xcode-select -p >/dev/null 2>&1 || {
            echo "Apple's command line tools are missing. Type: xcode-select --install" >&2
            return 1
        }
        missing=""
        for package in $homebrew_packages; do
            brew list --versions "$package" >/dev/null 2>&1 || missing="$missing $package"
        done
        [ -z "$missing" ] && return 0
        command -v brew >/dev/null 2>&1 || {
            echo "Homebrew is missing (or install these by other means):$missing" >&2
            return 1
        }
        # shellcheck disable=SC2086
        brew install $missing
        ;;
    Linux)
        command -v dpkg-query >/dev/null 2>&1 || {
            for tool in cmake ninja c++ python3; do
                command -v "$tool" >/dev/null 2>&1 || {
                    echo "Needed (names as in Debian): $debian_packages" >&2
                    return 1
                }
            done
            return 0
        }
        missing="$(missing_debian_packages)"
        [ -z "$missing" ] && return 0
        if [ "$(id -u)" -eq 0 ]; then
            export DEBIAN_FRONTEND=noninteractive
            # shellcheck disable=SC2086
            apt-get update -qq && apt-get install -y -qq --no-install-recommends $missing >/dev/null
        else
            echo "Some packages are missing. Type: sudo apt-get install $missing" >&2
            return 1
        fi
        ;;
    *)
        echo "This system is not supported: $(uname -s)" >&2
        return 1
        ;;
    esac
}

# Homebrew's libraries hold one architecture, so whatever links them is built for this one only.
native_architecture_options() {
    if [ "$(uname -s)" = Darwin ]; then
        printf '%s' "-DCMAKE_OSX_ARCHITECTURES=$(uname -m)"
    fi
}
