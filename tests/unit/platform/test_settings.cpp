// Settings store on the host: value files, key names, crash-safe writes and change callbacks
// across threads and processes. Every test gets its own store directories.
#include "nimbos/settings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <glib.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "TempRoot.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

void WriteFile(const fs::path &path, const std::string &content)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadFile(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// Iterates context until done() holds or limit passes; returns done().
bool IterateUntil(GMainContext *context, const std::function<bool()> &done, std::chrono::milliseconds limit)
{
    bool expired = false;
    g_autoptr(GSource) timer = g_timeout_source_new(static_cast<guint>(limit.count()));
    g_source_set_callback(
        timer,
        [](gpointer flag) -> gboolean {
            *static_cast<bool *>(flag) = true;
            return G_SOURCE_REMOVE;
        },
        &expired, nullptr);
    g_source_attach(timer, context);
    while (!done() && !expired)
        g_main_context_iteration(context, TRUE);
    g_source_destroy(timer);
    return done();
}

// Lets whatever is already pending on context run.
void Drain(GMainContext *context)
{
    while (g_main_context_iteration(context, FALSE)) {
    }
}

struct ToolResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

ToolResult RunTool(std::vector<std::string> args)
{
    args.insert(args.begin(), HADRIX_SETTINGS_TOOL);
    std::vector<char *> argv;
    for (auto &arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    g_autofree char *out = nullptr;
    g_autofree char *err = nullptr;
    int status = 0;
    g_autoptr(GError) error = nullptr;
    ToolResult result;
    if (!g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &out, &err, &status, &error)) {
        ADD_FAILURE() << "cannot run " << HADRIX_SETTINGS_TOOL << ": " << error->message;
        return result;
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = out ? out : "";
    result.err = err ? err : "";
    return result;
}

// What change callbacks saw.
struct Changes {
    int calls = 0;
    std::thread::id thread;
    std::string name;
    int type = -1;
    int number = 0;
    std::string text;
};

void RecordChange(keynode_t *node, void *data)
{
    auto *changes = static_cast<Changes *>(data);
    ++changes->calls;
    changes->thread = std::this_thread::get_id();
    changes->name = vconf_keynode_get_name(node);
    changes->type = vconf_keynode_get_type(node);
    if (changes->type == VCONF_TYPE_INT)
        changes->number = vconf_keynode_get_int(node);
    if (changes->type == VCONF_TYPE_STRING)
        changes->text = vconf_keynode_get_str(node);
}

void RecordOtherChange(keynode_t *node, void *data)
{
    RecordChange(node, data);
}

// A forked child that is killed and reaped however the test ends.
struct Child {
    pid_t pid = -1;
    ~Child()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

class SettingsTest : public ::testing::Test {
protected:
    // A main context made the calling thread's default for the test's length.
    struct OwnContext {
        GMainContext *context = g_main_context_new();
        OwnContext() { g_main_context_push_thread_default(context); }
        ~OwnContext()
        {
            g_main_context_pop_thread_default(context);
            g_main_context_unref(context);
        }
    };

    TempRoot temp_;
    const fs::path root_ = temp_.Path("");
    // Neither directory exists yet: the store makes them.
    const fs::path dbDir_ = temp_.Path("/var/lib/nimbos/settings");
    const fs::path memoryDir_ = temp_.Path("/run/nimbos/settings");
};

TEST_F(SettingsTest, EachTypeRoundTripsThroughItsFile)
{
    ASSERT_EQ(vconf_set_int("db/hadrix/volume_level", -2147483647 - 1), 0);
    ASSERT_EQ(vconf_set_bool("db/setting/accessibility/tts", 7), 0);
    ASSERT_EQ(vconf_set_dbl("memory/test/ratio", 0.1), 0);
    ASSERT_EQ(vconf_set_str("memory/tv-viewer/show_ext_volume", "a:b\tc \\ \xc3\xa9"), 0);

    int number = 0;
    EXPECT_EQ(vconf_get_int("db/hadrix/volume_level", &number), 0);
    EXPECT_EQ(number, -2147483647 - 1);
    int flag = 0;
    EXPECT_EQ(vconf_get_bool("db/setting/accessibility/tts", &flag), 0);
    EXPECT_EQ(flag, 1);
    double real = 0;
    EXPECT_EQ(vconf_get_dbl("memory/test/ratio", &real), 0);
    EXPECT_EQ(real, 0.1);
    g_autofree char *text = vconf_get_str("memory/tv-viewer/show_ext_volume");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "a:b\tc \\ \xc3\xa9");

    EXPECT_EQ(ReadFile(dbDir_ / "db/hadrix/volume_level"), "int:-2147483648\n");
    EXPECT_EQ(ReadFile(dbDir_ / "db/setting/accessibility/tts"), "bool:1\n");
    EXPECT_EQ(ReadFile(memoryDir_ / "memory/test/ratio"), "double:0.1\n");
    EXPECT_EQ(ReadFile(memoryDir_ / "memory/tv-viewer/show_ext_volume"), "string:a:b\tc \\ \xc3\xa9\n");

    ASSERT_EQ(vconf_set_str("memory/test/empty", ""), 0);
    g_autofree char *empty = vconf_get_str("memory/test/empty");
    ASSERT_NE(empty, nullptr);
    EXPECT_STREQ(empty, "");
}

TEST_F(SettingsTest, DirectoriesAreCreatedWithMode0755)
{
    mode_t old = umask(022);
    ASSERT_EQ(vconf_set_int("db/a/b/c", 1), 0);
    umask(old);
    for (const fs::path &dir : {dbDir_, dbDir_ / "db", dbDir_ / "db/a", dbDir_ / "db/a/b"}) {
        struct stat info {};
        ASSERT_EQ(stat(dir.c_str(), &info), 0) << dir;
        EXPECT_TRUE(S_ISDIR(info.st_mode)) << dir;
        EXPECT_EQ(info.st_mode & 07777, 0755u) << dir;
    }
    EXPECT_FALSE(fs::exists(memoryDir_));
}

TEST_F(SettingsTest, GetOfAnotherTypeOrAMissingKeyFailsAndKeepsTheCallersValue)
{
    ASSERT_EQ(vconf_set_int("db/test/level", 50), 0);
    int flag = 9;
    double real = 9.5;
    EXPECT_EQ(vconf_get_bool("db/test/level", &flag), -1);
    EXPECT_EQ(vconf_get_dbl("db/test/level", &real), -1);
    EXPECT_EQ(vconf_get_str("db/test/level"), nullptr);
    EXPECT_EQ(flag, 9);
    EXPECT_EQ(real, 9.5);

    ASSERT_EQ(vconf_set_bool("db/test/flag", 1), 0);
    int number = 3;
    EXPECT_EQ(vconf_get_int("db/test/flag", &number), -1);
    EXPECT_EQ(number, 3);

    EXPECT_EQ(vconf_get_int("db/test/missing", &number), -1);
    EXPECT_EQ(vconf_get_str("memory/test/missing"), nullptr);
    EXPECT_EQ(number, 3);
}

TEST_F(SettingsTest, UnsetRemovesTheKeyAndFailsWhenItIsMissing)
{
    ASSERT_EQ(vconf_set_str("memory/test/name", "x"), 0);
    EXPECT_EQ(vconf_unset("memory/test/name"), 0);
    EXPECT_FALSE(fs::exists(memoryDir_ / "memory/test/name"));
    EXPECT_EQ(vconf_get_str("memory/test/name"), nullptr);
    EXPECT_EQ(vconf_unset("memory/test/name"), -1);
}

TEST_F(SettingsTest, ReadersAcceptAFileWithoutTrailingNewline)
{
    WriteFile(dbDir_ / "db/test/level", "int:42");
    WriteFile(dbDir_ / "db/test/name", "string:hello: world");
    WriteFile(dbDir_ / "db/test/flag", "bool:0");
    WriteFile(dbDir_ / "db/test/ratio", "double:-1.5e3");
    int number = 0;
    EXPECT_EQ(vconf_get_int("db/test/level", &number), 0);
    EXPECT_EQ(number, 42);
    g_autofree char *text = vconf_get_str("db/test/name");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "hello: world");
    int flag = 1;
    EXPECT_EQ(vconf_get_bool("db/test/flag", &flag), 0);
    EXPECT_EQ(flag, 0);
    double real = 0;
    EXPECT_EQ(vconf_get_dbl("db/test/ratio", &real), 0);
    EXPECT_EQ(real, -1500.0);
}

TEST_F(SettingsTest, MalformedFilesAreRefusedByEveryGetter)
{
    const std::vector<std::string> malformed = {
        "",
        "\n",
        "garbage",
        "int:",
        "int:abc",
        "int: 5",
        "int:5x",
        "int:2147483648",
        "int:-99999999999999999999",
        "bool:2",
        "bool:true",
        "double:nan",
        "double:inf",
        "double:1e999",
        "double:0,5",
        "float:1.0",
        ":1",
        "int:5\nint:6\n",
        "string:two\nlines",
        std::string("string:nul\0byte", 15),
        std::string(2 * 1024 * 1024, 'x'),
    };
    for (const std::string &content : malformed) {
        SCOPED_TRACE(testing::PrintToString(content.substr(0, 40)));
        WriteFile(memoryDir_ / "memory/test/bad", content);
        int number = 77;
        double real = 7.5;
        EXPECT_EQ(vconf_get_int("memory/test/bad", &number), -1);
        EXPECT_EQ(vconf_get_bool("memory/test/bad", &number), -1);
        EXPECT_EQ(vconf_get_dbl("memory/test/bad", &real), -1);
        EXPECT_EQ(vconf_get_str("memory/test/bad"), nullptr);
        EXPECT_EQ(number, 77);
        EXPECT_EQ(real, 7.5);
    }
}

TEST_F(SettingsTest, NonRegularFilesAtAKeyAreRefused)
{
    fs::create_directories(memoryDir_ / "memory/test/dir");
    fs::create_directories(memoryDir_ / "memory/test");
    ASSERT_EQ(mkfifo((memoryDir_ / "memory/test/fifo").c_str(), 0600), 0);
    int number = 0;
    EXPECT_EQ(vconf_get_int("memory/test/dir", &number), -1);
    // Would block forever if the FIFO were opened for a normal read.
    EXPECT_EQ(vconf_get_int("memory/test/fifo", &number), -1);
}

TEST_F(SettingsTest, BadKeyNamesAreRefusedByEveryCall)
{
    const std::vector<std::string> badKeys = {
        "",       "hadrix/volume",   "db",          "db/",          "memory/",        "/db/a",
        "db/a/",  "db//a",           "db/../etc/x", "db/a/../b",    "db/a..b",        "db/./a",
        "db/.a",  "memory/a/.hidden", "db/a b",     "db/a\nb",      "db/a\\b",        "db/a*b",
        "db/\x7f", "file/x",          "DB/x",        std::string("db/") + std::string(300, 'k'),
    };
    for (const std::string &key : badKeys) {
        SCOPED_TRACE(testing::PrintToString(key));
        int number = 0;
        double real = 0;
        EXPECT_EQ(vconf_set_int(key.c_str(), 1), -1);
        EXPECT_EQ(vconf_set_bool(key.c_str(), 1), -1);
        EXPECT_EQ(vconf_set_dbl(key.c_str(), 1.0), -1);
        EXPECT_EQ(vconf_set_str(key.c_str(), "x"), -1);
        EXPECT_EQ(vconf_get_int(key.c_str(), &number), -1);
        EXPECT_EQ(vconf_get_dbl(key.c_str(), &real), -1);
        EXPECT_EQ(vconf_get_str(key.c_str()), nullptr);
        EXPECT_EQ(vconf_unset(key.c_str()), -1);
        EXPECT_EQ(vconf_notify_key_changed(key.c_str(), RecordChange, nullptr), -1);
    }
    EXPECT_EQ(vconf_set_int(nullptr, 1), -1);
    EXPECT_EQ(vconf_get_str(nullptr), nullptr);
    // Nothing was created anywhere, inside or outside the store directories.
    EXPECT_FALSE(fs::exists(dbDir_));
    EXPECT_FALSE(fs::exists(memoryDir_));
    EXPECT_FALSE(fs::exists(root_.parent_path() / "etc/x"));
}

TEST_F(SettingsTest, ValuesThatCannotBeStoredAreRefusedAndTheOldValueStays)
{
    ASSERT_EQ(vconf_set_str("db/test/name", "old"), 0);
    EXPECT_EQ(vconf_set_str("db/test/name", "two\nlines"), -1);
    EXPECT_EQ(vconf_set_str("db/test/name", nullptr), -1);
    EXPECT_EQ(vconf_set_str("db/test/name", std::string(2 * 1024 * 1024, 'x').c_str()), -1);
    EXPECT_EQ(vconf_set_dbl("db/test/name", HUGE_VAL), -1);
    g_autofree char *text = vconf_get_str("db/test/name");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "old");
    EXPECT_EQ(vconf_get_int("db/test/name", nullptr), -1);
    // No temporary file is left behind.
    EXPECT_EQ(std::distance(fs::directory_iterator(dbDir_ / "db/test"), fs::directory_iterator()), 1);
}

