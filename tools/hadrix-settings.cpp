// hadrix-settings: read, write, remove and watch settings keys from a shell, through the same
// settings store the service uses.
#include "nimbos/settings.h"

#include "UniqueFd.h"

#include <charconv>
#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glib-unix.h>
#include <glib.h>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

enum ExitCode { kOk = 0, kFailed = 1, kUsage = 2 };

const char kUsageText[] =
    "Usage: hadrix-settings get KEY\n"
    "       hadrix-settings set KEY TYPE VALUE\n"
    "       hadrix-settings unset KEY\n"
    "       hadrix-settings watch KEY\n"
    "       hadrix-settings --help\n"
    "\n"
    "KEY starts with \"db/\" (kept across restarts, stored under $HADRIX_SETTINGS_DIR) or\n"
    "\"memory/\" (kept until the machine restarts, under $HADRIX_RUNTIME_SETTINGS_DIR).\n"
    "TYPE is int, bool (VALUE 0, 1, true or false), double or string (VALUE without newline).\n"
    "\n"
    "get    prints the stored value as TYPE:VALUE, e.g. int:50, bool:1, double:0.5, string:Hello\n"
    "set    stores VALUE as TYPE\n"
    "unset  removes the key\n"
    "watch  prints KEY=TYPE:VALUE for every completed write of the key until SIGINT or\n"
    "       SIGTERM (KEY=none if it was removed again before the change was read; removing\n"
    "       a key prints nothing)\n"
    "\n"
    "Exit status: 0 done, 1 the key is missing, unreadable or could not be changed, 2 usage error.\n"
    "The settings store logs on standard error; HADRIX_LOG_LEVEL (debug|info|warn|error, here\n"
    "\"error\" unless set) chooses how much.\n";

int Usage(const char *problem)
{
    fprintf(stderr, "hadrix-settings: %s\n\n%s", problem, kUsageText);
    return kUsage;
}

int Failed(const char *what, const char *key)
{
    fprintf(stderr, "hadrix-settings: %s %s\n", what, key);
    return kFailed;
}

std::string FormatDouble(double value)
{
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return ec == std::errc() ? std::string(buffer, end) : std::string();
}

// Sends standard error to /dev/null while it lives; stays unmuted when it could not keep a copy
// to bring back.
class MutedStderr {
public:
    MutedStderr() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        if (saved_ && null)
            dup2(null.get(), STDERR_FILENO);
    }
    ~MutedStderr()
    {
        if (saved_)
            dup2(saved_.get(), STDERR_FILENO);
    }
    MutedStderr(const MutedStderr &) = delete;
    MutedStderr &operator=(const MutedStderr &) = delete;

private:
    UniqueFd saved_;
};

// The stored value as TYPE:VALUE. The store has no type query, so each typed getter is tried;
// only the stored type's getter succeeds. The first try logs why the key cannot be read at all
// (bad name, malformed file); the later ones could only repeat that, so they are muted.
std::optional<std::string> ReadTyped(const char *key)
{
    int number = 0;
    if (vconf_get_int(key, &number) == 0)
        return "int:" + std::to_string(number);
    MutedStderr muted;
    if (vconf_get_bool(key, &number) == 0)
        return std::string("bool:") + (number ? "1" : "0");
    double real = 0.0;
    if (vconf_get_dbl(key, &real) == 0)
        return "double:" + FormatDouble(real);
    g_autofree char *text = vconf_get_str(key);
    if (text)
        return std::string("string:") + text;
    return std::nullopt;
}

std::string DescribeNode(keynode_t *node)
{
    switch (vconf_keynode_get_type(node)) {
    case VCONF_TYPE_INT: return "int:" + std::to_string(vconf_keynode_get_int(node));
    case VCONF_TYPE_BOOL: return std::string("bool:") + (vconf_keynode_get_bool(node) ? "1" : "0");
    case VCONF_TYPE_DOUBLE: return "double:" + FormatDouble(vconf_keynode_get_dbl(node));
    case VCONF_TYPE_STRING: return std::string("string:") + vconf_keynode_get_str(node);
    default: return "none";
    }
}

template <typename T> std::optional<T> ParseNumber(const char *text)
{
    T value{};
    const char *end = text + strlen(text);
    auto [ptr, ec] = std::from_chars(text, end, value);
    if (*text == '\0' || ec != std::errc() || ptr != end)
        return std::nullopt;
    return value;
}

std::optional<int> ParseBool(const char *text)
{
    if (!strcmp(text, "1") || !strcmp(text, "true"))
        return 1;
    if (!strcmp(text, "0") || !strcmp(text, "false"))
        return 0;
    return std::nullopt;
}

int Get(const char *key)
{
    auto value = ReadTyped(key);
    if (!value)
        return Failed("no readable value for", key);
    printf("%s\n", value->c_str());
    return kOk;
}

int Set(const char *key, const char *type, const char *text)
{
    int result = -1;
    if (!strcmp(type, "int")) {
        auto value = ParseNumber<int>(text);
        if (!value)
            return Usage("VALUE is not an int");
        result = vconf_set_int(key, *value);
    } else if (!strcmp(type, "bool")) {
        auto value = ParseBool(text);
        if (!value)
            return Usage("a bool VALUE is 0, 1, true or false");
        result = vconf_set_bool(key, *value);
    } else if (!strcmp(type, "double")) {
        auto value = ParseNumber<double>(text);
        if (!value || !std::isfinite(*value))
            return Usage("VALUE is not a finite double");
        result = vconf_set_dbl(key, *value);
    } else if (!strcmp(type, "string")) {
        result = vconf_set_str(key, text);
    } else {
        return Usage("TYPE must be int, bool, double or string");
    }
    return result == 0 ? kOk : Failed("could not set", key);
}

int Unset(const char *key)
{
    return vconf_unset(key) == 0 ? kOk : Failed("could not remove", key);
}

void PrintChange(keynode_t *node, void *)
{
    printf("%s=%s\n", vconf_keynode_get_name(node), DescribeNode(node).c_str());
    fflush(stdout);
}

gboolean QuitLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_CONTINUE;
}

int Watch(const char *key)
{
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    if (vconf_notify_key_changed(key, PrintChange, nullptr) != 0)
        return Failed("cannot watch", key);
    guint interrupt = g_unix_signal_add(SIGINT, QuitLoop, loop);
    guint terminate = g_unix_signal_add(SIGTERM, QuitLoop, loop);
    g_main_loop_run(loop);
    g_source_remove(interrupt);
    g_source_remove(terminate);
    vconf_ignore_key_changed(key, PrintChange);
    return kOk;
}

int Run(int argc, char **argv)
{
    if (argc < 2)
        return Usage("no command given");
    const std::string command = argv[1];
    if (command == "--help" || command == "-h") {
        fputs(kUsageText, stdout);
        return kOk;
    }
    if (command == "set")
        return argc == 5 ? Set(argv[2], argv[3], argv[4]) : Usage("set takes KEY TYPE VALUE");
    if (command != "get" && command != "unset" && command != "watch")
        return Usage(("unknown command \"" + command + "\"").c_str());
    if (argc != 3)
        return Usage((command + " takes exactly one KEY").c_str());
    if (command == "get")
        return Get(argv[2]);
    if (command == "unset")
        return Unset(argv[2]);
    return Watch(argv[2]);
}

} // namespace

int main(int argc, char **argv)
{
    // Trying each typed getter logs a warning per wrong type; those are not news for a shell user.
    setenv("HADRIX_LOG_LEVEL", "error", 0);
    return Run(argc, argv);
}
