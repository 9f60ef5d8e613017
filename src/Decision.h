// The service's decision records: for each judgement it takes about a USB device, the device,
// the event that led to it, what the deciding rule looked at, the rule and the outcome. Events,
// rules and outcomes are stable ids shared by the decision history, its file, the diagnostics
// D-Bus interface and hadrixctl; a record's JSON form is the one all of them carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <json/json.h>

namespace decision {

// What happened.
inline constexpr char kHotplugAdded[] = "hotplug-added";
inline constexpr char kHotplugRemoved[] = "hotplug-removed";
inline constexpr char kStartupEnumeration[] = "startup-enumeration";
inline constexpr char kResumeEnumeration[] = "resume-enumeration";
inline constexpr char kRouteChange[] = "route-change";
inline constexpr char kPowerChange[] = "power-change";

// What came of it for the device.
inline constexpr char kTookSound[] = "took-sound";
inline constexpr char kWaits[] = "waits";
inline constexpr char kLeftAlone[] = "left-alone";
inline constexpr char kNotSupported[] = "not-supported";
inline constexpr char kPresentAtBoot[] = "present-at-boot";
inline constexpr char kPresentAtResume[] = "present-at-resume";
inline constexpr char kDropped[] = "dropped";
inline constexpr char kReleased[] = "released";
inline constexpr char kRemoved[] = "removed";
// Attached without the sound, for no reason told (a caller that gave none).
inline constexpr char kAttached[] = "attached";

// The rules. The hot-plug filter:
inline constexpr char kPowerStateNotNormal[] = "power-state-not-normal";
inline constexpr char kResumePending[] = "resume-pending";
inline constexpr char kNotAudioInterface[] = "not-audio-interface";
inline constexpr char kNoCardNumber[] = "no-card-number";
inline constexpr char kCameraName[] = "camera-name";
inline constexpr char kCameraIds[] = "camera-ids";
// What the device manager recognises:
inline constexpr char kNoSoundNodes[] = "no-sound-nodes";
inline constexpr char kGamepadKnownIds[] = "gamepad-known-ids";
inline constexpr char kGamepadKnownMaker[] = "gamepad-known-maker";
inline constexpr char kGamepadListIds[] = "gamepad-list-ids";
inline constexpr char kGamepadListName[] = "gamepad-list-name";
inline constexpr char kGamepadJoystick[] = "gamepad-joystick";
inline constexpr char kAstroName[] = "astro-name";
inline constexpr char kAstroIds[] = "astro-ids";
// Whether the sound goes to a device found now (the kernel-log judgements and the stored mode):
inline constexpr char kUsbAudioMode[] = "usb-audio-mode";
inline constexpr char kDetectedAfterCore[] = "detected-after-core";
inline constexpr char kDetectedWithCore[] = "detected-with-core";
inline constexpr char kCoreUpRecently[] = "core-up-recently";
inline constexpr char kCoreUpLongAgo[] = "core-up-long-ago";
inline constexpr char kCoreUnknownEarly[] = "core-unknown-early";
inline constexpr char kCoreUnknownLate[] = "core-unknown-late";
inline constexpr char kPowerChanged[] = "power-change";
inline constexpr char kResumeWithoutUsbAudioMode[] = "resume-without-usb-audio-mode";
// Who carries the sound:
inline constexpr char kNoFreePlace[] = "no-free-place";
inline constexpr char kFreedPlace[] = "freed-place";
inline constexpr char kOutputToAttached[] = "output-to-attached";
inline constexpr char kFirstTwoAtSwitch[] = "first-two-at-switch";
inline constexpr char kRouteUsb[] = "route-usb";
inline constexpr char kRouteNotUsb[] = "route-not-usb";
inline constexpr char kStandby[] = "standby";
inline constexpr char kUnplugged[] = "unplugged";
// The caller asked for the outcome without telling why.
inline constexpr char kAsked[] = "asked";

// A kernel-log or power-change time that is not known.
inline constexpr int64_t kUnknownTime = -1;

// The longest texts a record keeps, in bytes: names, ports, device paths, and the ids of events,
// rules and outcomes (and of "vendor:product").
inline constexpr size_t kMaxNameBytes = 128;
inline constexpr size_t kMaxPortBytes = 64;
inline constexpr size_t kMaxPathBytes = 255;
inline constexpr size_t kMaxIdBytes = 64;

} // namespace decision

struct DecisionDevice {
    std::string product;
    std::string manufacturer;
    int32_t vendorId = 0;
    int32_t productId = 0;
    std::string port;
    int32_t card = -1; // -1: none
    std::string path;
};

// What the deciding rule looked at; a member left empty was not looked at. Times are
// milliseconds since boot, decision::kUnknownTime when not known.
struct DecisionInputs {
    std::optional<int64_t> detectedMs;
    std::optional<int64_t> coreInitMs;
    std::optional<int64_t> powerChangedMs;
    std::optional<int64_t> uptimeMs;
    std::optional<bool> usbAudioMode;
    std::optional<int32_t> usingCount;
    std::optional<int32_t> attachedCount;
    std::optional<int32_t> mixerResult;
    std::optional<int32_t> powerState;
    std::optional<int32_t> route;
    std::optional<int32_t> interfaceClass;
};

// The "Start" a decision that gave a device the sound asked of the audio server, as the worker
// that sent it tells.
struct DecisionStart {
    int32_t card = -1;
    bool pending = true;  // the worker has not told yet
    bool sent = false;    // the signal went out
    bool listed = false;  // the audio server listed the card before it
    int32_t attempts = 0; // asks of the audio server
    int64_t waitedMs = 0; // from the first ask to the signal
    int64_t sentUptimeMs = 0;
};

struct Decision {
    uint64_t seq = 0;     // numbered by the log, one up from the record before
    int64_t timeMs = 0;   // wall clock (ms since the epoch), stamped by the log
    int64_t uptimeMs = 0; // stamped by the log
    std::string event;
    std::string rule;
    std::string outcome;
    std::string cause; // the product of another device whose event decided, if any
    DecisionDevice device;
    DecisionInputs inputs;
    std::optional<DecisionStart> start;
};

// A device's current verdict: its latest decision and whether it is still plugged.
struct Verdict {
    Decision decision;
    bool plugged = true;
    int64_t unpluggedTimeMs = 0;
    int64_t unpluggedUptimeMs = 0;
};

// Why the sound does or does not go to a device found now, handed from the judgement to the code
// that acts on it.
struct DecisionReason {
    std::string rule = decision::kAsked;
    // The outcome when the sound does not go to the device: present at boot or at resume.
    std::string outcomeIfKept = decision::kAttached;
    DecisionInputs inputs;
};

// The records' JSON form: objects of strings, booleans, integers and objects only. FromJson
// takes what ToJson writes and refuses anything else (the reason in `fault`).
Json::Value ToJson(const Decision &decision);
Json::Value ToJson(const Verdict &verdict);
bool FromJson(const Json::Value &json, Decision &decision, std::string &fault);
bool FromJson(const Json::Value &json, Verdict &verdict, std::string &fault);

// "0b0e:0300".
std::string UsbIdText(int32_t vendorId, int32_t productId);
// Text as a record keeps it: valid UTF-8 without control characters, at most maxBytes bytes.
std::string RecordText(const std::string &text, size_t maxBytes);
