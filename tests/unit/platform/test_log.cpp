// The host log's lines on standard error: with systemd's journal stream on standard error each
// line carries its syslog priority first; anywhere else the line is the plain one.
#include "nimbos/log.h"

#include "UniqueFd.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// Standard error goes to a file of the test's own while the object lives.
class CapturedStderr {
public:
    CapturedStderr() : m_Saved(dup(STDERR_FILENO))
    {
        char name[] = "/tmp/hadrix-log-test.XXXXXX";
        m_File = UniqueFd(mkstemp(name));
        unlink(name);
        fflush(stderr);
        dup2(m_File.get(), STDERR_FILENO);
    }
    ~CapturedStderr()
    {
        dup2(m_Saved.get(), STDERR_FILENO);
        unsetenv("JOURNAL_STREAM");
    }

    // "<device>:<inode>" of the file, as systemd sets JOURNAL_STREAM for the stream it opened.
    std::string Identity(ino_t inodeOffset = 0) const
    {
        struct stat st {};
        fstat(m_File.get(), &st);
        return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + inodeOffset);
    }

    std::vector<std::string> Lines() const
    {
        std::string text(static_cast<size_t>(lseek(m_File.get(), 0, SEEK_END)), '\0');
        if (pread(m_File.get(), &text[0], text.size(), 0) != static_cast<ssize_t>(text.size()))
            return {};
        std::vector<std::string> lines;
        for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
            lines.push_back(text.substr(start, end - start));
        return lines;
    }

private:
    UniqueFd m_Saved;
    UniqueFd m_File;
};

const log_priority kPriorities[] = {DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR, DLOG_FATAL};

void LogOneLineEach()
{
    for (log_priority prio : kPriorities)
        dlog_print(prio, "hadrix", "level %d", static_cast<int>(prio));
}

// The plain line: "HH:MM:SS.mmm P/tag(pid:tid): message".
const std::regex kPlainLine(R"(\d\d:\d\d:\d\d\.\d{3} ([DIWEF])/hadrix\(\d+:\d+\): level (\d))");

TEST(HostLogTest, OnTheJournalStreamEachLineStartsWithItsSyslogPriority)
{
    CapturedStderr captured;
    setenv("JOURNAL_STREAM", captured.Identity().c_str(), 1);
    LogOneLineEach();

    std::vector<std::string> seen;
    for (const std::string &line : captured.Lines()) {
        std::smatch m;
        const std::string rest = line.substr(3);
        EXPECT_TRUE(std::regex_match(rest, m, kPlainLine)) << line;
        seen.push_back(line.substr(0, 3) + m[1].str() + m[2].str());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"<7>D3", "<6>I4", "<4>W5", "<3>E6", "<2>F7"}));
}

TEST(HostLogTest, ElsewhereTheLinesAreThePlainOnes)
{
    for (const std::string stream : {"another inode", "not a pair"}) {
        CapturedStderr captured;
        setenv("JOURNAL_STREAM", stream == "another inode" ? captured.Identity(1).c_str()
                                                           : (captured.Identity() + "x").c_str(), 1);
        LogOneLineEach();

        const std::vector<std::string> lines = captured.Lines();
        EXPECT_EQ(lines.size(), 5u) << stream;
        for (const std::string &line : lines)
            EXPECT_TRUE(std::regex_match(line, kPlainLine)) << stream << ": " << line;
    }
}

} // namespace
