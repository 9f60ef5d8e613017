// What every fuzz target sets up once: a private file-system root, so that whatever the code
// under test writes stays out of the machine's own files, and a log that keeps to errors, so that
// the fuzzer's speed is not spent on debug lines.
#pragma once

#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

// The root, made on first use; it is left behind for a look after a crash.
inline const std::string &PrepareEnvironment()
{
    static const std::string root = [] {
        setenv("HADRIX_LOG_LEVEL", "error", 0);
        g_autoptr(GError) error = nullptr;
        g_autofree gchar *dir = g_dir_make_tmp("hadrix-fuzz-XXXXXX", &error);
        if (!dir) {
            fprintf(stderr, "cannot make the fuzzing root: %s\n", error->message);
            abort();
        }
        std::string path(dir);
        g_mkdir_with_parents((path + "/tmp").c_str(), 0755);
        setenv("HADRIX_ROOT", path.c_str(), 1);
        setenv("HADRIX_SETTINGS_DIR", (path + "/settings").c_str(), 1);
        setenv("HADRIX_RUNTIME_SETTINGS_DIR", (path + "/runtime-settings").c_str(), 1);
        return path;
    }();
    return root;
}

// Made before libFuzzer runs the target's own initialisation, if it has one.
inline const std::string &kRoot = PrepareEnvironment();

// Stops the run with a message when a property of the code under test does not hold.
#define FUZZ_CHECK(condition)                                                                    \
    do {                                                                                         \
        if (!(condition)) {                                                                      \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);        \
            abort();                                                                             \
        }                                                                                        \
    } while (0)

} // namespace fuzz
