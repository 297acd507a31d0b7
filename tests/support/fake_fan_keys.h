// A fan controller's keys with the refusals of a real one.
#pragma once

#include <cmath>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/model/scope_error.h"
#include "tests/support/call_faults.h"

namespace ferovane::testing {

struct FakeKey {
    double value = 0;
    bool unreadable = false;   // every read fails
    bool unwritable = false;   // every write fails and changes nothing
    bool unconfirmed = false;  // every write arrives and is reported as failed

    // What the program under test knows.
    std::optional<double> learned;  // by the last successful read since the last write
    bool lastWriteFailed = false;
    int writes = 0;  // tried, successful or not
};

// Allocates nothing while keys are read and written without a refusal, so that a test may take all
// memory away from the code under test.
class FakeFanKeys {
public:
    std::unordered_map<std::string, FakeKey> keys;
    bool locked = false;          // no mode key takes 1 while "Ftst" is 0
    int refusalsAfterUnlock = 0;  // how often the thermal daemon still wins after that
    CallFaults faults;

    FakeFanKeys() { writes_.reserve(kReservedWrites); }

    double& operator[](const std::string& key) { return keys[key].value; }

    double read(const std::string& key) {
        faults.count("read", key);
        return learn(key);
    }

    std::optional<double> number(const std::string& key) {
        try {
            const double value = read(key);
            return std::isfinite(value) ? std::optional(value) : std::nullopt;
        } catch (const ScopeError&) {
            return std::nullopt;
        }
    }

    // Returns once the value has been read back.
    void write(const std::string& name, double value) {
        const auto found = keys.find(name);
        FakeKey* key = found == keys.end() ? nullptr : &found->second;
        if (key != nullptr) {
            key->learned.reset();
            key->lastWriteFailed = true;
            ++key->writes;
        }
        faults.count("write", name);
        if (key == nullptr || key->unwritable || refuses(name, value)) {
            throw ScopeError("SMC " + name + " 写入失败（130）");
        }
        key->value = value;
        writes_.emplace_back(name, value);
        faults.count("confirm", name);
        if (key->unconfirmed || learn(name) != value) {
            throw ScopeError("SMC " + name + " 回读不一致");
        }
        key->lastWriteFailed = false;
    }

    // "F0Md=1 F0Tg=6200": what arrived, in order.
    std::string journal() const {
        std::ostringstream text;
        for (const auto& [key, value] : writes_) {
            text << (text.tellp() > 0 ? " " : "") << key << "=" << value;
        }
        return text.str();
    }
    bool untouched() const { return writes_.empty(); }

private:
    static constexpr std::size_t kReservedWrites = 256;

    double learn(const std::string& name) {
        const auto found = keys.find(name);
        if (found == keys.end() || found->second.unreadable) {
            throw ScopeError("SMC " + name + " 读取失败（132）");
        }
        if (std::exchange(faults.garbage, false)) {
            return std::numeric_limits<double>::quiet_NaN();
        }
        found->second.learned = found->second.value;
        return found->second.value;
    }

    bool refuses(const std::string& name, double value) {
        if (!locked || name.substr(2) != "Md" || value != 1) {
            return false;
        }
        return keys["Ftst"].value == 0 || refusalsAfterUnlock-- > 0;
    }

    std::vector<std::pair<std::string, double>> writes_;
};

}  // namespace ferovane::testing
