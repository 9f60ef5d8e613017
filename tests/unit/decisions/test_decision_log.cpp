// The decision history: its bound, the verdict of each device, the "Start" a decision waits for,
// and its file: saved half a second after the last change, read back by the next run, and
// refused (kept aside) when it is not the service's.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "DecisionLog.h"
#include "DecisionSamples.h"
#include "FakeClock.h"
#include "TempRoot.h"

namespace {

constexpr char kFile[] = "/home/owner/apps_rw/hadrix/data/decisions.json";
const std::string kRefused = std::string(kFile) + ".refused";

Decision About(const DecisionDevice &device, const char *event, const char *rule, const char *outcome,
               const std::string &cause = {})
{
    Decision decision;
    decision.device = device;
    decision.event = event;
    decision.rule = rule;
    decision.outcome = outcome;
    decision.cause = cause;
    return decision;
}

Decision Unplug(const DecisionDevice &device)
{
    return About(device, decision::kHotplugRemoved, decision::kUnplugged, decision::kRemoved);
}

Decision WaitingForStart(const DecisionDevice &device)
{
    Decision decision = About(device, decision::kHotplugAdded, decision::kDetectedAfterCore, decision::kTookSound);
    decision.start.emplace();
    decision.start->card = device.card;
    return decision;
}

std::vector<uint64_t> Seqs(const std::vector<Decision> &decisions)
{
    std::vector<uint64_t> seqs;
    for (const Decision &decision : decisions)
        seqs.push_back(decision.seq);
    return seqs;
}

std::vector<std::string> Ports(const std::vector<Verdict> &verdicts)
{
    std::vector<std::string> ports;
    for (const Verdict &verdict : verdicts)
        ports.push_back(verdict.decision.device.port);
    return ports;
}

class DecisionLogTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        CDecisionLog::SetLinks({});
        CSingleton<CDecisionLog>::ReleaseInstance();
    }

    // The log of this run; made on first use, reading the file as the service does at start.
    CDecisionLog &Log() { return *CSingleton<CDecisionLog>::GetInstance(); }
    // The service ends; the next Log() is the next run's.
    void Restart() { CSingleton<CDecisionLog>::ReleaseInstance(); }

    TempRoot m_Root;
    FakeClock m_Clock;
};

TEST_F(DecisionLogTest, HistoryKeepsTheNewest128NumberedInOrder)
{
    for (int i = 0; i < 200; ++i)
        Log().Record(About(samples::Headset(i % 2 ? "1-1" : "1-2"), decision::kHotplugAdded,
                           decision::kDetectedAfterCore, decision::kTookSound));
    std::vector<uint64_t> newest;
    for (uint64_t seq = 73; seq <= 200; ++seq)
        newest.push_back(seq);
    EXPECT_EQ(Seqs(Log().History()), newest);
    EXPECT_EQ(Seqs(Log().History(3)), (std::vector<uint64_t>{198, 199, 200}));
    EXPECT_EQ(Ports(Log().Verdicts()), (std::vector<std::string>{"1-2", "1-1"}));
}

TEST_F(DecisionLogTest, AnUnplugMarksTheVerdictAndADecisionItCausesForAnotherDoesNot)
{
    const DecisionDevice a = samples::Headset("1-1", 1);
    const DecisionDevice b = samples::Headset("1-2", 2);
    Log().Record(About(a, decision::kHotplugAdded, decision::kDetectedAfterCore, decision::kTookSound));
    Log().Record(About(b, decision::kHotplugAdded, decision::kNoFreePlace, decision::kWaits));
    Log().Record(Unplug(a));
    Log().Record(About(b, decision::kHotplugRemoved, decision::kFreedPlace, decision::kTookSound, "Evolve 20"));

    const std::vector<Verdict> verdicts = Log().Verdicts();
    ASSERT_EQ(verdicts.size(), 2u);
    EXPECT_EQ(verdicts[0].decision.device.port, "1-1");
    EXPECT_EQ(verdicts[0].decision.rule, decision::kDetectedAfterCore);
    EXPECT_FALSE(verdicts[0].plugged);
    EXPECT_EQ(verdicts[0].unpluggedUptimeMs, Log().History()[2].uptimeMs);
    EXPECT_EQ(verdicts[1].decision.rule, decision::kFreedPlace);
    EXPECT_TRUE(verdicts[1].plugged);

    Log().Record(About(a, decision::kHotplugAdded, decision::kUsbAudioMode, decision::kWaits));
    ASSERT_FALSE(Log().Verdicts().empty());
    EXPECT_TRUE(Log().Verdicts().back().plugged);
}

