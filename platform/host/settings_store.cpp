// Settings store files. One file per key holds one line "<type>:<value>". A write goes to a
// hidden temporary file beside the key, is fsynced and renamed over the key, so readers (and
// change watchers, which only react to the rename) never see half a value and a power cut leaves
// the old or the new one. A writer killed in the middle leaves its temporary file; the first
// process to use the store afterwards removes it.
#include "SettingsStore.h"

#include "HostLog.h"
#include "UniqueFd.h"
#include "nimbos/paths.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <glib.h>
#include <mutex>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbos::settings {

namespace {

// Settings are small; a larger file is garbage, not a value.
constexpr size_t kMaxFileSize = 1024 * 1024;
// Leaves room in NAME_MAX for the temporary file's "." prefix and ".XXXXXX" suffix.
constexpr size_t kMaxComponentLength = 200;
constexpr size_t kMaxKeyLength = 1024;
// A write's temporary file is "." + the key's file name + kTemporarySuffix, whose X's mkostemp
// replaces with letters and digits.
constexpr char kTemporarySuffix[] = ".XXXXXX";
constexpr size_t kTemporarySuffixLength = sizeof kTemporarySuffix - 1;
// A write whose temporary file a sweep removed before the write locked it starts again.
constexpr int kTemporaryFileTries = 5;
// Directories a sweep of the store keeps open at a time.
constexpr int kSweepOpenDirectories = 16;

struct Store {
    const char *prefix;
    const char *variable;
    const char *defaultDir;
    bool persistent;
};

constexpr Store kStores[] = {
    {"db/", "HADRIX_SETTINGS_DIR", "/var/lib/nimbos/settings", true},
    {"memory/", "HADRIX_RUNTIME_SETTINGS_DIR", "/run/nimbos/settings", false},
};

std::string StoreDirectory(const Store &store)
{
    const char *dir = getenv(store.variable);
    return dir && *dir ? dir : nimbos::Path(store.defaultDir);
}

bool IsKeyCharacter(char c)
{
    return g_ascii_isalnum(c) || (c != '\0' && strchr("._-+@:,", c));
}

// Why one '/'-separated part of a key is not usable, or nullptr when it is.
const char *KeyPartFault(const std::string &part)
{
    if (part.empty())
        return "the key has an empty part (\"//\" or a leading '/')";
    if (part[0] == '.')
        return "a part of the key starts with '.'";
    if (part.size() > kMaxComponentLength)
        return "a part of the key is too long";
    return nullptr;
}

// Whether name is exactly what a write's temporary file is called: "." + a key's file name +
// "." and six letters or digits.
bool IsTemporaryName(const std::string &name)
{
    if (name.size() < 2 + kTemporarySuffixLength || name[0] != '.')
        return false;
    const size_t suffix = name.size() - kTemporarySuffixLength;
    const std::string keyFile = name.substr(1, suffix - 1);
    return name[suffix] == '.' &&
           std::all_of(name.begin() + static_cast<std::ptrdiff_t>(suffix) + 1, name.end(),
                       [](char c) { return g_ascii_isalnum(c); }) &&
           !KeyPartFault(keyFile) && std::all_of(keyFile.begin(), keyFile.end(), IsKeyCharacter);
}

// Removes the temporary file at path unless a writer still holds its lock (a live write): a
// writer that died, however, holds nothing. The file is opened without following a link.
void RemoveIfAbandoned(const char *path)
{
    UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (!fd || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || flock(fd.get(), LOCK_EX | LOCK_NB) != 0)
        return;
    if (unlink(path) == 0)
        HOST_LOG(DLOG_WARN, "removed %s, left by a settings write that did not finish", path);
    else
        HOST_LOG(DLOG_DEBUG, "cannot remove %s, left by a settings write that did not finish: %s", path,
                 strerror(errno));
}

int SweepEntry(const char *path, const struct stat *info, int type, struct FTW *where)
{
    const char *name = path + where->base;
    // No key part starts with '.', so nothing below a hidden directory is a write's.
    if (type == FTW_D && where->level > 0 && name[0] == '.')
        return FTW_SKIP_SUBTREE;
    if (type == FTW_F && S_ISREG(info->st_mode) && IsTemporaryName(name))
        RemoveIfAbandoned(path);
    return FTW_CONTINUE;
}

// Removes the temporary files of writes that did not finish from dir and its subdirectories,
// following no link.
void RemoveAbandonedTemporaries(const std::string &dir)
{
    nftw(dir.c_str(), SweepEntry, kSweepOpenDirectories, FTW_PHYS | FTW_ACTIONRETVAL);
}

// Every store directory is swept the first time the process uses the store, so that the next
// process to start after a writer was killed clears what it left.
void SweepStoresOnce()
{
    static std::mutex *mutex = new std::mutex; // never destroyed: used until the process ends
    static auto *swept = new std::set<std::string>;
    std::lock_guard<std::mutex> lock(*mutex);
    for (const Store &store : kStores) {
        const std::string dir = StoreDirectory(store);
        if (swept->insert(dir).second)
            RemoveAbandonedTemporaries(dir);
    }
}

// Why name is not a usable key, or nullptr when it is.
const char *KeyFault(const std::string &name)
{
    if (name.empty())
        return "the key is empty";
    if (name.size() > kMaxKeyLength)
        return "the key is too long";
    for (char c : name)
        if (c != '/' && !IsKeyCharacter(c))
            return "the key holds a character that is not allowed in a file name";
    if (name.find("..") != std::string::npos)
        return "the key contains \"..\"";
    if (name.back() == '/')
        return "the key ends with '/'";
    size_t start = 0;
    for (;;) {
        size_t end = name.find('/', start);
        if (const char *fault = KeyPartFault(name.substr(start, end == std::string::npos ? end : end - start)))
            return fault;
        if (end == std::string::npos)
            return nullptr;
        start = end + 1;
    }
}

const Store *StoreOf(const std::string &name)
{
    for (const Store &store : kStores)
        if (name.compare(0, strlen(store.prefix), store.prefix) == 0)
            return &store;
    return nullptr;
}

std::optional<int> ParseInt(const std::string &text)
{
    int value = 0;
    const char *end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end)
        return std::nullopt;
    return value;
}

