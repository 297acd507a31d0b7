#include "simulator/machine/machine_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace simulator::MachineDirectory {
namespace {

namespace fs = std::filesystem;

// Room for keys that are added to a machine later.
constexpr std::size_t kSpareKeys = 64;

// The state's name until the machine is complete.
constexpr const char* kUnfinishedState = "state.new";

// In the order of the TurboInstallation bits.
constexpr std::array<const char*, 3> kTurboPlaces = {
    "Applications/Turbo Boost Switcher Pro.app",
    "Applications/Turbo Boost Switcher.app",
    "Library/Extensions/DisableTurboBoost.kext",
};
constexpr const char* kInsideApplication = "Contents/Resources/DisableTurboBoost.64bits.kext";
constexpr const char* kTurboInfo = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>CFBundleIdentifier</key>
	<string>com.vorandel.DisableTurboBoost</string>
	<key>CFBundlePackageType</key>
	<string>KEXT</string>
</dict>
</plist>
)";

fs::path ownExecutable() {
#if defined(__APPLE__)
    std::array<char, 4096> path = {};
    std::uint32_t size = path.size();
    return _NSGetExecutablePath(path.data(), &size) == 0 ? fs::path(path.data()) : fs::path();
#else
    std::error_code error;
    return fs::read_symlink("/proc/self/exe", error);
#endif
}

// The simulator's tool, which plays the machine's own tools: beside the running program.
std::string toolPath() {
    const fs::path beside = ownExecutable().parent_path() / "simulated-mac";
    std::error_code error;
    return fs::exists(beside, error) ? beside.string() : "simulated-mac";
}

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (const char character : text) {
        out += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return out + "'";
}

void writeFile(const fs::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path.string() + ": " +
                                 std::generic_category().message(errno));
    }
}

void placeTool(const fs::path& folder, const fs::path& directory, const std::string& name) {
    const fs::path script = folder / name;
    // -p: a helper whose real user is not root still runs its tools as root, as it does on a Mac.
    writeFile(script, "#!/bin/sh -p\nexec " + quoted(toolPath()) + " " + name + " " +
                          quoted(fs::absolute(directory).string()) + " \"$@\"\n");
    fs::permissions(script, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
}

void placeRoot(const fs::path& directory) {
    const fs::path root = directory / "root";
    fs::create_directories(root / "usr/bin");
    fs::create_directories(root / "usr/sbin");
    fs::create_directories(root / "Applications");
    for (const char* name : {"pmset", "kmutil", "powermetrics"}) {
        placeTool(root / "usr/bin", directory, name);
    }
    for (const char* name : {"ioreg", "sysctl"}) {
        placeTool(root / "usr/sbin", directory, name);
    }
}

// Keeps every other creation out of the directory: two at once would take each other's files for
// their own. A process that dies lets go of it.
class OnlyCreation {
public:
    explicit OnlyCreation(const fs::path& directory)
        : descriptor_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        while (::flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~OnlyCreation() { ::close(descriptor_); }
    OnlyCreation(const OnlyCreation&) = delete;
    OnlyCreation& operator=(const OnlyCreation&) = delete;

private:
    int descriptor_;
};

void removeParts(const fs::path& directory) {
    std::error_code ignored;
    for (const char* part : {"journal", "root", kUnfinishedState}) {
        fs::remove_all(directory / part, ignored);
    }
}

void checkPlace(const fs::path& directory) {
    const fs::path parent = fs::absolute(directory).lexically_normal().parent_path();
    if (!fs::exists(parent)) {
        throw std::runtime_error("there is no directory " + parent.string());
    }
    if (fs::exists(directory) && !fs::is_directory(directory)) {
        throw std::runtime_error(directory.string() + " is not a directory");
    }
}

// Nothing that is not a machine's own is ever written over or removed.
void checkEmpty(const fs::path& directory) {
    if (fs::exists(directory / "state")) {
        throw std::runtime_error("there is a simulated Mac in " + directory.string() + " already");
    }
    const bool leftByCreation = fs::exists(directory / kUnfinishedState);
    if (!fs::is_empty(directory) && !leftByCreation) {
        throw std::runtime_error(directory.string() + " is not empty");
    }
}

std::unique_ptr<Machine> build(const fs::path& directory, const Model& model,
                               const std::vector<KeyDefinition>& keys) {
    // First: it tells what is beside it from anything else when the creation is killed.
    auto store =
        FileStore::create((directory / kUnfinishedState).string(), keys.size() + kSpareKeys);
    placeRoot(directory);
    writeFile(directory / "journal", "");
    ::chmod((directory / "journal").c_str(), 0666);  // processes of any user attach, and are heard
    StateStore& state = *store;
    auto machine = std::make_unique<Machine>(
        std::move(store), std::make_unique<FileJournal>((directory / "journal").string()),
        (directory / "root").string());
    machine->locked([&](World& world) {
        furnish(world, model, keys);
        world.note(kOutsideWorld, "created " + std::string(model.name));
        placeTurboExtension((directory / "root").string(),
                            static_cast<unsigned>(world.number(Property::kTurboApplications, 0)));
        state.state().clockMode = ClockMode::kHost;
        state.state().ready = 1;
    });
    fs::rename(directory / kUnfinishedState, directory / "state");
    return machine;
}

// Opening a machine is part of every measured start of the helper, so it makes do without
// <filesystem>.
std::string absolute(const std::string& path) {
    std::array<char, PATH_MAX> current{};
    if (path.starts_with('/') || ::getcwd(current.data(), current.size()) == nullptr) {
        return path;
    }
    return std::string(current.data()) + "/" + path;
}

}  // namespace

std::unique_ptr<Machine> create(const std::string& directory, const Model& model,
                                const std::vector<KeyDefinition>& keys) {
    try {
        checkPlace(directory);
        const bool made = fs::create_directory(directory);
        const OnlyCreation only(directory);
        checkEmpty(directory);
        removeParts(directory);
        try {
            return build(directory, model, keys);
        } catch (...) {
            removeParts(directory);
            std::error_code ignored;
            made&& fs::remove(directory, ignored);
            throw;
        }
    } catch (const fs::filesystem_error& error) {
        throw std::runtime_error("cannot create a machine in " + directory + ": " +
                                 error.code().message());
    }
}

std::unique_ptr<Machine> open(const std::string& directory) {
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0) {
        throw std::runtime_error("there is no directory " + directory);
    }
    const std::string state = directory + "/state";
    if (!S_ISDIR(status.st_mode) || ::access(state.c_str(), F_OK) != 0) {
        throw std::runtime_error("there is no simulated Mac in " + directory);
    }
    auto store = FileStore::open(state);
    return std::make_unique<Machine>(std::move(store),
                                     std::make_unique<FileJournal>(directory + "/journal"),
                                     absolute(directory) + "/root");
}

void placeTurboExtension(const std::string& root, unsigned where) {
    for (std::size_t i = 0; i < kTurboPlaces.size(); ++i) {
        const fs::path place = fs::path(root) / kTurboPlaces[i];
        fs::remove_all(place);
        if ((where >> i & 1) != 0) {
            const bool application = place.extension() == ".app";
            const fs::path contents =
                (application ? place / kInsideApplication : place) / "Contents";
            fs::create_directories(contents);
            writeFile(contents / "Info.plist", kTurboInfo);
        }
    }
}

}  // namespace simulator::MachineDirectory
