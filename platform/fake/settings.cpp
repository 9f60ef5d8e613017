// The fake settings store: typed values in memory for "db/" and "memory/" keys alike. Every
// completed write, by the service or by a test standing for another process, schedules each
// change callback of the key on the context it was registered from; the callback reads the key
// as it is when it runs.
#include "nimbos/settings.h"

#include "FakeCore.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>

namespace {

using nimbos::fake::detail::ContextRef;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Record;
using nimbos::fake::detail::Text;

struct Value {
    vconf_t type = VCONF_TYPE_NONE;
    int number = 0; // int and bool (0 or 1)
    double real = 0.0;
    std::string text;
};

} // namespace

struct _keynode_t {
    std::string name;
    Value value;
};

namespace {

struct Registration {
    std::string key;
    vconf_callback_fn callback;
    void *userData;
    ContextRef context;
    unsigned long id;
};

struct Store {
    std::mutex lock;
    std::map<std::string, Value> values;
    std::vector<Registration> registrations;
};

Store &TheStore()
{
    static Store *store = new Store;
    return *store;
}

bool StartsWith(const char *name, const char *prefix)
{
    return strncmp(name, prefix, strlen(prefix)) == 0 && name[strlen(prefix)] != '\0';
}

bool IsKey(const char *name)
{
    return name && (StartsWith(name, "db/") || StartsWith(name, "memory/"));
}

std::optional<Value> Read(const std::string &key)
{
    Store &store = TheStore();
    std::lock_guard<std::mutex> lock(store.lock);
    auto found = store.values.find(key);
    return found == store.values.end() ? std::nullopt : std::optional<Value>(found->second);
}

std::optional<Value> ReadAs(const char *key, vconf_t type)
{
    auto value = IsKey(key) ? Read(key) : std::nullopt;
    return value && value->type == type ? value : std::nullopt;
}

void RunCallback(unsigned long id)
{
    Store &store = TheStore();
    std::unique_lock<std::mutex> lock(store.lock);
    auto registration = std::find_if(store.registrations.begin(), store.registrations.end(),
                                     [id](const Registration &entry) { return entry.id == id; });
    if (registration == store.registrations.end())
        return; // removed meanwhile
    auto value = store.values.find(registration->key);
    _keynode_t node{registration->key, value == store.values.end() ? Value() : value->second};
    const vconf_callback_fn callback = registration->callback;
    void *const userData = registration->userData;
    lock.unlock();
    callback(&node, userData);
}

// Values the store cannot hold: a string of more than one line, a double that is not finite.
bool IsStorable(const Value &value)
{
    return value.text.find('\n') == std::string::npos && std::isfinite(value.real);
}

int Write(const char *key, const Value &value)
{
    if (!IsKey(key) || !IsStorable(value))
        return -1;
    Store &store = TheStore();
    std::lock_guard<std::mutex> lock(store.lock);
    store.values[key] = value;
    for (const Registration &registration : store.registrations)
        if (registration.key == key) {
            const unsigned long id = registration.id;
            nimbos::fake::detail::Post(registration.context.get(), [id] { RunCallback(id); });
        }
    return 0;
}

Value Number(vconf_t type, int number)
{
    Value value;
    value.type = type;
    value.number = number;
    return value;
}

Value Real(double real)
{
    Value value;
    value.type = VCONF_TYPE_DOUBLE;
    value.real = real;
    return value;
}

Value String(const std::string &text)
{
    Value value;
    value.type = VCONF_TYPE_STRING;
    value.text = text;
    return value;
}

bool Remove(const char *key)
{
    Store &store = TheStore();
    std::lock_guard<std::mutex> lock(store.lock);
    return IsKey(key) && store.values.erase(key) > 0;
}

template <typename T>
int Get(const char *key, vconf_t type, T Value::*field, T *out)
{
    auto value = out ? ReadAs(key, type) : std::nullopt;
    if (!value)
        return -1;
    *out = (*value).*field;
    return 0;
}

bool IsNodeOf(keynode_t *node, vconf_t type)
{
    return node && node->value.type == type;
}

} // namespace

extern "C" {

int vconf_get_int(const char *key, int *value)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    return Get(key, VCONF_TYPE_INT, &Value::number, value);
}

int vconf_get_bool(const char *key, int *value)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    return Get(key, VCONF_TYPE_BOOL, &Value::number, value);
}

int vconf_get_dbl(const char *key, double *value)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    return Get(key, VCONF_TYPE_DOUBLE, &Value::real, value);
}

char *vconf_get_str(const char *key)
{
    if (Enter(__func__, {Text(key)}))
        return nullptr;
    auto value = ReadAs(key, VCONF_TYPE_STRING);
    return value ? g_strdup(value->text.c_str()) : nullptr;
}

int vconf_set_int(const char *key, int value)
{
    if (auto injected = Enter(__func__, {Text(key), Text(value)}))
        return *injected;
    return Write(key, Number(VCONF_TYPE_INT, value));
}