std::optional<double> ParseDouble(const std::string &text)
{
    double value = 0.0;
    const char *end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || !std::isfinite(value))
        return std::nullopt;
    return value;
}

// The shortest text that reads back as the same double; independent of the locale.
std::string FormatDouble(double value)
{
    char buffer[64];
    auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return ec == std::errc() ? std::string(buffer, ptr) : std::string();
}

std::optional<Value> ParseTypedText(const std::string &type, const std::string &text, const char *&fault)
{
    if (type == "string")
        return Value::String(text);
    if (type == "int") {
        auto number = ParseInt(text);
        fault = "not an int or out of range";
        return number ? std::optional<Value>(Value::Int(*number)) : std::nullopt;
    }
    if (type == "bool") {
        fault = "a bool is 0 or 1";
        return text == "0" || text == "1" ? std::optional<Value>(Value::Bool(text == "1")) : std::nullopt;
    }
    if (type == "double") {
        auto real = ParseDouble(text);
        fault = "not a finite double";
        return real ? std::optional<Value>(Value::Double(*real)) : std::nullopt;
    }
    fault = "unknown type";
    return std::nullopt;
}

std::optional<Value> ParseContent(std::string content, const char *&fault)
{
    if (!content.empty() && content.back() == '\n')
        content.pop_back();
    if (content.empty()) {
        fault = "the file is empty";
        return std::nullopt;
    }
    if (content.find('\n') != std::string::npos) {
        fault = "the file holds more than one line";
        return std::nullopt;
    }
    if (content.find('\0') != std::string::npos) {
        fault = "the file holds a NUL byte";
        return std::nullopt;
    }
    size_t colon = content.find(':');
    if (colon == std::string::npos) {
        fault = "no \"<type>:\" in front of the value";
        return std::nullopt;
    }
    return ParseTypedText(content.substr(0, colon), content.substr(colon + 1), fault);
}

std::string FormatContent(const Value &value)
{
    switch (value.type) {
    case VCONF_TYPE_INT: return "int:" + std::to_string(value.number) + "\n";
    case VCONF_TYPE_BOOL: return std::string("bool:") + (value.number ? "1" : "0") + "\n";
    case VCONF_TYPE_DOUBLE: return "double:" + FormatDouble(value.real) + "\n";
    case VCONF_TYPE_STRING: return "string:" + value.text + "\n";
    case VCONF_TYPE_NONE: break;
    }
    return std::string();
}

