#include "DecisionText.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>

#include <glib.h>

#include "Decision.h"

namespace decision_text {
namespace {

using namespace decision;

// A mixer result of the service: at least one control write failed.
constexpr int64_t kMixerWriteFailed = 3;

std::string Format(const char *format, ...) G_GNUC_PRINTF(1, 2);

std::string Format(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    g_autofree gchar *text = g_strdup_vprintf(format, args);
    va_end(args);
    return text;
}

int64_t Number(const Json::Value &object, const char *key, int64_t otherwise = kUnknownTime)
{
    const Json::Value &value = object[key];
    return value.isInt64() ? value.asInt64() : otherwise;
}

std::string Text(const Json::Value &object, const char *key)
{
    const Json::Value &value = object[key];
    return value.isString() ? value.asString() : std::string();
}

// Milliseconds as seconds with one decimal: "117.9 s".
std::string Seconds(int64_t ms)
{
    return Format("%.1f s", static_cast<double>(ms) / 1000.0);
}

std::string TimeOfDay(int64_t wallMs, bool withDate)
{
    const time_t seconds = static_cast<time_t>(wallMs / 1000);
    struct tm local {};
    localtime_r(&seconds, &local);
    char text[64];
    strftime(text, sizeof text, withDate ? "%Y-%m-%d %H:%M:%S" : "%H:%M:%S", &local);
    return withDate ? Format("%s.%03d", text, static_cast<int>(wallMs % 1000)) : text;
}

const std::map<std::string, const char *> kOutcomes = {
    {kTookSound, "took the sound"},
    {kWaits, "waits for a free place"},
    {kLeftAlone, "was left alone"},
    {kNotSupported, "is not supported"},
    {kPresentAtBoot, "stayed off the sound as present at boot"},
    {kPresentAtResume, "stayed off the sound as present at resume"},
    {kDropped, "had its event dropped"},
    {kReleased, "gave the sound back"},
    {kRemoved, "was unplugged"},
    {kAttached, "was attached without the sound"},
};

std::string OutcomeWords(const std::string &outcome)
{
    auto known = kOutcomes.find(outcome);
    return known != kOutcomes.end() ? known->second : "came to \"" + outcome + "\"";
}

std::string EventWords(const Json::Value &record)
{
    const std::string event = Text(record, "event");
    const std::string cause = Text(record, "cause");
    if (event == kHotplugAdded)
        return cause.empty() ? "when it was plugged in" : "when " + cause + " was plugged in";
    if (event == kHotplugRemoved)
        return cause.empty() ? "when it was unplugged" : "when " + cause + " was unplugged";
    if (event == kStartupEnumeration)
        return "when the service looked for devices at start-up";
    if (event == kResumeEnumeration)
        return "when the service looked for devices after standby";
    if (event == kRouteChange)
        return "when the output route changed";
    if (event == kPowerChange)
        return "when the power state changed";
    return "on \"" + event + "\"";
}

// "detected 117.9 s after the USB core came up" and its like.
std::string DetectedAfterCore(const Json::Value &inputs)
{
    const int64_t detected = Number(inputs, "detected_ms");
    const int64_t core = Number(inputs, "core_init_ms");
    if (detected >= core)
        return "detected " + Seconds(detected - core) + " after the USB core came up";
    return "detected " + Seconds(core - detected) + " before the USB core came up";
}

std::string CoreUpFor(const Json::Value &inputs)
{
    return Seconds(Number(inputs, "uptime_ms") - Number(inputs, "core_init_ms"));
}

std::string DetectedAroundPowerChange(const Json::Value &inputs)
{
    const int64_t detected = Number(inputs, "detected_ms");
    const int64_t power = Number(inputs, "power_changed_ms");
    if (detected == kUnknownTime)
        return "does not show when it was detected";
    if (detected < power)
        return "shows it detected before the change";
    return "shows it detected " + Seconds(detected - power) + " after it, within 5 s";
}

using RuleText = std::function<std::string(const Json::Value &record, const Json::Value &inputs)>;

std::string Fixed(const char *text)
{
    return text;
}

const std::map<std::string, RuleText> kRules = {
    {kUsbAudioMode,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("USB audio mode was stored (the USB headset was the TV's output): the sound goes to the "
                      "USB headsets whatever the kernel log says.");
     }},
    {kDetectedAfterCore,
     [](const Json::Value &, const Json::Value &in) {
         return "The kernel log shows it " + DetectedAfterCore(in) + ", more than 5 s: the viewer plugged it in.";
     }},
    {kDetectedWithCore,
     [](const Json::Value &, const Json::Value &in) {
         return "The kernel log shows it " + DetectedAfterCore(in) + ", within 5 s.";
     }},
    {kCoreUpRecently,
     [](const Json::Value &, const Json::Value &in) {
         return "The kernel log does not show when it was detected, and the USB core had been up " + CoreUpFor(in) +
                ", less than 30 s.";
     }},
    {kCoreUpLongAgo,
     [](const Json::Value &, const Json::Value &in) {
         return "The kernel log does not show when it was detected, and the USB core had been up " + CoreUpFor(in) +
                ", 30 s or more: the viewer plugged it in.";
     }},
    {kCoreUnknownEarly,
     [](const Json::Value &, const Json::Value &in) {
         return "The kernel log does not show when the USB core came up, and the TV had been up " +
                Seconds(Number(in, "uptime_ms")) + ", less than 30 s.";
     }},
    {kCoreUnknownLate,
     [](const Json::Value &, const Json::Value &in) {
         return "The kernel log does not show when the USB core came up, and the TV had been up " +
                Seconds(Number(in, "uptime_ms")) + ", 30 s or more: the viewer plugged it in.";
     }},
    {kPowerChanged,
     [](const Json::Value &, const Json::Value &in) {
         return "The power state had changed " +
                Seconds(Number(in, "uptime_ms") - Number(in, "power_changed_ms")) +
                " before, less than 5 s, and the kernel log " + DetectedAroundPowerChange(in) +
                ": it came with the power change, not from the viewer.";
     }},
    {kResumeWithoutUsbAudioMode,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("It was there again after standby; without USB audio mode stored, a resume gives the sound "
                      "to no device.");
     }},
    {kNoFreePlace,
     [](const Json::Value &, const Json::Value &in) {
         if (!in.isMember("using_count"))
             return Fixed("Two devices take the sound at most, and two others came first.");
         return Format("Two devices take the sound at most: %" PRId64 " attached, %" PRId64 " in use.",
                       Number(in, "attached_count", 0), Number(in, "using_count", 0));
     }},
    {kFreedPlace,
     [](const Json::Value &record, const Json::Value &in) {
         return Format("That freed one of the two places (%" PRId64 " in use before).", Number(in, "using_count", 0));
     }},
    {kOutputToAttached,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("That device did not take the sound itself, so the sound went to the devices attached.");
     }},
    {kFirstTwoAtSwitch,
     [](const Json::Value &record, const Json::Value &) {
         return "The sound switched to the USB headsets for " + Text(record, "cause") +
                ", which the viewer plugged in, and the first two devices found take it.";
     }},
    {kRouteUsb,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("The TV's output route became 15, the USB headset.");
     }},
    {kRouteNotUsb,
     [](const Json::Value &, const Json::Value &in) {
         return Format("The TV's output route became %" PRId64 ", not the USB headset (15).", Number(in, "route", 0));
     }},
    {kStandby,
     [](const Json::Value &, const Json::Value &in) {
         return Format("The TV went to standby (power state %" PRId64 ").", Number(in, "power_state", 0));
     }},
    {kUnplugged, [](const Json::Value &, const Json::Value &) { return std::string(); }},
    {kNotAudioInterface,
     [](const Json::Value &, const Json::Value &in) {
         return Format("Its sound card sits behind a vendor-specific USB interface (class %" PRId64
                       "), not a USB audio one.",
                       Number(in, "interface_class", 0));
     }},
    {kCameraName,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("Its name is in the service's table of webcams: a webcam's microphone is no TV output.");
     }},
    {kCameraIds,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("Its USB ids are in the service's table of webcams: a webcam's microphone is no TV output.");
     }},
    {kGamepadKnownIds,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("It is a gamepad's audio function: its USB ids are in the built-in table of gamepads.");
     }},
    {kGamepadKnownMaker,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("It is a gamepad's audio function: its maker is in the built-in table of gamepads.");
     }},
    {kGamepadListIds,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("It is a gamepad's audio function: the gamepad library lists a gamepad with its USB ids.");
     }},
    {kGamepadListName,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("It is a gamepad's audio function: the gamepad library lists a gamepad of its name.");
     }},
    {kGamepadJoystick,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("It is a gamepad's audio function: a joystick with its USB ids is connected.");
     }},
    {kAstroName,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("Its name makes it an Astro headset, which the service cannot use.");
     }},
    {kAstroIds,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("Its USB ids make it an Astro headset, which the service cannot use.");
     }},
    {kPowerStateNotNormal,
     [](const Json::Value &, const Json::Value &in) {
         return Format("The TV was in power state %" PRId64 ", not a working one: hot-plug events wait for none.",
                       Number(in, "power_state", 0));
     }},
    {kResumePending,
     [](const Json::Value &, const Json::Value &in) {
         return "The TV had come back from standby " +
                Seconds(Number(in, "uptime_ms") - Number(in, "power_changed_ms")) +
                " before: 3 s after a resume the service looks at all devices again, this one included.";
     }},
    {kNoCardNumber,
     [](const Json::Value &, const Json::Value &) { return Fixed("Its device path names no sound card."); }},
    {kNoSoundNodes,
     [](const Json::Value &, const Json::Value &) {
         return Fixed("Its sound card lacks its control or playback device node.");
     }},
    {kAsked,
     [](const Json::Value &, const Json::Value &) { return Fixed("The service was asked to, without a reason."); }},
};

