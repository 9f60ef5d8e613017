// Host settings store: typed values in files (SettingsStore), and change callbacks fed by
// inotify so that writes by any process reach them. Each registration owns one inotify
// instance watching the key's directory and one GSource attached to the main context that was
// the registering thread's default; the callback runs there.
#include "nimbos/settings.h"

#include "HostLog.h"
#include "SettingsStore.h"
#include "SourcePtr.h"
#include "UniqueFd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <glib.h>
#include <memory>
#include <mutex>
#include <sys/inotify.h>
#include <vector>

using nimbos::SourcePtr;
using nimbos::settings::Key;
using nimbos::settings::Value;

struct _keynode_t {
    std::string name;
    Value value;
};

namespace {

std::optional<Value> ReadAs(const char *name, vconf_t wanted)
{
    auto key = nimbos::settings::ParseKey(name);
    if (!key)
        return std::nullopt;
    auto value = nimbos::settings::Read(*key);
    if (value && value->type != wanted) {
        HOST_LOG(DLOG_WARN, "settings key %s holds type %s, not %s", name, nimbos::settings::TypeName(value->type),
                 nimbos::settings::TypeName(wanted));
        return std::nullopt;
    }
    return value;
}

int Store(const char *name, const Value &value)
{
    auto key = nimbos::settings::ParseKey(name);
    return key && nimbos::settings::Write(*key, value) ? 0 : -1;
}

// The typed getters: `field` of the stored value goes to *out when the key holds `wanted`.
template <typename T>
int Get(const char *function, const char *name, vconf_t wanted, T Value::*field, T *out)
{
    if (!out) {
        HOST_LOG(DLOG_ERROR, "%s refused: no place for the value", function);
        return -1;
    }
    auto stored = ReadAs(name, wanted);
    if (!stored)
        return -1;
    *out = (*stored).*field;
    return 0;
}

// What one registration's source needs when it fires. Owned by that source.
struct KeyWatch {
    Key key;
    std::string fileName; // key.FileName(), kept for matching every event of the directory
    vconf_callback_fn callback;
    std::atomic<void *> userData;
    // Cleared on removal, so a dispatch already running on another thread stops early.
    std::atomic<bool> active{true};
};

struct KeyWatchSource {
    GSource source;
    int fd;
    KeyWatch *watch;
};

bool IsChangeOf(const inotify_event &event, const KeyWatch &watch)
{
    if (event.mask & IN_Q_OVERFLOW)
        return true; // events were lost; the key may have changed
    return (event.mask & (IN_MOVED_TO | IN_CLOSE_WRITE)) && event.len > 0 && watch.fileName == event.name;
}

// Reads every pending event; returns how many of them are completed writes of the key.
unsigned DrainEvents(int fd, const KeyWatch &watch)
{
    alignas(inotify_event) char buffer[4096];
    unsigned changes = 0;
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n < 0 && errno != EAGAIN)
                HOST_LOG(DLOG_ERROR, "cannot read changes of %s: %s", watch.key.name.c_str(), strerror(errno));
            return changes;
        }
        for (char *p = buffer; p < buffer + n;) {
            const auto *event = reinterpret_cast<const inotify_event *>(p);
            if (IsChangeOf(*event, watch))
                ++changes;
            if (event->mask & IN_IGNORED)
                HOST_LOG(DLOG_WARN, "the directory of settings key %s went away; no more change callbacks for it",
                         watch.key.name.c_str());
            p += sizeof(inotify_event) + event->len;
        }
    }
}

void Notify(const KeyWatch &watch)
{
    _keynode_t node{watch.key.name, nimbos::settings::Read(watch.key).value_or(Value())};
    watch.callback(&node, watch.userData.load());
}

gboolean DispatchKeyWatch(GSource *source, GSourceFunc, gpointer)
{
    auto *self = reinterpret_cast<KeyWatchSource *>(source);
    unsigned changes = DrainEvents(self->fd, *self->watch);
    for (unsigned i = 0; i < changes && self->watch->active; ++i)
        Notify(*self->watch);
    return G_SOURCE_CONTINUE;
}

// Runs once the source is out of every context, so no poll or dispatch uses the fd any more.
void FinalizeKeyWatch(GSource *source)
{
    auto *self = reinterpret_cast<KeyWatchSource *>(source);
    UniqueFd closeOnReturn(self->fd);
    delete self->watch;
}

GSourceFuncs kKeyWatchFuncs = {nullptr, nullptr, DispatchKeyWatch, FinalizeKeyWatch, nullptr, nullptr};

KeyWatch &WatchOf(const SourcePtr &source)
{
    return *reinterpret_cast<KeyWatchSource *>(source.get())->watch;
}

UniqueFd WatchDirectoryOf(const Key &key)
{
    const std::string dir = key.Directory();
    if (!nimbos::settings::MakeDirectories(dir))
        return UniqueFd();
    UniqueFd fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd || inotify_add_watch(fd.get(), dir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR) < 0) {
        HOST_LOG(DLOG_ERROR, "cannot watch %s for changes of settings key %s: %s", dir.c_str(), key.name.c_str(),
                 strerror(errno));
        return UniqueFd();
    }
    return fd;
}

