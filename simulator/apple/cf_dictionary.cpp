#include <CoreFoundation/CFDictionary.h>

#include <functional>
#include <unordered_map>
#include <utility>

#include "simulator/apple/cf_object.h"

namespace {

using simulator::cf::checked;
using simulator::cf::releaseObject;
using simulator::cf::retainObject;

template <class CallBacks>
const void* retained(const CallBacks& callBacks, const void* value) {
    return callBacks.retain != nullptr ? callBacks.retain(nullptr, value) : value;
}

template <class CallBacks>
void released(const CallBacks& callBacks, const void* value) {
    if (callBacks.release != nullptr) {
        callBacks.release(nullptr, value);
    }
}

template <class CallBacks>
bool equal(const CallBacks& callBacks, const void* first, const void* second) {
    return first == second || (callBacks.equal != nullptr && callBacks.equal(first, second) != 0);
}

}  // namespace

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {
    0, retainObject, releaseObject, nullptr, CFEqual, CFHash};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {0, retainObject, releaseObject,
                                                                    nullptr, CFEqual};

struct __CFDictionary final : simulator::cf::Object {
    // Without callbacks a key is its address.
    struct KeyHash {
        CFDictionaryHashCallBack hash;
        std::size_t operator()(const void* key) const {
            return hash != nullptr ? hash(key) : std::hash<const void*>{}(key);
        }
    };

    struct KeyEqual {
        CFDictionaryKeyCallBacks callBacks;
        bool operator()(const void* first, const void* second) const {
            return equal(callBacks, first, second);
        }
    };

    using Entries = std::unordered_map<const void*, const void*, KeyHash, KeyEqual>;
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kDictionaryTypeId;

    __CFDictionary(const CFDictionaryKeyCallBacks* keysOrNull,
                   const CFDictionaryValueCallBacks* valuesOrNull)
        : Object(kTypeId),
          keyCallBacks(keysOrNull != nullptr ? *keysOrNull : CFDictionaryKeyCallBacks{}),
          valueCallBacks(valuesOrNull != nullptr ? *valuesOrNull : CFDictionaryValueCallBacks{}),
          entries(0, KeyHash{keyCallBacks.hash}, KeyEqual{keyCallBacks}) {}

    void set(const void* key, const void* value) {
        const void* kept = retained(valueCallBacks, value);
        const auto known = entries.find(key);
        if (known == entries.end()) {
            entries.emplace(retained(keyCallBacks, key), kept);
        } else {
            released(valueCallBacks, std::exchange(known->second, kept));
        }
    }

    bool equals(const Object& other) const override {
        const auto& dictionary = static_cast<const __CFDictionary&>(other);
        if (entries.size() != dictionary.entries.size()) {
            return false;
        }
        for (const auto& [key, value] : entries) {
            const auto theirs = dictionary.entries.find(key);
            if (theirs == dictionary.entries.end() ||
                !equal(valueCallBacks, value, theirs->second)) {
                return false;
            }
        }
        return true;
    }
    CFHashCode hash() const override { return entries.size(); }

    const CFDictionaryKeyCallBacks keyCallBacks;
    const CFDictionaryValueCallBacks valueCallBacks;
    Entries entries;

protected:
    void dropContents() override {
        const Entries dropped = std::move(entries);
        entries.clear();
        for (const auto& entry : dropped) {
            releaseEntry(entry);
        }
    }

private:
    void releaseEntry(const Entries::value_type& entry) const {
        released(keyCallBacks, entry.first);
        released(valueCallBacks, entry.second);
    }
};

CFTypeID CFDictionaryGetTypeID(void) {
    return __CFDictionary::kTypeId;
}

// The capacity is a hint, as on macOS.
CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex,
                                                 const CFDictionaryKeyCallBacks* keyCallBacks,
                                                 const CFDictionaryValueCallBacks* valueCallBacks) {
    return simulator::cf::make<__CFDictionary>(keyCallBacks, valueCallBacks);
}

void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void* key, const void* value) {
    checked(dictionary).set(key, value);
}

CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary) {
    return static_cast<CFIndex>(checked(dictionary).entries.size());
}

Boolean CFDictionaryContainsKey(CFDictionaryRef dictionary, const void* key) {
    return CFDictionaryGetValueIfPresent(dictionary, key, nullptr);
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
    const void* value = nullptr;
    CFDictionaryGetValueIfPresent(dictionary, key, &value);
    return value;
}

Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef dictionary, const void* key,
                                      const void** value) {
    const __CFDictionary& checkedDictionary = checked(dictionary);
    const auto entry = checkedDictionary.entries.find(key);
    if (entry == checkedDictionary.entries.end()) {
        return 0;
    }
    if (value != nullptr) {
        *value = entry->second;
    }
    return 1;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void** keys,
                                  const void** values) {
    for (const auto& [key, value] : checked(dictionary).entries) {
        if (keys != nullptr) {
            *keys++ = key;
        }
        if (values != nullptr) {
            *values++ = value;
        }
    }
}