TEST_F(SettingsTest, WriteReplacesASymlinkAtTheKeyAndLeavesItsTargetAlone)
{
    const fs::path target = root_ / "precious";
    WriteFile(target, "keep me");
    const fs::path keyPath = dbDir_ / "db/test/level";
    fs::create_directories(keyPath.parent_path());
    fs::create_symlink(target, keyPath);

    ASSERT_EQ(vconf_set_int("db/test/level", 5), 0);

    EXPECT_FALSE(fs::is_symlink(keyPath));
    EXPECT_EQ(ReadFile(keyPath), "int:5\n");
    EXPECT_EQ(ReadFile(target), "keep me");
}

TEST_F(SettingsTest, CallbackRunsOnTheRegisteringThreadAfterAWriteByAnotherProcess)
{
    const char *key = "memory/test/volume_event_value";
    Changes changes;
    int registered = -1;
    std::promise<void> ready;
    std::future<void> isReady = ready.get_future();
    std::thread watcher([&] {
        g_autoptr(GMainContext) context = g_main_context_new();
        g_main_context_push_thread_default(context);
        registered = vconf_notify_key_changed(key, RecordChange, &changes);
        ready.set_value();
        if (registered == 0)
            IterateUntil(context, [&] { return changes.calls > 0; }, 10s);
        vconf_ignore_key_changed(key, RecordChange);
        g_main_context_pop_thread_default(context);
    });
    const std::thread::id watcherId = watcher.get_id();
    ToolResult set;
    if (isReady.wait_for(10s) == std::future_status::ready)
        set = RunTool({"set", key, "int", "7"});
    watcher.join();

    ASSERT_EQ(registered, 0);
    ASSERT_EQ(set.exitCode, 0) << set.err;
    ASSERT_EQ(changes.calls, 1);
    EXPECT_EQ(changes.thread, watcherId);
    EXPECT_NE(changes.thread, std::this_thread::get_id());
    EXPECT_EQ(changes.name, key);
    EXPECT_EQ(changes.type, VCONF_TYPE_INT);
    EXPECT_EQ(changes.number, 7);
}

