#include "LocalFileData.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "HadrixUtil.h"
#include "UniqueFd.h"
#include "nimbos/paths.h"
#include "UniqueHandle.h"

namespace {

constexpr int kDefaultVolumeLevel = 50;
constexpr int kMaxVolumeLevel = 100;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirMode = 0755;

void MakeParentDirs(const std::string &path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), kDirMode); // an existing directory is fine
}

bool WriteAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

enum class ReadEnd { Ok, Failed, TooLarge };

// Reads fd to its end onto text, not beyond maxBytes in all; errno tells why it Failed.
ReadEnd ReadAll(int fd, size_t maxBytes, std::string &text)
{
    char buffer[16 * 1024];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return ReadEnd::Failed;
        if (n == 0)
            return ReadEnd::Ok;
        if (text.size() + static_cast<size_t>(n) > maxBytes)
            return ReadEnd::TooLarge;
        text.append(buffer, static_cast<size_t>(n));
    }
}

// What is at a path, for a log line.
const char *KindOf(mode_t mode)
{
    if (S_ISLNK(mode))
        return "a symbolic link";
    if (S_ISDIR(mode))
        return "a directory";
    return S_ISREG(mode) ? "a regular file" : "a special file";
}

// Whether name is one of mkostemp's "<prefix>XXXXXX" names.
bool IsTemporaryOf(const std::string &name, const std::string &prefix)
{
    constexpr size_t kTemporarySuffix = 6;
    return name.size() == prefix.size() + kTemporarySuffix && name.compare(0, prefix.size(), prefix) == 0 &&
           std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0; });
}

} // namespace

void CLocalFileData::RemoveUnfinishedReplacements(const std::string &resolved)
{
    const size_t slash = resolved.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : resolved.substr(0, slash);
    const std::string prefix = resolved.substr(slash == std::string::npos ? 0 : slash + 1) + ".";
    UniqueHandle<DIR, closedir> entries(opendir(dir.c_str()));
    if (!entries)
        return;
    while (const dirent *entry = readdir(entries.get())) {
        if (!IsTemporaryOf(entry->d_name, prefix))
            continue;
        LOGW("remove %s/%s, left by a save that did not finish", dir.c_str(), entry->d_name);
        unlinkat(dirfd(entries.get()), entry->d_name, 0);
    }
}

bool CLocalFileData::ReplaceResolvedFile(const std::string &resolved, const char *data, size_t size)
{
    MakeParentDirs(resolved);
    std::string temp = resolved + ".XXXXXX";
    UniqueFd fd(mkostemp(&temp[0], O_CLOEXEC));
    if (fd.get() < 0)
        return false;
    bool written = fchmod(fd.get(), kFileMode) == 0 && WriteAll(fd.get(), data, size) && fsync(fd.get()) == 0;
    if (fd.Close() != 0 || !written || rename(temp.c_str(), resolved.c_str()) != 0) {
        int error = errno;
        unlink(temp.c_str());
        errno = error;
        return false;
    }
    return true;
}

CLocalFileData::CLocalFileData()
{
    GetVolumeLevelFromDB();
    GetMuteStateFromDB();
}

bool CLocalFileData::m_IsFileExist(const std::string &path)
{
    bool exists = access(nimbos::Path(path).c_str(), F_OK) == 0;
    if (exists)
        LOGD("%s exist", path.c_str());
    else
        LOGD("%s not exist", path.c_str());
    return exists;
}

// The marker's directory is writable by anyone: what someone else put there (another user's file,
// a link, a directory) is not the service's marker and is removed, so that the service can make
// its own. lstat and remove never follow a link.
bool CLocalFileData::m_IsOwnMarker(const std::string &path)
{
    const std::string resolved = nimbos::Path(path);
    struct stat info;
    if (lstat(resolved.c_str(), &info) != 0) {
        LOGD("%s not exist", path.c_str());
        return false;
    }
    if (S_ISREG(info.st_mode) && info.st_uid == geteuid()) {
        LOGD("%s exist", path.c_str());
        return true;
    }
    LOGW("%s is %s of uid %u, not the service's own marker: removing it", path.c_str(), KindOf(info.st_mode),
         static_cast<unsigned>(info.st_uid));
    if (remove(resolved.c_str()) != 0)
        LOGE("cannot remove %s: %s", path.c_str(), strerror(errno));
    return false;
}

void CLocalFileData::m_DeleteFile(const std::string &path)
{
    if (!m_IsFileExist(path)) {
        LOGD("file %s don't exist", path.c_str());
        return;
    }
    remove(nimbos::Path(path).c_str());
}

