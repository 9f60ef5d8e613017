// Settings store files: where a key lives, the one-line value format and crash-safe writes.
// Every refusal is logged here with its reason; callers only turn the result into -1.
#pragma once

#include "nimbos/settings.h"

#include <optional>
#include <string>

namespace nimbos::settings {

struct Key {
    std::string name;
    std::string path;     // <store directory>/<name>
    bool persistent;      // "db/" keys: their directory is fsynced after every change
    std::string Directory() const;
    std::string FileName() const;
};

struct Value {
    vconf_t type = VCONF_TYPE_NONE;
    int number = 0; // int and bool (0 or 1)
    double real = 0.0;
    std::string text;

    static Value Int(int v);
    static Value Bool(bool v);
    static Value Double(double v);
    static Value String(std::string v);
};

const char *TypeName(vconf_t type);

// The key behind a name, or nothing when the name is not a valid key.
std::optional<Key> ParseKey(const char *name);

// The stored value, or nothing when the key does not exist or its file is unreadable or malformed.
std::optional<Value> Read(const Key &key);
bool Write(const Key &key, const Value &value);
bool Remove(const Key &key);

// Creates dir and its missing parents with mode 0755.
bool MakeDirectories(const std::string &dir);

} // namespace nimbos::settings