// Why value cannot be stored, or nullptr when it can.
const char *ValueFault(const Value &value)
{
    if (value.type == VCONF_TYPE_STRING && value.text.find('\n') != std::string::npos)
        return "a string value cannot hold a newline";
    if (value.type == VCONF_TYPE_DOUBLE && !std::isfinite(value.real))
        return "a double value must be finite";
    if (value.text.size() > kMaxFileSize - sizeof "string:")
        return "the value is too large";
    return nullptr;
}

// Opens key's file for reading; a FIFO or device at the key must not block or be read.
UniqueFd OpenForReading(const Key &key)
{
    UniqueFd fd(open(key.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd) {
        if (errno == ENOENT || errno == ENOTDIR)
            HOST_LOG(DLOG_DEBUG, "settings key %s does not exist", key.name.c_str());
        else
            HOST_LOG(DLOG_ERROR, "cannot open settings key %s (%s): %s", key.name.c_str(), key.path.c_str(),
                     strerror(errno));
        return fd;
    }
    struct stat info {};
    if (fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        HOST_LOG(DLOG_ERROR, "settings key %s refused: %s is not a regular file", key.name.c_str(), key.path.c_str());
        fd.reset();
    }
    return fd;
}

std::optional<std::string> ReadContent(const Key &key)
{
    UniqueFd fd = OpenForReading(key);
    if (!fd)
        return std::nullopt;
    std::string content;
    char buffer[8192];
    for (;;) {
        ssize_t n = read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            HOST_LOG(DLOG_ERROR, "cannot read settings key %s: %s", key.name.c_str(), strerror(errno));
            return std::nullopt;
        }
        if (n == 0)
            return content;
        content.append(buffer, static_cast<size_t>(n));
        if (content.size() > kMaxFileSize) {
            HOST_LOG(DLOG_ERROR, "settings key %s refused: its file is larger than %zu bytes", key.name.c_str(),
                     kMaxFileSize);
            return std::nullopt;
        }
    }
}

bool WriteAll(int fd, const std::string &data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool SyncDirectory(const std::string &dir)
{
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || fsync(fd.get()) != 0) {
        HOST_LOG(DLOG_ERROR, "cannot sync directory %s: %s", dir.c_str(), strerror(errno));
        return false;
    }
    return true;
}

// A new hidden file beside the key ('.' keeps change watchers away from it), removed again
// unless it was renamed over the key. Its lock, held until then, tells a sweep that the write is
// alive.
class TempFile {
public:
    TempFile(const std::string &dir, const std::string &keyFile)
    {
        for (int tries = 0; tries < kTemporaryFileTries && !fd_; ++tries)
            Create(dir + "/." + keyFile + kTemporarySuffix);
    }
    ~TempFile()
    {
        if (!path_.empty())
            unlink(path_.c_str());
    }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;

