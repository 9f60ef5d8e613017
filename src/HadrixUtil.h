// Small system utilities of the service: the settings-key table and its typed accessors, time,
// shell, sound-device nodes, text, app launch, model queries, and the classification of USB
// audio devices.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "nimbos/settings.h"

// Index of a key in the settings-key table.
enum VconfKeyIndex {
    VCONF_KEY_ACCESSIBILITY_TTS = 0,
    VCONF_KEY_VOLUME_EVENT_VALUE = 1,
    VCONF_KEY_EXT_VOLUME_TTS_PLAY = 2,
    VCONF_KEY_SHOW_EXT_VOLUME = 3,
    VCONF_KEY_EMANUAL_ACTIVE_CATEGORY = 4,
    VCONF_KEY_VOLUME_LEVEL = 5,
    VCONF_KEY_VOLUME_MUTE_STATUS = 6,
    VCONF_KEY_MENU_LANGUAGE = 7,
    VCONF_KEY_COUNT
};

using ExtraData = std::vector<std::pair<std::string, std::string>>;

// A text from a platform call that may give none.
inline const char *TextOrEmpty(const char *text)
{
    return text ? text : "";
}

class CUsbServiceUtil {
public:
    // The key name at a table index, or "" for an index outside the table.
    static const char *GetVconfKey(int index);

    // Reads leave value untouched on failure, so callers preset their default. Results: true on
    // success.
    static bool GetVconf(const std::string &key, std::string &value);
    static bool GetVconf(const std::string &key, bool &value);
    static bool GetVconf(const std::string &key, int &value);
    static bool GetVconf(int index, std::string &value);
    static bool GetVconf(int index, bool &value);
    static bool GetVconf(int index, int &value);
    static bool SetVconf(int index, const std::string &value);
    static bool SetVconf(int index, bool value);
    static bool SetVconf(int index, int value);
    // Results: true when the registration (removal) FAILED.
    static bool AddVconfChangedCb(int index, vconf_callback_fn cb, void *user);
    static bool RemoveVconfChangedCb(int index, vconf_callback_fn cb);

    static void Wait(unsigned long ms);
    static int CallShellCmd(const std::string &cmd);
    // Milliseconds of the monotonic clock, in 32 bits (wraps).
    static uint32_t GetUptime();
    // Wall-clock milliseconds, in 32 bits (wraps).
    static uint32_t GetCurrentTimeStamp();
    static bool IsSndPcmPlayExist(int card);
    static bool IsSndCtrlCardExist(int card);
    // src with the first occurrence of replaced put in place by substitution.
    static std::string ReplaceStr(const std::string &src, const std::string &replaced,
                                  const std::string &substitution);
    // Launches the TV viewer with the pairs as extra data, in order.
    static bool LaunchApp(const ExtraData &extraData);
    static bool GetSwModel(std::string &model);
    static bool IsEasel32TV();
    static bool IsTVViewerReady();

    // `rule`, when given, is set to the rule that recognised the device (decision::kCameraName
    // or kCameraIds, kAstroName or kAstroIds), for its decision record.
    static bool IsCamera(const std::string &name, int vendorId, int productId, const char **rule = nullptr);
    static bool IsAstroProduct(const std::string &name, int vendorId, int productId, const char **rule = nullptr);
    static bool GetCardNum(const std::string &devPath, int *cardNum);
    // " vvvv#pppp ": the id under which the kernel log names a USB device.
    static std::string MakeId(int vendorId, int productId);
};
