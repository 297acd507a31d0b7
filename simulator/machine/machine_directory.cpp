#include "simulator/machine/machine_directory.h"

#include <sys/stat.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

#include <array>
#include <cerrno>
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

void placeTool(const fs::path& root, const fs::path& directory, const std::string& name) {
    const fs::path script = root / "usr/bin" / name;
    // -p: a helper whose real user is not root still runs its tools as root, as it does on a Mac.
    writeFile(script, "#!/bin/sh -p\nexec " + quoted(toolPath()) + " " + name + " " +
                          quoted(fs::absolute(directory).string()) + " \"$@\"\n");
    fs::permissions(script, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
}

void placeRoot(const fs::path& directory) {
    const fs::path root = directory / "root";
    fs::create_directories(root / "usr/bin");
    fs::create_directories(root / "Applications");
    placeTool(root, directory, "pmset");
    placeTool(root, directory, "kmutil");
}

void placeJournal(const fs::path& journal) {
    writeFile(journal, "");
    ::chmod(journal.c_str(), 0666);  // processes of any user attach, and are heard
}

// Removes what a creation made when it is not completed.
class Unfinished {
public:
    explicit Unfinished(fs::path directory)
        : directory_(std::move(directory)), wasThere_(fs::exists(directory_)) {}
    ~Unfinished() {
        if (done_) {
            return;
        }
        std::error_code ignored;
        for (const char* part : {"state.new", "state", "journal", "root"}) {
            fs::remove_all(directory_ / part, ignored);
        }
        if (!wasThere_) {
            fs::remove(directory_, ignored);
        }
    }
    Unfinished(const Unfinished&) = delete;
    Unfinished& operator=(const Unfinished&) = delete;
    void done() { done_ = true; }

private:
    fs::path directory_;
    bool wasThere_;
    bool done_ = false;
};

void checkFree(const fs::path& directory) {
    const fs::path parent = fs::absolute(directory).lexically_normal().parent_path();
    if (!fs::exists(parent)) {
        throw std::runtime_error("there is no directory " + parent.string());
    }
    if (fs::exists(directory) && !fs::is_directory(directory)) {
        throw std::runtime_error(directory.string() + " is not a directory");
    }
    if (fs::exists(directory / "state")) {
        throw std::runtime_error("there is a simulated Mac in " + directory.string() + " already");
    }
}

std::unique_ptr<Machine> build(const fs::path& directory, const MachinePlan& plan,
                               const std::vector<KeyDefinition>& keys, double startLoad) {
    fs::create_directories(directory);
    placeRoot(directory);
    placeJournal(directory / "journal");
    auto store = FileStore::create((directory / "state.new").string(), keys.size() + kSpareKeys);
    StateStore& state = *store;
    auto machine = std::make_unique<Machine>(
        std::move(store), std::make_unique<FileJournal>((directory / "journal").string()),
        (directory / "root").string());
    machine->locked([&](World& world) {
        furnish(world, plan, keys);
        startAt(world, startLoad);
        world.note(kOutsideWorld, "created " + std::string(plan.name));
        placeTurboExtension((directory / "root").string(),
                            static_cast<unsigned>(world.number(Property::kTurboApplications, 0)));
        state.state().clockMode = ClockMode::kHost;
        state.state().ready = 1;
    });
    fs::rename(directory / "state.new", directory / "state");
    return machine;
}

}  // namespace

std::unique_ptr<Machine> create(const std::string& directory, const MachinePlan& plan,
                                const std::vector<KeyDefinition>& keys, double startLoad) {
    try {
        checkFree(directory);
        Unfinished unfinished(directory);
        auto machine = build(directory, plan, keys, startLoad);
        unfinished.done();
        return machine;
    } catch (const fs::filesystem_error& error) {
        throw std::runtime_error("cannot create a machine in " + directory + ": " +
                                 error.code().message());
    }
}

std::unique_ptr<Machine> open(const std::string& directory) {
    const fs::path path(directory);
    std::error_code error;
    if (!fs::exists(path, error)) {
        throw std::runtime_error("there is no directory " + directory);
    }
    if (!fs::is_directory(path, error) || !fs::exists(path / "state", error)) {
        throw std::runtime_error("there is no simulated Mac in " + directory);
    }
    auto store = FileStore::open((path / "state").string());
    return std::make_unique<Machine>(std::move(store),
                                     std::make_unique<FileJournal>((path / "journal").string()),
                                     fs::absolute(path / "root").string());
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