TEST_F(SettingsTest, IgnoreStopsCallbacksAndReRegisteringReplacesUserData)
{
    OwnContext own;
    const char *key = "db/test/level";
    Changes first, replaced, sentinel;
    ASSERT_EQ(vconf_notify_key_changed(key, RecordChange, &first), 0);
    ASSERT_EQ(vconf_notify_key_changed(key, RecordChange, &replaced), 0);
    ASSERT_EQ(vconf_notify_key_changed(key, RecordOtherChange, &sentinel), 0);

    ASSERT_EQ(vconf_set_int(key, 1), 0);
    ASSERT_TRUE(IterateUntil(own.context, [&] { return replaced.calls > 0 && sentinel.calls > 0; }, 10s));
    Drain(own.context);
    EXPECT_EQ(first.calls, 0);
    EXPECT_EQ(replaced.calls, 1);
    EXPECT_EQ(replaced.number, 1);

    ASSERT_EQ(vconf_ignore_key_changed(key, RecordChange), 0);
    ASSERT_EQ(vconf_set_int(key, 2), 0);
    ASSERT_TRUE(IterateUntil(own.context, [&] { return sentinel.calls > 1; }, 10s));
    Drain(own.context);
    EXPECT_EQ(replaced.calls, 1);
    EXPECT_EQ(sentinel.number, 2);

    EXPECT_EQ(vconf_ignore_key_changed(key, RecordChange), -1);
    EXPECT_EQ(vconf_ignore_key_changed(key, RecordOtherChange), 0);
}