    bool IsOpen() const { return static_cast<bool>(fd_); }
    int Fd() const { return fd_.get(); }
    bool Close() { return fd_.Close() == 0; }
    // Renames the file over target; it is the caller's then.
    bool RenameTo(const std::string &target)
    {
        if (rename(path_.c_str(), target.c_str()) != 0)
            return false;
        path_.clear();
        return true;
    }

private:
    // A sweep that came between mkostemp and the lock has removed the file: it is given up, and
    // the caller tries a new one.
    void Create(std::string pattern)
    {
        UniqueFd fd(mkostemp(&pattern[0], O_CLOEXEC));
        if (!fd)
            return;
        UniqueFd lock(open(pattern.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        struct stat info {};
        if (!lock || flock(lock.get(), LOCK_EX) != 0 || fstat(lock.get(), &info) != 0 || info.st_nlink == 0) {
            const int error = errno;
            unlink(pattern.c_str()); // unless a sweep has already
            errno = error;
            return;
        }
        path_ = std::move(pattern);
        fd_ = std::move(fd);
        lock_ = std::move(lock);
    }

    std::string path_;
    UniqueFd fd_;
    // The file opened once more, read-only: it keeps the lock from before the first write until
    // after the rename, and its closing is no completed write to change watchers.
    UniqueFd lock_;
};

bool FillTempFile(TempFile &temp, const std::string &content)
{
    return WriteAll(temp.Fd(), content) && fchmod(temp.Fd(), 0644) == 0 && fsync(temp.Fd()) == 0 && temp.Close();
}

} // namespace

std::string Key::Directory() const
{
    return path.substr(0, path.rfind('/'));
}

std::string Key::FileName() const
{
    return path.substr(path.rfind('/') + 1);
}

Value Value::Int(int v)
{
    Value value;
    value.type = VCONF_TYPE_INT;
    value.number = v;
    return value;
}

Value Value::Bool(bool v)
{
    Value value;
    value.type = VCONF_TYPE_BOOL;
    value.number = v ? 1 : 0;
    return value;
}

Value Value::Double(double v)
{
    Value value;
    value.type = VCONF_TYPE_DOUBLE;
    value.real = v;
    return value;
}

Value Value::String(std::string v)
{
    Value value;
    value.type = VCONF_TYPE_STRING;
    value.text = std::move(v);
    return value;
}

const char *TypeName(vconf_t type)
{
    switch (type) {
    case VCONF_TYPE_INT: return "int";
    case VCONF_TYPE_BOOL: return "bool";
    case VCONF_TYPE_DOUBLE: return "double";
    case VCONF_TYPE_STRING: return "string";
    case VCONF_TYPE_NONE: break;
    }
    return "none";
}

std::optional<Key> ParseKey(const char *name)
{
    if (!name) {
        HOST_LOG(DLOG_ERROR, "settings key refused: no key given");
        return std::nullopt;
    }
    const Store *store = StoreOf(name);
    const char *fault = store ? KeyFault(name) : "the key starts with neither \"db/\" nor \"memory/\"";
    if (fault) {
        HOST_LOG(DLOG_ERROR, "settings key \"%s\" refused: %s", name, fault);
        return std::nullopt;
    }
    SweepStoresOnce();
    return Key{name, StoreDirectory(*store) + "/" + name, store->persistent};
}

std::optional<Value> Read(const Key &key)
{
    auto content = ReadContent(key);
    if (!content)
        return std::nullopt;
    const char *fault = nullptr;
    auto value = ParseContent(std::move(*content), fault);
    if (!value)
        HOST_LOG(DLOG_ERROR, "settings key %s refused: malformed file %s: %s", key.name.c_str(), key.path.c_str(),
                 fault);
    return value;
}

bool MakeDirectories(const std::string &dir)
{
    if (g_mkdir_with_parents(dir.c_str(), 0755) != 0) {
        HOST_LOG(DLOG_ERROR, "cannot create settings directory %s: %s", dir.c_str(), strerror(errno));
        return false;
    }
    return true;
}

bool Write(const Key &key, const Value &value)
{
    if (const char *fault = ValueFault(value)) {
        HOST_LOG(DLOG_ERROR, "settings key %s not written: %s", key.name.c_str(), fault);
        return false;
    }
    const std::string dir = key.Directory();
    if (!MakeDirectories(dir))
        return false;
    TempFile temp(dir, key.FileName());
    if (!temp.IsOpen()) {
        HOST_LOG(DLOG_ERROR, "settings key %s not written: no temporary file in %s: %s", key.name.c_str(),
                 dir.c_str(), strerror(errno));
        return false;
    }
    // The rename replaces a symbolic link at the key itself; nothing is written through it.
    if (!FillTempFile(temp, FormatContent(value)) || !temp.RenameTo(key.path)) {
        HOST_LOG(DLOG_ERROR, "settings key %s not written to %s: %s", key.name.c_str(), key.path.c_str(),
                 strerror(errno));
        return false;
    }
    return !key.persistent || SyncDirectory(dir);
}

bool Remove(const Key &key)
{
    if (unlink(key.path.c_str()) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            HOST_LOG(DLOG_ERROR, "settings key %s not removed: it does not exist", key.name.c_str());
        else
            HOST_LOG(DLOG_ERROR, "settings key %s not removed from %s: %s", key.name.c_str(), key.path.c_str(),
                     strerror(errno));
        return false;
    }
    return !key.persistent || SyncDirectory(key.Directory());
}

} // namespace nimbos::settings
