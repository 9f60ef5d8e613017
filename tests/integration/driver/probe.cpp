// hadrix-probe: runs one operation of the service's code in a process of its own, so that
// integration tests can reach cases a running daemon hides: the audio server's waits, the
// viewer's launch, and the adapters' answers to failing platform services.
//
//   hadrix-probe <command> [args...]
//
// Exit status: 0 success, 1 the operation reported failure, 2 a usage error. A command is one
// row of kCommands.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>


#include "nimbos/sound.h"

#include "AudioControlMgr.h"
#include "HadrixUtil.h"
#include "PulseAudioHandler.h"
#include "SoundManagerHandler.h"

namespace {

using Args = std::vector<std::string>;
using Ints = std::vector<int>;

constexpr int kUsageError = 2;

int ExitStatus(bool ok)
{
    return ok ? 0 : 1;
}

int Print(int value)
{
    printf("%d\n", value);
    return 0;
}

bool ParseInt(const std::string &text, int &value)
{
    char *end = nullptr;
    long number = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number != static_cast<int>(number))
        return false;
    value = static_cast<int>(number);
    return true;
}

template <typename T> T *The()
{
    return CSingleton<T>::GetInstance();
}

using Pulse = CPulseAudioHandler;
using SoundHandler = CSoundManagerHandler;
using AudioMgr = CAudioControlMgr;

sound_tv_output_route_e Route(int number)
{
    return static_cast<sound_tv_output_route_e>(number);
}

// Runs one of the adapter's getters; only its result counts.
template <typename T> int AudioMgrGet(bool (AudioMgr::*get)(T *))
{
    T value{};
    return ExitStatus((The<AudioMgr>()->*get)(&value));
}

int LaunchApp(const Ints &, const Args &args)
{
    if (args.size() % 2 != 0)
        return kUsageError;
    ExtraData extraData;
    for (size_t i = 0; i < args.size(); i += 2)
        extraData.emplace_back(args[i], args[i + 1]);
    return ExitStatus(CUsbServiceUtil::LaunchApp(extraData));
}

// Two "Start" requests back to back on the worker, then waits for the last one to end.
int PulseAsyncTwice(const Ints &n, const Args &)
{
    bool ok = The<Pulse>()->SendSignalToPulseAudioAsync(true, n[0]);
    ok = The<Pulse>()->SendSignalToPulseAudioAsync(true, n[1]) && ok;
    The<Pulse>()->StopSendSignalToPulseAudio();
    return ExitStatus(ok);
}

struct Command {
    const char *name;
    const char *usage;
    size_t ints; // leading integer arguments, parsed into the Ints
    int texts;   // the text arguments after them: that many, or -k for k or more
    int (*run)(const Ints &n, const Args &texts);
};

const Command kCommands[] = {
    {"launch-app", "KEY VALUE [KEY VALUE...]", 0, -2, LaunchApp},
    {"pulse-start", "CARD", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<Pulse>()->SendSignalToPulseAudio(true, n[0])); }},
    {"pulse-stop", "CARD", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<Pulse>()->SendSignalToPulseAudio(false, n[0])); }},
    {"pulse-async-twice", "CARD1 CARD2", 2, 0, PulseAsyncTwice},
    // The service's adapters of the sound manager and audio control.
    {"handler-route-get", "", 0, 0,
     [](const Ints &, const Args &) { return Print(The<SoundHandler>()->GetSpeakerSelection()); }},
    {"handler-route-set", "ROUTE", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<SoundHandler>()->SetSpeakerSelection(Route(n[0]))); }},
    {"handler-mute-gain", "GAIN", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<SoundHandler>()->ApplyMuteGain(n[0])); }},
    {"audio-mgr-get-gain", "", 0, 0,
     [](const Ints &, const Args &) { return AudioMgrGet(&AudioMgr::GetUsbHeadsetOutGain); }},
    {"audio-mgr-get-delay", "", 0, 0,
     [](const Ints &, const Args &) { return AudioMgrGet(&AudioMgr::GetUsbHeadsetOutDelay); }},
    {"audio-mgr-get-mute", "", 0, 0,
     [](const Ints &, const Args &) { return AudioMgrGet(&AudioMgr::GetUsbHeadsetMuteStatus); }},
    {"audio-mgr-set-gain", "GAIN", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<AudioMgr>()->SetUsbHeadsetOutGain(n[0])); }},
    {"audio-mgr-set-delay", "DELAY", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<AudioMgr>()->SetUsbHeadSetOutDelay(n[0])); }},
    {"audio-mgr-set-mute", "0|1", 1, 0,
     [](const Ints &n, const Args &) { return ExitStatus(The<AudioMgr>()->SetUsbHeadsetMuteStatus(n[0] != 0)); }},
};

// A usage error, or the command's status.
int Run(const char *name, const Args &args)
{
    for (const Command &command : kCommands) {
        if (strcmp(name, command.name) != 0)
            continue;
        Ints n(command.ints);
        size_t texts = static_cast<size_t>(std::abs(command.texts));
        bool usable = command.texts < 0 ? args.size() >= command.ints + texts : args.size() == command.ints + texts;
        for (size_t i = 0; usable && i < command.ints; ++i)
            usable = ParseInt(args[i], n[i]);
        int status = usable ? command.run(n, Args(args.begin() + command.ints, args.end())) : kUsageError;
        if (status == kUsageError)
            fprintf(stderr, "usage: hadrix-probe %s %s\n", command.name, command.usage);
        return status;
    }
    fprintf(stderr, "hadrix-probe: unknown command '%s'\n", name);
    return kUsageError;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 2)
        return Run(argv[1], Args(argv + 2, argv + argc));
    fprintf(stderr, "usage: hadrix-probe <command> [args...]\ncommands:\n");
    for (const Command &command : kCommands)
        fprintf(stderr, "  %s %s\n", command.name, command.usage);
    return kUsageError;
}
