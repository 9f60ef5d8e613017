#include "DebugCommand.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "AudioControlMgr.h"
#include "LocalFileData.h"
#include "Log.h"
#include "PulseAudioHandler.h"
#include "SoundManagerHandler.h"
#include "SpeakerManagerHandler.h"
#include "USBDevice.h"
#include "UniqueHandle.h"
#include "UsbMixer.h"

namespace {

// The debug commands use fixed values, never one taken from the request.
constexpr int kPulseCard = 0;
constexpr unsigned int kUsbOutGain = 20;
constexpr unsigned int kUsbOutDelay = 100;
constexpr int kMuteGain = 100;
constexpr int kMaxCardNumber = 31;

using ExtraValue = UniqueHandle<char, std::free>;

bool StartsWith(const char *value, const char *word)
{
    return std::strncmp(value, word, std::strlen(word)) == 0;
}

// Runs the action of the first word the value starts with; a value that starts with none is
// refused.
struct SubCommand {
    const char *word;
    void (*run)();
};

template <std::size_t N>
void RunSubCommand(const char *key, const char *value, const SubCommand (&table)[N])
{
    for (const SubCommand &sub : table) {
        if (StartsWith(value, sub.word)) {
            sub.run();
            return;
        }
    }
    LOGW("%s: \"%s\" starts with no sub-command, ignored", key, value);
}

CAudioControlMgr *AudioControl()
{
    return CSingleton<CAudioControlMgr>::GetInstance();
}

CSoundManagerHandler *SoundManager()
{
    return CSingleton<CSoundManagerHandler>::GetInstance();
}

void LogResult(bool ret)
{
    LOGI("ret : %d", ret);
}

void RunPulse(const char *key, const char *value)
{
    // "on" waits on the main loop until the audio server lists card 0, up to about 100 s when it
    // never does; a debug command may hold the service that long.
    static const SubCommand kTable[] = {
        {"on", [] { CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudio(true, kPulseCard); }},
        {"off", [] { CSingleton<CPulseAudioHandler>::GetInstance()->SendSignalToPulseAudio(false, kPulseCard); }},
    };
    RunSubCommand(key, value, kTable);
}

void RunAudioControl(const char *key, const char *value)
{
    static const SubCommand kTable[] = {
        {"getUsbOutMute",
         [] {
             bool mute = false;
             bool ret = AudioControl()->GetUsbHeadsetMuteStatus(&mute);
             LOGI("ret : %d, bMute : %d", ret, mute);
         }},
        {"setUsbOutMuteOn", [] { LogResult(AudioControl()->SetUsbHeadsetMuteStatus(true)); }},
        {"setUsbOutMuteOff", [] { LogResult(AudioControl()->SetUsbHeadsetMuteStatus(false)); }},
        {"getUsbOutGain",
         [] {
             unsigned int gain = 0;
             bool ret = AudioControl()->GetUsbHeadsetOutGain(&gain);
             LOGI("ret : %d, gain : %d", ret, static_cast<int>(gain));
         }},
        {"setUsbOutGain", [] { LogResult(AudioControl()->SetUsbHeadsetOutGain(kUsbOutGain)); }},
        {"getUsbOutDelay",
         [] {
             unsigned int delay = 0;
             bool ret = AudioControl()->GetUsbHeadsetOutDelay(&delay);
             LOGI("ret : %d, delay : %d", ret, static_cast<int>(delay));
         }},
        {"setUsbOutDelays", [] { LogResult(AudioControl()->SetUsbHeadSetOutDelay(kUsbOutDelay)); }},
    };
    RunSubCommand(key, value, kTable);
}

void RunSpeakerManager(const char *, const char *)
{
    CSingleton<CSpeakerManagerHandler>::GetInstance()->SendSignalToSpeakerManager();
}

void RunSoundManager(const char *key, const char *value)
{
    static const SubCommand kTable[] = {
        // The adapter registers nothing when it is made. Releasing it removes the sound
        // manager's speaker callbacks, which the headset manager and the multiview handler set:
        // they stay removed after a "Register", until the service starts again.
        {"Register", [] { SoundManager(); }},
        {"Unregister", [] { CSingleton<CSoundManagerHandler>::ReleaseInstance(); }},
        {"SetSpeaker", [] { SoundManager()->SetSpeakerSelection(SOUND_TV_OUTPUT_USB_HEADSET); }},
        {"SetMute", [] { SoundManager()->ApplyMuteGain(kMuteGain); }},
        {"UnmuteFadeIn", [] { SoundManager()->ApplyUnmuteFadeIn(); }},
    };
    RunSubCommand(key, value, kTable);
}

void RunLocalFileData(const char *key, const char *value)
{
    static const SubCommand kTable[] = {
        {"volumeUp", [] { CSingleton<CLocalFileData>::GetInstance()->ChangeVolume(1, true); }},
        {"volumeDown", [] { CSingleton<CLocalFileData>::GetInstance()->ChangeVolume(1, false); }},
    };
    RunSubCommand(key, value, kTable);
}

void RunMixerSet(const char *, const char *value)
{
    MixerCommandArgs args;
    std::string reason;
    if (!ParseMixerCommandArgs(value, true, args, reason)) {
        LOGE("cset refused (%s); expected \"CARD CONTROL VALUE\"", reason.c_str());
        return;
    }
    bool ret = CUsbMixer::ControlWrite(args.card, args.control, args.value);
    LOGI("cset card : %d, control : %s, value : %s, ret : %d", args.card, args.control.c_str(),
         args.value.c_str(), ret);
}

void RunMixerGet(const char *, const char *value)
{
    MixerCommandArgs args;
    std::string reason;
    if (!ParseMixerCommandArgs(value, false, args, reason)) {
        LOGE("cget refused (%s); expected \"CARD CONTROL\"", reason.c_str());
        return;
    }
    std::string values;
    bool ret = CUsbMixer::ControlGet(args.card, args.control, values);
    LOGI("cget card : %d, control : %s, ret : %d, values : %s", args.card, args.control.c_str(), ret,
         values.c_str());
}

void RunSetMaxVolume(const char *, const char *value)
{
    int card = ParseCardNumber(value);
    if (card <= 0) {
        LOGD("no card above 0 in \"%s\", nothing to do", value);
        return;
    }
    LOGI("ret : %d", CSingleton<CUSBDevice>::GetInstance()->m_SetMaxVolume(card));
}

struct Command {
    const char *key;
    void (*run)(const char *key, const char *value);
};

// The order in which the keys are looked for; the first one present wins.
const Command kCommands[] = {
    {"pulse", RunPulse},
    {"audio_control", RunAudioControl},
    {"speakerManager", RunSpeakerManager},
    {"soundManager", RunSoundManager},
    {"localFileData", RunLocalFileData},
    {"cset", RunMixerSet},
    {"cget", RunMixerGet},
    {"setMaxVolume", RunSetMaxVolume},
};

ExtraValue GetExtraValue(app_control_h app_control, const char *key)
{
    char *raw = nullptr;
    int ret = app_control_get_extra_data(app_control, key, &raw);
    ExtraValue value(raw);
    if (ret != APP_CONTROL_ERROR_NONE)
        value.reset();
    return value;
}

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

size_t SkipSpaces(const std::string &text, size_t pos)
{
    while (pos < text.size() && IsSpace(text[pos]))
        ++pos;
    return pos;
}

// The word starting at pos (which is not a space): up to the next space outside quotes.
// Returns false on an unterminated quote.
bool TakeWord(const std::string &text, size_t &pos, std::string &word)
{
    const size_t start = pos;
    char quote = '\0';
    for (; pos < text.size(); ++pos) {
        const char c = text[pos];
        if (quote) {
            if (c == quote)
                quote = '\0';
        } else if (c == '\'' || c == '"') {
            quote = c;
        } else if (IsSpace(c)) {
            break;
        }
    }
    if (quote)
        return false;
    word = text.substr(start, pos - start);
    return true;
}

std::string TrimTrailingSpaces(std::string text)
{
    while (!text.empty() && IsSpace(text.back()))
        text.pop_back();
    return text;
}

bool IsDecimal(const std::string &text)
{
    return !text.empty() && text.size() <= 2 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

bool ParseMixerCommandArgs(const std::string &text, bool withValue, MixerCommandArgs &args, std::string &reason)
{
    size_t pos = SkipSpaces(text, 0);
    std::string card;
    if (!TakeWord(text, pos, card) || card.empty()) {
        reason = "no card number";
        return false;
    }
    if (!IsDecimal(card) || std::atoi(card.c_str()) > kMaxCardNumber) {
        reason = "card \"" + card + "\" is not a number from 0 to 31";
        return false;
    }
    std::string control;
    pos = SkipSpaces(text, pos);
    if (!TakeWord(text, pos, control)) {
        reason = "unterminated quote in the control";
        return false;
    }
    if (control.empty()) {
        reason = "no control identifier";
        return false;
    }
    const std::string rest = TrimTrailingSpaces(text.substr(SkipSpaces(text, pos)));
    if (withValue && rest.empty()) {
        reason = "no value";
        return false;
    }
    if (!withValue && !rest.empty()) {
        reason = "unexpected text after the control: \"" + rest + "\"";
        return false;
    }
    args.card = std::atoi(card.c_str());
    args.control = control;
    args.value = rest;
    return true;
}

int ParseCardNumber(const std::string &text)
{
    const char *begin = text.c_str();
    char *end = nullptr;
    errno = 0;
    long number = std::strtol(begin, &end, 10);
    if (end == begin || *end != '\0' || errno == ERANGE || number < INT_MIN || number > INT_MAX)
        return 0;
    return static_cast<int>(number);
}

void ParseCommand(app_control_h app_control, void *)
{
    for (const Command &command : kCommands) {
        ExtraValue value = GetExtraValue(app_control, command.key);
        if (!value)
            continue;
        LOGI("value: %s", value.get());
        command.run(command.key, value.get());
        return;
    }
}
