// The service's persistent state: the USB headset's stored volume level and mute state (kept in
// the settings store), the marker files, and whole-file read, write and append.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "Singleton.h"

// Marker files. Only their existence matters.
#define HADRIX_RUNNING_FILE "/tmp/hadrix.running"
#define HADRIX_USB_AUDIO_MODE_FILE "/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode"

class CLocalFileData : public CSingleton<CLocalFileData> {
    friend class CSingleton<CLocalFileData>;

public:
    ~CLocalFileData() override = default;

    // Paths are the platform's absolute paths; they are resolved for this system here.
    // content is replaced by the whole file, or left empty when it cannot be read.
    void ReadFromFile(const std::string &path, std::string &content);
    // size 0 means strlen(data). The file is replaced whole: a reader never sees half of it.
    void WriteToFile(const std::string &path, const char *data, size_t size = 0);
    void AppendToFile(const std::string &path, const char *data, size_t size = 0);
    // The same whole-file replacement at a path already resolved for this system (missing
    // directories are made): a temporary file beside it, fsynced and renamed over it, so that a
    // reader or a crash sees the old or the new content, never a part, and a symbolic link there
    // is replaced rather than followed. False (errno set) when it failed; nothing is logged.
    static bool ReplaceResolvedFile(const std::string &resolved, const char *data, size_t size);
    enum class ReadOutcome { Ok, Missing, Refused, TooLarge };
    // A regular file at a path already resolved for this system, read whole into `text`: opened
    // without blocking, so that a FIFO or a device put in its place cannot stall the caller, and
    // with followLink false a symbolic link there is refused rather than followed; a file beyond
    // maxBytes is not read on. `fault` says why a file was refused or too large.
    static ReadOutcome ReadResolvedFile(const std::string &resolved, size_t maxBytes, bool followLink,
                                        std::string &text, std::string &fault);
    // Removes the temporary files that replacements of `resolved` cut short by a crash left
    // beside it ("<name>.XXXXXX"), so that they do not pile up over the crashes of a lifetime.
    static void RemoveUnfinishedReplacements(const std::string &resolved);

    // Only a regular file of the process's effective user counts as the running marker; anything
    // else found there is removed (logged), so that SetUSBServiceRunning can make it afresh.
    bool IsUSBServiceRunning();
    void SetUSBServiceRunning();
    bool IsUSBAudioMode();
    void SetUSBAudioMode(bool enable);

    int GetVolumeLevelFromDB();
    bool GetMuteStateFromDB();
    void SetMuteState(bool mute);
    void SetVolumeLevel(int level);
    void ChangeVolume(int step, bool up);

    // The cached values, readable from any thread.
    int GetVolumeLevel() const { return m_nVolumeLevel.load(); }
    bool GetMuteState() const { return m_bMute.load(); }

private:
    CLocalFileData();

    bool m_IsFileExist(const std::string &path);
    bool m_IsOwnMarker(const std::string &path);
    void m_DeleteFile(const std::string &path);
    void m_CreateFile(const std::string &path);

    // Changed on the main loop only; atomic because other threads read them.
    std::atomic<int> m_nVolumeLevel{0};
    std::atomic<bool> m_bMute{false};
};