std::string RuleWords(const Json::Value &record)
{
    const std::string rule = Text(record, "rule");
    auto known = kRules.find(rule);
    if (known == kRules.end())
        return "The rule was \"" + rule + "\".";
    return known->second(record, record["inputs"]);
}

std::string MixerWords(const Json::Value &inputs)
{
    return Number(inputs, "mixer_result", 0) == kMixerWriteFailed ? "Its mixer could not be set to full volume."
                                                                   : std::string();
}

std::string StartWords(const Json::Value &record)
{
    const Json::Value &start = record["start"];
    if (!start.isObject())
        return {};
    const int64_t card = Number(start, "card", -1);
    if (start["pending"].asBool())
        return Format("\"Start\" for card %" PRId64 " had not gone out yet.", card);
    if (!start["sent"].asBool())
        return Format("\"Start\" for card %" PRId64 " could not be sent.", card);
    const std::string after = Format("%" PRId64 " ms", Number(start, "sent_uptime_ms", 0) - Number(record, "uptime_ms", 0));
    const int64_t attempts = Number(start, "attempts", 0);
    const int64_t waited = Number(start, "waited_ms", 0);
    if (!start["listed"].asBool())
        return Format("\"Start\" for card %" PRId64 " went out %s later, although the audio server had not listed "
                      "the card after %" PRId64 " asks (%" PRId64 " ms).",
                      card, after.c_str(), attempts, waited);
    const std::string asks = attempts == 1 ? std::string("at the first ask")
                                           : Format("after %" PRId64 " asks", attempts);
    return Format("\"Start\" for card %" PRId64 " went out %s later; the audio server listed the card %s "
                  "(%" PRId64 " ms).",
                  card, after.c_str(), asks.c_str(), waited);
}

