// The hand-over by which a fan leaves and rejoins system control on Apple Silicon.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace ferovane {

// Remembers what it changed so that every fan can be given back. Restores nothing when destroyed:
// whoever takes a fan gives it back explicitly. One owner, one thread.
class AppleSiliconFanControl {
public:
    // A key's number; throws ScopeError when it cannot be read.
    using Read = std::function<double(const std::string& key)>;
    // Writes a number to a key; throws ScopeError when that fails.
    using Write = std::function<void(const std::string& key, double value)>;
    using Wait = std::function<void()>;   // pauses for one retry interval
    using Now = std::function<double()>;  // monotonic seconds

    AppleSiliconFanControl(Read read, Write write, Wait wait, Now now);

    // The fan's mode key ("F0Md", or "F0md"): the first candidate that can be read. Absent for an
    // index outside 0 to 9 and when neither can be read.
    std::optional<std::string> modeKey(int fan);

    // Throws the FanRefusal with which a take would begin and end. Reads only.
    void requireFree(int fan) { free(fan); }

    // Takes a fan (true) or gives it back (false). A take throws FanRefusal when the fan is not
    // free, before anything is written; one that fails later has given the fan back, or says in its
    // message that it could not. A fan that could not be given back stays held, so that giving it
    // back can be tried again.
    void setManual(int fan, bool enabled);

private:
    struct Original {
        std::string key;
        double mode;
    };

    std::string requireModeKey(int fan);
    Original free(int fan);
    void take(int fan);
    void switchToManual(const std::string& key);
    void restore(int fan, const std::string& key);
    bool confirmRestored(const std::string& key, bool last);

    Read read_;
    Write write_;
    Wait wait_;
    Now now_;
    std::map<int, Original> originals_;     // the fans held, with the mode each had before
    std::optional<double> unlockOriginal_;  // "Ftst" before this object wrote it, if it did
};

}  // namespace ferovane