TEST_F(DecisionLogTest, VerdictsAreBoundedAndAnUnpluggedDeviceGoesFirst)
{
    for (int i = 0; i < 32; ++i)
        Log().Record(About(samples::Headset("1-" + std::to_string(i), i), decision::kHotplugAdded,
                           decision::kCameraName, decision::kLeftAlone));
    Log().Record(Unplug(samples::Headset("1-5", 5)));
    Log().Record(About(samples::Headset("2-1", 40), decision::kHotplugAdded, decision::kCameraName,
                       decision::kLeftAlone));
    std::vector<std::string> ports = Ports(Log().Verdicts());
    EXPECT_EQ(ports.size(), 32u);
    EXPECT_EQ(std::count(ports.begin(), ports.end(), "1-5"), 0);

    Log().Record(About(samples::Headset("2-2", 41), decision::kHotplugAdded, decision::kCameraName,
                       decision::kLeftAlone));
    ports = Ports(Log().Verdicts());
    EXPECT_EQ(ports.size(), 32u);
    EXPECT_EQ(ports.front(), "1-1"); // 1-0, changed least recently, went
    EXPECT_EQ(ports.back(), "2-2");
}

TEST_F(DecisionLogTest, AConsequenceIsKeptOnlyWhenItChangesTheOutcome)
{
    const DecisionDevice headset = samples::Headset();
    Log().Record(About(headset, decision::kHotplugAdded, decision::kDetectedAfterCore, decision::kTookSound));
    Log().RecordIfOutcomeChanges(About(headset, decision::kRouteChange, decision::kRouteUsb, decision::kTookSound));
    EXPECT_EQ(Log().History().size(), 1u);
    Log().Record(About(headset, decision::kRouteChange, decision::kRouteNotUsb, decision::kReleased));
    Log().RecordIfOutcomeChanges(About(headset, decision::kRouteChange, decision::kRouteUsb, decision::kTookSound));
    ASSERT_EQ(Log().History().size(), 3u);
    ASSERT_FALSE(Log().Verdicts().empty());
    EXPECT_EQ(Log().Verdicts().back().decision.rule, decision::kRouteUsb);
}

TEST_F(DecisionLogTest, StartCompletesTheOldestDecisionOfThisRunWaitingOnItsCard)
{
    std::vector<std::pair<uint64_t, bool>> told; // (seq, still pending) of what the link heard
    CDecisionLog::SetLinks({[&told](const Decision &d) { told.emplace_back(d.seq, d.start && d.start->pending); }});
    Log().Record(WaitingForStart(samples::Headset("1-1", 1)));
    Log().Flush();
    Restart();
    Log().Record(WaitingForStart(samples::Headset("1-1", 1)));
    Log().Record(WaitingForStart(samples::Headset("1-2", 1)));
    Log().NoteStart(2, {true, true, 1, 3, 70000});
    Log().NoteStart(1, {true, false, 50, 50000, 60000});

    const std::vector<Decision> history = Log().History();
    ASSERT_EQ(history.size(), 3u);
    EXPECT_TRUE(history[0].start->pending); // the last run's: its worker is long gone
    ASSERT_FALSE(history[1].start->pending);
    EXPECT_EQ(std::make_tuple(history[1].start->sent, history[1].start->listed, history[1].start->attempts,
                              history[1].start->waitedMs, history[1].start->sentUptimeMs),
              std::make_tuple(true, false, 50, int64_t{50000}, int64_t{60000}));
    EXPECT_TRUE(history[2].start->pending);
    EXPECT_FALSE(Log().Verdicts().front().decision.start->pending);
    EXPECT_EQ(told, (std::vector<std::pair<uint64_t, bool>>{{1, true}, {2, true}, {3, true}, {2, false}}));
}

TEST_F(DecisionLogTest, TheFileIsSavedHalfASecondAfterTheLastChangeAndReadBackWhole)
{
    Decision boot = samples::PresentAtBoot();
    Log().Record(boot);
    Log().Record(samples::FreshPlug(samples::Headset("1-2", 2, "H390 USB Headset")));
    Log().Record(Unplug(samples::Headset("1-2", 2, "H390 USB Headset")));
    m_Clock.Advance(499);
    EXPECT_FALSE(m_Root.Exists(kFile));
    m_Clock.Advance(1);
    ASSERT_TRUE(m_Root.Exists(kFile));
    const std::vector<Decision> history = Log().History();
    const std::vector<Verdict> verdicts = Log().Verdicts();

    Restart();
    std::vector<Decision> readBack = Log().History();
    ASSERT_EQ(readBack.size(), history.size());
    for (size_t i = 0; i < history.size(); ++i)
        EXPECT_EQ(ToJson(readBack[i]), ToJson(history[i]));
    ASSERT_EQ(Log().Verdicts().size(), verdicts.size());
    for (size_t i = 0; i < verdicts.size(); ++i)
        EXPECT_EQ(ToJson(Log().Verdicts()[i]), ToJson(verdicts[i]));

    // Numbering goes on; a termination saves what is pending at once.
    Log().Record(boot);
    Log().Flush();
    Restart();
    EXPECT_EQ(Seqs(Log().History()), (std::vector<uint64_t>{1, 2, 3, 4}));
}