void Append(std::string &text, const std::string &sentence)
{
    if (sentence.empty())
        return;
    if (!text.empty())
        text += ' ';
    text += sentence;
}

// "took the sound when it was plugged in at 19:41:02" (an unplug says it once).
std::string WhatAndWhen(const Json::Value &record, bool withDate)
{
    const std::string outcome = Text(record, "outcome");
    std::string text = OutcomeWords(outcome);
    if (outcome != kRemoved || !Text(record, "cause").empty())
        text += " " + EventWords(record);
    if (!withDate)
        text += " at " + TimeOfDay(Number(record, "time_ms", 0), false);
    return text;
}

} // namespace

std::string DeviceName(const Json::Value &record)
{
    const Json::Value &device = record["device"];
    std::string details = Text(device, "manufacturer");
    for (const std::string &part : {Text(device, "usb_id"),
                                    Text(device, "port").empty() ? std::string() : "port " + Text(device, "port"),
                                    Number(device, "card", -1) < 0 ? std::string()
                                                                   : Format("card %" PRId64, Number(device, "card"))}) {
        if (part.empty())
            continue;
        details += details.empty() ? part : ", " + part;
    }
    const std::string product = Text(device, "product").empty() ? "A device" : Text(device, "product");
    return details.empty() ? product : product + " (" + details + ")";
}

std::string Why(const Json::Value &verdict)
{
    std::string text = DeviceName(verdict) + ": " + WhatAndWhen(verdict, false) + ".";
    Append(text, RuleWords(verdict));
    Append(text, MixerWords(verdict["inputs"]));
    Append(text, StartWords(verdict));
    if (verdict["plugged"].isBool() && !verdict["plugged"].asBool() && Text(verdict, "outcome") != kRemoved)
        Append(text, "It was unplugged at " + TimeOfDay(Number(verdict, "unplugged_time_ms", 0), false) + ".");
    return text;
}

std::string Line(const Json::Value &decision)
{
    std::string text = TimeOfDay(Number(decision, "time_ms", 0), true) + Format("  #%" PRId64 "  ", Number(decision, "seq", 0)) +
                       DeviceName(decision) + ": " + WhatAndWhen(decision, true) + ".";
    Append(text, RuleWords(decision));
    Append(text, MixerWords(decision["inputs"]));
    Append(text, StartWords(decision));
    return text;
}

bool Matches(const Json::Value &record, const std::string &query)
{
    const Json::Value &device = record["device"];
    if (g_ascii_strcasecmp(Text(device, "usb_id").c_str(), query.c_str()) == 0 || Text(device, "port") == query)
        return true;
    // Product names are UTF-8 (the service keeps them so); a name typed otherwise names none.
    if (!g_utf8_validate(query.c_str(), -1, nullptr))
        return false;
    g_autofree gchar *product = g_utf8_casefold(Text(device, "product").c_str(), -1);
    g_autofree gchar *asked = g_utf8_casefold(query.c_str(), -1);
    return g_strcmp0(product, asked) == 0;
}

} // namespace decision_text