int vconf_set_bool(const char *key, int value)
{
    if (auto injected = Enter(__func__, {Text(key), Text(value)}))
        return *injected;
    return Write(key, Number(VCONF_TYPE_BOOL, value != 0));
}

int vconf_set_dbl(const char *key, double value)
{
    if (auto injected = Enter(__func__, {Text(key), Text(value)}))
        return *injected;
    return Write(key, Real(value));
}

int vconf_set_str(const char *key, const char *value)
{
    if (auto injected = Enter(__func__, {Text(key), Text(value)}))
        return *injected;
    return value ? Write(key, String(value)) : -1;
}

int vconf_unset(const char *key)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    return Remove(key) ? 0 : -1;
}

int vconf_notify_key_changed(const char *key, vconf_callback_fn cb, void *user_data)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    if (!IsKey(key) || !cb)
        return -1;
    Store &store = TheStore();
    std::lock_guard<std::mutex> lock(store.lock);
    for (Registration &registration : store.registrations)
        if (registration.key == key && registration.callback == cb) {
            registration.userData = user_data;
            return 0;
        }
    store.registrations.push_back(
        Registration{key, cb, user_data, nimbos::fake::detail::CallerContext(), nimbos::fake::detail::NewRegistrationId()});
    return 0;
}

int vconf_ignore_key_changed(const char *key, vconf_callback_fn cb)
{
    if (auto injected = Enter(__func__, {Text(key)}))
        return *injected;
    Store &store = TheStore();
    std::lock_guard<std::mutex> lock(store.lock);
    auto found = std::find_if(store.registrations.begin(), store.registrations.end(), [&](const Registration &entry) {
        return key && entry.key == key && entry.callback == cb;
    });
    if (found == store.registrations.end())
        return -1;
    store.registrations.erase(found);
    return 0;
}

const char *vconf_keynode_get_name(keynode_t *node)
{
    Record(__func__, {});
    return node ? node->name.c_str() : nullptr;
}

int vconf_keynode_get_type(keynode_t *node)
{
    Record(__func__, {});
    return node ? node->value.type : VCONF_TYPE_NONE;
}

int vconf_keynode_get_int(keynode_t *node)
{
    Record(__func__, {});
    return IsNodeOf(node, VCONF_TYPE_INT) ? node->value.number : 0;
}

int vconf_keynode_get_bool(keynode_t *node)
{
    Record(__func__, {});
    return IsNodeOf(node, VCONF_TYPE_BOOL) ? node->value.number : 0;
}

double vconf_keynode_get_dbl(keynode_t *node)
{
    Record(__func__, {});
    return IsNodeOf(node, VCONF_TYPE_DOUBLE) ? node->value.real : 0.0;
}

const char *vconf_keynode_get_str(keynode_t *node)
{
    Record(__func__, {});
    return IsNodeOf(node, VCONF_TYPE_STRING) ? node->value.text.c_str() : nullptr;
}

} // extern "C"

namespace nimbos::fake {

namespace {

// A test's write stands for another process's: one the store refuses is a mistake in the test.
void WriteElsewhere(const std::string &key, const Value &value)
{
    if (Write(key.c_str(), value) != 0)
        throw std::invalid_argument("the settings store refuses this value of " + key);
}

} // namespace

void SetInt(const std::string &key, int value)
{
    WriteElsewhere(key, Number(VCONF_TYPE_INT, value));
}

void SetBool(const std::string &key, bool value)
{
    WriteElsewhere(key, Number(VCONF_TYPE_BOOL, value));
}

void SetDouble(const std::string &key, double value)
{
    WriteElsewhere(key, Real(value));
}

void SetString(const std::string &key, const std::string &value)
{
    WriteElsewhere(key, String(value));
}

bool Unset(const std::string &key)
{
    return Remove(key.c_str());
}

std::optional<int> GetInt(const std::string &key)
{
    auto value = ReadAs(key.c_str(), VCONF_TYPE_INT);
    return value ? std::optional<int>(value->number) : std::nullopt;
}

std::optional<bool> GetBool(const std::string &key)
{
    auto value = ReadAs(key.c_str(), VCONF_TYPE_BOOL);
    return value ? std::optional<bool>(value->number != 0) : std::nullopt;
}

std::optional<double> GetDouble(const std::string &key)
{
    auto value = ReadAs(key.c_str(), VCONF_TYPE_DOUBLE);
    return value ? std::optional<double>(value->real) : std::nullopt;
}

std::optional<std::string> GetString(const std::string &key)
{
    auto value = ReadAs(key.c_str(), VCONF_TYPE_STRING);
    return value ? std::optional<std::string>(value->text) : std::nullopt;
}

namespace detail {

void ResetSettings()
{
    Store &store = TheStore();
    std::lock_guard<std::mutex> lock(store.lock);
    store.values.clear();
    store.registrations.clear();
}

} // namespace detail

} // namespace nimbos::fake
