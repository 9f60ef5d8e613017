// hadrix-probe: runs one operation of the service's code in a process of its own, so that
// integration tests can drive code no daemon path reaches yet against mocked platform services.
//
//   hadrix-probe <command> [args...]
//
// Exit status: the command's (0 success, 1 the operation reported failure), 2 for a usage error.
// A command is a function plus one row of kCommands.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "HadrixUtil.h"
#include "UsbMixer.h"

namespace {

using Args = std::vector<std::string>;

constexpr int kUsageError = 2;

int ExitStatus(bool ok)
{
    return ok ? 0 : 1;
}

int LaunchApp(const Args &args)
{
    if (args.empty() || args.size() % 2 != 0)
        return kUsageError;
    ExtraData extraData;
    for (size_t i = 0; i < args.size(); i += 2)
        extraData.emplace_back(args[i], args[i + 1]);
    return ExitStatus(CUsbServiceUtil::LaunchApp(extraData));
}

bool ParseCardNumber(const std::string &text, int &card)
{
    errno = 0;
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return false;
    card = static_cast<int>(value);
    return true;
}

// Prints the result code of the mixer run.
int SetMaxVolume(const Args &args)
{
    int card = 0;
    if (args.size() != 1 || !ParseCardNumber(args[0], card))
        return kUsageError;
    printf("%d\n", CUsbMixer::SetMaxVolume(card));
    return 0;
}

int ControlWrite(const Args &args)
{
    int card = 0;
    if (args.size() != 3 || !ParseCardNumber(args[0], card))
        return kUsageError;
    return ExitStatus(CUsbMixer::ControlWrite(card, args[1], args[2]));
}

// Prints the control's values, channels separated by commas.
int ControlGet(const Args &args)
{
    int card = 0;
    if (args.size() != 2 || !ParseCardNumber(args[0], card))
        return kUsageError;
    std::string values;
    if (!CUsbMixer::ControlGet(card, args[1], values))
        return ExitStatus(false);
    printf("%s\n", values.c_str());
    return 0;
}

struct Command {
    const char *name;
    const char *usage;
    int (*run)(const Args &args);
};

const Command kCommands[] = {
    {"launch-app", "KEY VALUE [KEY VALUE...]", LaunchApp},
    {"set-max-volume", "CARD", SetMaxVolume},
    {"cset", "CARD CONTROL-ID VALUE", ControlWrite},
    {"cget", "CARD CONTROL-ID", ControlGet},
};

int Usage()
{
    fprintf(stderr, "usage: hadrix-probe <command> [args...]\ncommands:\n");
    for (const Command &command : kCommands)
        fprintf(stderr, "  %s %s\n", command.name, command.usage);
    return kUsageError;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return Usage();
    for (const Command &command : kCommands) {
        if (strcmp(argv[1], command.name) != 0)
            continue;
        int status = command.run(Args(argv + 2, argv + argc));
        if (status == kUsageError)
            fprintf(stderr, "usage: hadrix-probe %s %s\n", command.name, command.usage);
        return status;
    }
    fprintf(stderr, "hadrix-probe: unknown command '%s'\n", argv[1]);
    return Usage();
}