void CLocalFileData::m_CreateFile(const std::string &path)
{
    if (m_IsFileExist(path)) {
        LOGD("file %s exist", path.c_str());
        return;
    }
    std::string resolved = nimbos::Path(path);
    MakeParentDirs(resolved);
    // Synchronous open and fsync: the marker must survive a power cut right after it is made.
    // O_EXCL and O_NOFOLLOW: a file or link planted at the marker's place since the look above is
    // neither taken for the marker nor followed.
    UniqueFd fd(open(resolved.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_SYNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (fd.get() < 0) {
        LOGE("open %s fail: %d", path.c_str(), fd.get());
        return;
    }
    int ret = fsync(fd.get());
    if (ret != 0)
        LOGE("fsync fail : %d", ret);
    ret = fd.Close();
    if (ret != 0)
        LOGE("close fail : %d", ret);
}

CLocalFileData::ReadOutcome CLocalFileData::ReadResolvedFile(const std::string &resolved, size_t maxBytes,
                                                             bool followLink, std::string &text, std::string &fault)
{
    text.clear();
    const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | (followLink ? 0 : O_NOFOLLOW);
    UniqueFd fd(open(resolved.c_str(), flags));
    if (fd.get() < 0) {
        if (errno == ENOENT)
            return ReadOutcome::Missing;
        fault = errno == ELOOP && !followLink ? "it is a symbolic link"
                                              : std::string("it cannot be opened: ") + strerror(errno);
        return ReadOutcome::Refused;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        fault = "it is not a regular file";
        return ReadOutcome::Refused;
    }
    switch (ReadAll(fd.get(), maxBytes, text)) {
    case ReadEnd::Ok:
        return ReadOutcome::Ok;
    case ReadEnd::Failed:
        fault = std::string("it cannot be read: ") + strerror(errno);
        return ReadOutcome::Refused;
    case ReadEnd::TooLarge:
        fault = "it is larger than " + std::to_string(maxBytes) + " bytes";
        return ReadOutcome::TooLarge;
    }
    return ReadOutcome::Refused;
}

void CLocalFileData::ReadFromFile(const std::string &path, std::string &content)
{
    content.clear();
    UniqueFd fd(open(nimbos::Path(path).c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        LOGE("open file error path:%s", path.c_str());
        return;
    }
    if (ReadAll(fd.get(), content.max_size(), content) != ReadEnd::Ok) {
        LOGE("read file error path:%s", path.c_str());
        content.clear();
    }
}

void CLocalFileData::WriteToFile(const std::string &path, const char *data, size_t size)
{
    if (size == 0)
        size = strlen(data);
    LOGD("write to file %s  size %zu", path.c_str(), size);
    if (!ReplaceResolvedFile(nimbos::Path(path), data, size))
        LOGE("open file error");
}

void CLocalFileData::AppendToFile(const std::string &path, const char *data, size_t size)
{
    if (size == 0)
        size = strlen(data);
    LOGD("write to file %s  size %zu", path.c_str(), size);
    std::string resolved = nimbos::Path(path);
    MakeParentDirs(resolved);
    UniqueFd fd(open(resolved.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (fd.get() < 0) {
        LOGE("open file error");
        return;
    }
    if (!WriteAll(fd.get(), data, size))
        LOGE("write file error path:%s", path.c_str());
}

bool CLocalFileData::IsUSBServiceRunning()
{
    return m_IsOwnMarker(HADRIX_RUNNING_FILE);
}

void CLocalFileData::SetUSBServiceRunning()
{
    m_CreateFile(HADRIX_RUNNING_FILE);
}

bool CLocalFileData::IsUSBAudioMode()
{
    return m_IsFileExist(HADRIX_USB_AUDIO_MODE_FILE);
}

void CLocalFileData::SetUSBAudioMode(bool enable)
{
    LOGD("SetUSBAudioMode enter : %d", enable);
    if (enable)
        m_CreateFile(HADRIX_USB_AUDIO_MODE_FILE);
    else
        m_DeleteFile(HADRIX_USB_AUDIO_MODE_FILE);
}

int CLocalFileData::GetVolumeLevelFromDB()
{
    int level = -1;
    CUsbServiceUtil::GetVconf(VCONF_KEY_VOLUME_LEVEL, level);
    LOGD("get usb sound volume level %d", level);
    // Only an unreadable key falls back to the default; a stored value is taken as it is.
    if (level == -1) {
        level = kDefaultVolumeLevel;
        LOGE("fail to get usb sound volume, set to default :%d", level);
    }
    m_nVolumeLevel = level;
    return level;
}

bool CLocalFileData::GetMuteStateFromDB()
{
    int mute = 0;
    CUsbServiceUtil::GetVconf(VCONF_KEY_VOLUME_MUTE_STATUS, mute);
    LOGD("get usb sound mute state  %d", mute);
    m_bMute = mute != 0;
    return m_bMute;
}

void CLocalFileData::SetMuteState(bool mute)
{
    LOGD("[START] set mute %d", mute);
    m_bMute = mute;
    CUsbServiceUtil::SetVconf(VCONF_KEY_VOLUME_MUTE_STATUS, mute ? 1 : 0);
}

void CLocalFileData::SetVolumeLevel(int level)
{
    LOGD("set volume %d", level);
    // Compared as unsigned, so a negative level is refused as well.
    if (static_cast<unsigned int>(level) > kMaxVolumeLevel) {
        LOGE("volume level parameter invalid. %d", level);
        return;
    }
    m_nVolumeLevel = level;
    CUsbServiceUtil::SetVconf(VCONF_KEY_VOLUME_LEVEL, level);
}

void CLocalFileData::ChangeVolume(int step, bool up)
{
    LOGD("ChangeVolume step:[%d],bUp:[%d]", step, up);
    if (step <= 0)
        return;
    int level = m_nVolumeLevel;
    if (up && level < kMaxVolumeLevel)
        SetVolumeLevel(std::min(level + step, kMaxVolumeLevel));
    else if (!up && level > 0)
        SetVolumeLevel(std::max(level - step, 0));
}