TEST_F(SettingsTest, CallbackSeesOnlyItsOwnKeyAndTheValueAtDispatch)
{
    OwnContext own;
    Changes changes;
    ASSERT_EQ(vconf_notify_key_changed("memory/test/watched", RecordChange, &changes), 0);
    ASSERT_EQ(vconf_set_str("memory/test/other", "x"), 0);
    ASSERT_EQ(vconf_set_str("memory/test/watched", "first"), 0);
    ASSERT_TRUE(IterateUntil(own.context, [&] { return changes.calls > 0; }, 10s));
    Drain(own.context);
    EXPECT_EQ(changes.calls, 1);
    EXPECT_EQ(changes.text, "first");

    // Written, then removed before the context runs: the callback finds the key gone.
    ASSERT_EQ(vconf_set_str("memory/test/watched", "second"), 0);
    ASSERT_EQ(vconf_unset("memory/test/watched"), 0);
    ASSERT_TRUE(IterateUntil(own.context, [&] { return changes.calls > 1; }, 10s));
    EXPECT_EQ(changes.type, VCONF_TYPE_NONE);
    EXPECT_EQ(changes.name, "memory/test/watched");

    EXPECT_EQ(vconf_ignore_key_changed("memory/test/watched", RecordChange), 0);
}

TEST_F(SettingsTest, WriterKilledMidWriteNeverLeavesHalfAValue)
{
    const char *key = "db/test/blob";
    const std::string a(300 * 1024, 'a');
    const std::string b(300 * 1024, 'b');
    ASSERT_EQ(vconf_set_str(key, a.c_str()), 0);

    Child writer;
    writer.pid = fork();
    ASSERT_GE(writer.pid, 0);
    if (writer.pid == 0) {
        // Bounded in case the parent dies without killing it.
        const auto end = std::chrono::steady_clock::now() + 60s;
        while (std::chrono::steady_clock::now() < end) {
            vconf_set_str(key, b.c_str());
            vconf_set_str(key, a.c_str());
        }
        _exit(0);
    }

    int reads = 0, readsOfB = 0;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while ((reads < 300 || readsOfB == 0) && std::chrono::steady_clock::now() < deadline) {
        g_autofree char *value = vconf_get_str(key);
        ASSERT_NE(value, nullptr);
        ASSERT_TRUE(value == a || value == b) << "read " << strlen(value) << " bytes";
        readsOfB += value == b;
        ++reads;
    }
    EXPECT_GT(readsOfB, 0) << "the writer never got a value through";

    ASSERT_EQ(kill(writer.pid, SIGKILL), 0);
    ASSERT_EQ(waitpid(writer.pid, nullptr, 0), writer.pid);
    writer.pid = -1;
    g_autofree char *last = vconf_get_str(key);
    ASSERT_NE(last, nullptr);
    EXPECT_TRUE(last == a || last == b);
}

} // namespace
