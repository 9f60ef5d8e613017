// A fresh installation root for one test: HADRIX_ROOT and both settings directories point into
// a new temporary directory, which is removed afterwards.
#pragma once

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

#include <glib.h>

class TempRoot {
public:
    TempRoot()
    {
        char pattern[] = "/tmp/hadrix-test-XXXXXX";
        m_root = g_mkdtemp(pattern);
        setenv("HADRIX_ROOT", m_root.c_str(), 1);
        setenv("HADRIX_SETTINGS_DIR", Path("/var/lib/nimbos/settings").c_str(), 1);
        setenv("HADRIX_RUNTIME_SETTINGS_DIR", Path("/run/nimbos/settings").c_str(), 1);
        g_mkdir_with_parents(Path("/tmp").c_str(), 0755);
    }
    ~TempRoot()
    {
        if (system(("rm -rf '" + m_root + "'").c_str()) != 0)
            g_warning("could not remove %s", m_root.c_str());
        for (const char *name : {"HADRIX_ROOT", "HADRIX_SETTINGS_DIR", "HADRIX_RUNTIME_SETTINGS_DIR"})
            unsetenv(name);
    }
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;

    // Where an absolute platform path lives inside this root.
    std::string Path(const std::string &absolute) const { return m_root + absolute; }
    bool Exists(const std::string &absolute) const
    {
        struct stat st;
        return lstat(Path(absolute).c_str(), &st) == 0;
    }
    // Writes a file at a platform path inside the root, creating its directories.
    void WriteFile(const std::string &absolute, const std::string &content) const
    {
        std::string path = Path(absolute);
        g_mkdir_with_parents(path.substr(0, path.rfind('/')).c_str(), 0755);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    }
    std::string ReadFile(const std::string &absolute) const
    {
        std::ifstream in(Path(absolute), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

private:
    std::string m_root;
};