struct Refusal {
    const char *name;
    std::string content;
};

TEST_F(DecisionLogTest, AFileNotOfTheServiceIsRefusedKeptAsideAndTheHistoryStartsAfresh)
{
    Log().Record(samples::PresentAtBoot());
    Log().Flush();
    const std::string good = m_Root.ReadFile(kFile);
    const Refusal cases[] = {
        {"torn", good.substr(0, good.size() / 2)},
        {"not JSON", "decisions\n"},
        {"another format", R"({"format":"other","version":1,"last_seq":0,"history":[],"verdicts":[]})"},
        {"another version", R"({"format":"hadrix-decisions","version":2,"last_seq":0,"history":[],"verdicts":[]})"},
        {"an unknown member", good.substr(0, good.rfind('}')) + R"(,"extra":1})"},
        {"history no array", R"({"format":"hadrix-decisions","version":1,"last_seq":0,"history":{},"verdicts":[]})"},
        {"too large", std::string(CDecisionLog::kMaxFileBytes + 1, ' ')},
    };
    for (const Refusal &c : cases) {
        SCOPED_TRACE(c.name);
        Restart();
        m_Root.WriteFile(kFile, c.content);
        EXPECT_TRUE(Log().History().empty());
        EXPECT_TRUE(Log().Verdicts().empty());
        EXPECT_FALSE(m_Root.Exists(kFile));
        EXPECT_EQ(m_Root.ReadFile(kRefused), c.content);
        Log().Record(samples::PresentAtBoot());
        Log().Flush();
        EXPECT_EQ(Log().History().front().seq, 1u);
    }
}

TEST_F(DecisionLogTest, ALinkAtTheFileIsNeitherFollowedNorWrittenThrough)
{
    Log().Record(samples::PresentAtBoot());
    Log().Flush();
    const std::string elsewhere = m_Root.Path("/tmp/elsewhere.json");
    ASSERT_EQ(rename(m_Root.Path(kFile).c_str(), elsewhere.c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.c_str(), m_Root.Path(kFile).c_str()), 0);
    const std::string target = m_Root.ReadFile("/tmp/elsewhere.json");

    Restart();
    EXPECT_TRUE(Log().History().empty());
    Log().Record(samples::FreshPlug());
    Log().Flush();
    struct stat info {};
    ASSERT_EQ(lstat(m_Root.Path(kRefused).c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    ASSERT_EQ(lstat(m_Root.Path(kFile).c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(m_Root.ReadFile("/tmp/elsewhere.json"), target);
}

TEST_F(DecisionLogTest, ParseLeavesOutRecordsNotOfTheServicesFormAndKeepsTheBounds)
{
    CDecisionLog::Contents contents;
    contents.lastSeq = 200;
    for (uint64_t seq = 1; seq <= 130; ++seq) {
        Decision decision = samples::FreshPlug();
        decision.seq = seq;
        contents.history.push_back(decision);
    }
    CDecisionLog::Contents read;
    std::string fault;
    size_t skipped = 0;
    ASSERT_TRUE(CDecisionLog::Parse(CDecisionLog::Serialize(contents), read, fault, skipped)) << fault;
    EXPECT_EQ(skipped, 2u);
    EXPECT_EQ(Seqs(read.history).front(), 3u);
    EXPECT_EQ(read.history.size(), CDecisionLog::kMaxHistory);

    Json::Value root;
    Json::Reader().parse(CDecisionLog::Serialize(contents), root);
    root["history"][0]["seq"] = 300;                       // beyond the last number given
    root["history"][1]["device"]["product"] = "Evolve\n20"; // text the service never writes
    root["history"][2]["inputs"]["volume"] = 3;             // a member it does not know
    root["history"][3]["start"]["card"] = "one";
    root["history"][4] = root["history"][5];                // a number twice
    Json::StreamWriterBuilder writer;
    ASSERT_TRUE(CDecisionLog::Parse(Json::writeString(writer, root), read, fault, skipped)) << fault;
    // Seq 5 gave way to a second 6; four more left out, the rest read as written.
    EXPECT_EQ(skipped, 5u);
    ASSERT_EQ(read.history.size(), 125u);
    EXPECT_EQ(read.history.front().seq, 6u);
    EXPECT_EQ(read.history.back().seq, 130u);
    EXPECT_EQ(ToJson(read.history.back()), ToJson(contents.history.back()));
}

} // namespace
