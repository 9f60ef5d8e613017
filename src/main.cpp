// Process entry: the command line, then the service.
#include <cstdio>
#include <cstring>

#include "Log.h"
#include "ServiceApp.h"

namespace {

constexpr char kUsage[] = "Usage: %s [--help | --version]\n"
                          "The USB audio device service, started by systemd (hadrix.service), D-Bus\n"
                          "activation or udev. Without an argument it runs the service.\n";

// What the command line asks for before the service starts: nothing (run the service), or a
// help or version text and the exit status. Any argument is read here, so none starts the
// service on the system bus by mistake.
enum class CommandLine { RunService, Exit0, UsageError };

CommandLine ReadCommandLine(int argc, char *argv[])
{
    if (argc <= 1)
        return CommandLine::RunService;
    const char *name = argv[0] ? argv[0] : "hadrix";
    if (argc == 2 && !strcmp(argv[1], "--help")) {
        printf(kUsage, name);
        return CommandLine::Exit0;
    }
    if (argc == 2 && !strcmp(argv[1], "--version")) {
        printf("hadrix %s\n", HADRIX_VERSION);
        return CommandLine::Exit0;
    }
    const bool optionKnown = !strcmp(argv[1], "--help") || !strcmp(argv[1], "--version");
    fprintf(stderr, "%s: unexpected argument \"%s\"\n", name, argv[optionKnown ? 2 : 1]);
    fprintf(stderr, kUsage, name);
    return CommandLine::UsageError;
}

} // namespace

int main(int argc, char *argv[])
{
    switch (ReadCommandLine(argc, argv)) {
    case CommandLine::RunService: break;
    case CommandLine::Exit0: return 0;
    case CommandLine::UsageError: return 2;
    }
    LOGE("hadrix main");
    PutBootTraceMark("hadrix main in");
    return RunService(argc, argv);
}