// A source dispatching on the calling thread's default main context.
SourcePtr AttachKeyWatch(const Key &key, vconf_callback_fn callback, void *userData)
{
    UniqueFd fd = WatchDirectoryOf(key);
    if (!fd)
        return SourcePtr();
    SourcePtr source(g_source_new(&kKeyWatchFuncs, sizeof(KeyWatchSource)));
    auto *self = reinterpret_cast<KeyWatchSource *>(source.get());
    self->watch = new KeyWatch{key, key.FileName(), callback, {userData}};
    self->fd = fd.release();
    g_source_add_unix_fd(source.get(), self->fd, G_IO_IN);
    g_source_set_name(source.get(), "settings key watch");
    g_autoptr(GMainContext) context = g_main_context_ref_thread_default();
    g_source_attach(source.get(), context);
    return source;
}

// One registration is its attached source; the key and callback it serves are in its watch.
class Registry {
public:
    int Add(const Key &key, vconf_callback_fn callback, void *userData)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = Find(key.name, callback);
        if (found != registrations_.end()) {
            WatchOf(*found).userData = userData;
            return 0;
        }
        SourcePtr source = AttachKeyWatch(key, callback, userData);
        if (!source)
            return -1;
        registrations_.push_back(std::move(source));
        return 0;
    }

    bool Remove(const std::string &key, vconf_callback_fn callback)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = Find(key, callback);
        if (found == registrations_.end())
            return false;
        WatchOf(*found).active = false;
        registrations_.erase(found);
        return true;
    }

private:
    std::vector<SourcePtr>::iterator Find(const std::string &key, vconf_callback_fn callback)
    {
        return std::find_if(registrations_.begin(), registrations_.end(), [&](const SourcePtr &source) {
            const KeyWatch &watch = WatchOf(source);
            return watch.callback == callback && watch.key.name == key;
        });
    }

    std::mutex mutex_;
    std::vector<SourcePtr> registrations_;
};

// Never destroyed: sources may still dispatch on other threads while the process exits.
Registry &Registrations()
{
    static Registry *registry = new Registry;
    return *registry;
}

bool IsNodeOfType(keynode_t *node, vconf_t type, const char *function)
{
    if (!node) {
        HOST_LOG(DLOG_ERROR, "%s refused: no key node", function);
        return false;
    }
    if (node->value.type != type) {
        HOST_LOG(DLOG_WARN, "%s refused: %s holds type %s", function, node->name.c_str(),
                 nimbos::settings::TypeName(node->value.type));
        return false;
    }
    return true;
}

} // namespace

extern "C" {

int vconf_get_int(const char *key, int *value)
{
    return Get(__func__, key, VCONF_TYPE_INT, &Value::number, value);
}

int vconf_get_bool(const char *key, int *value)
{
    return Get(__func__, key, VCONF_TYPE_BOOL, &Value::number, value);
}

int vconf_get_dbl(const char *key, double *value)
{
    return Get(__func__, key, VCONF_TYPE_DOUBLE, &Value::real, value);
}

char *vconf_get_str(const char *key)
{
    auto stored = ReadAs(key, VCONF_TYPE_STRING);
    return stored ? g_strdup(stored->text.c_str()) : nullptr;
}

int vconf_set_int(const char *key, int value)
{
    return Store(key, Value::Int(value));
}

int vconf_set_bool(const char *key, int value)
{
    return Store(key, Value::Bool(value != 0));
}

int vconf_set_dbl(const char *key, double value)
{
    return Store(key, Value::Double(value));
}

int vconf_set_str(const char *key, const char *value)
{
    if (!value) {
        HOST_LOG(DLOG_ERROR, "settings key %s not written: no string given", key ? key : "(null)");
        return -1;
    }
    return Store(key, Value::String(value));
}

int vconf_unset(const char *key)
{
    auto parsed = nimbos::settings::ParseKey(key);
    return parsed && nimbos::settings::Remove(*parsed) ? 0 : -1;
}

int vconf_notify_key_changed(const char *key, vconf_callback_fn cb, void *user_data)
{
    auto parsed = nimbos::settings::ParseKey(key);
    if (!parsed)
        return -1;
    if (!cb) {
        HOST_LOG(DLOG_ERROR, "change callback for %s refused: no callback given", key);
        return -1;
    }
    return Registrations().Add(*parsed, cb, user_data);
}

int vconf_ignore_key_changed(const char *key, vconf_callback_fn cb)
{
    if (!key || !Registrations().Remove(key, cb)) {
        HOST_LOG(DLOG_ERROR, "no change callback to remove for settings key %s", key ? key : "(null)");
        return -1;
    }
    return 0;
}

const char *vconf_keynode_get_name(keynode_t *node)
{
    return node ? node->name.c_str() : nullptr;
}

int vconf_keynode_get_type(keynode_t *node)
{
    return node ? node->value.type : VCONF_TYPE_NONE;
}

int vconf_keynode_get_int(keynode_t *node)
{
    return IsNodeOfType(node, VCONF_TYPE_INT, __func__) ? node->value.number : 0;
}

int vconf_keynode_get_bool(keynode_t *node)
{
    return IsNodeOfType(node, VCONF_TYPE_BOOL, __func__) ? node->value.number : 0;
}

double vconf_keynode_get_dbl(keynode_t *node)
{
    return IsNodeOfType(node, VCONF_TYPE_DOUBLE, __func__) ? node->value.real : 0.0;
}

const char *vconf_keynode_get_str(keynode_t *node)
{
    return IsNodeOfType(node, VCONF_TYPE_STRING, __func__) ? node->value.text.c_str() : nullptr;
}

} // extern "C"
