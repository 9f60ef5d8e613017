// log.h: one line per message, with its tag and priority, whole even when threads log at once.
#include "ContractTest.h"

#include "nimbos/log.h"

#include <regex>
#include <thread>

namespace contract {
namespace {

using LogContract = ContractTest;

std::vector<LogLine> LinesTagged(const std::vector<LogLine> &lines, const std::string &tag)
{
    std::vector<LogLine> tagged;
    for (const LogLine &line : lines)
        if (line.tag == tag)
            tagged.push_back(line);
    return tagged;
}

TEST_F(LogContract, EachMessageIsOneWholeLineWithItsTagAndPriority)
{
    constexpr int kThreads = 4;
    constexpr int kLinesEach = 50;
    driver.StartLogCapture();
    const int written = dlog_print(DLOG_WARN, "contract", "value %d of %s", 5, "x");
    dlog_print(DLOG_ERROR, "contract", "first\nsecond\n");
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLinesEach; ++i)
                dlog_print(DLOG_INFO, "contract-threads", "thread %d line %d of a longer message", t, i);
        });
    for (std::thread &thread : threads)
        thread.join();
    const std::vector<LogLine> lines = driver.StopLogCapture();

    EXPECT_GE(written, static_cast<int>(sizeof "value 5 of x") - 1);
    const std::vector<LogLine> own = LinesTagged(lines, "contract");
    ASSERT_EQ(own.size(), 2u);
    EXPECT_EQ(own[0].priority, DLOG_WARN);
    EXPECT_EQ(own[0].text, "value 5 of x");
    EXPECT_EQ(own[1].priority, DLOG_ERROR);
    EXPECT_EQ(own[1].text, "first second") << "inner line breaks would split the message";

    const std::vector<LogLine> threaded = LinesTagged(lines, "contract-threads");
    EXPECT_EQ(threaded.size(), size_t(kThreads * kLinesEach));
    const std::regex whole("thread [0-9] line [0-9]+ of a longer message");
    for (const LogLine &line : threaded)
        EXPECT_TRUE(std::regex_match(line.text, whole)) << line.text;
}

} // namespace
} // namespace contract
