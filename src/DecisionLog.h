// The decision history: the last decision records the service made about USB devices, and the
// current verdict of each device it has seen. The code that takes a decision records it here;
// clients read it through the diagnostics D-Bus interface. It is kept in a file of the data
// directory, so that it outlives the process (the quit timer, a crash) and support can still ask
// why; the file is saved off the hot-plug path, half a second after the last change.
//
// Safe on any thread: records come from the main loop, "Start" reports from the audio-server
// worker, and the D-Bus listener thread reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <glib.h>

#include "Decision.h"
#include "Singleton.h"
#include "Timer.h"
#include "USBDeviceInfo.h"

class CDecisionLog : public CSingleton<CDecisionLog> {
    friend class CSingleton<CDecisionLog>;

public:
    static constexpr size_t kMaxHistory = 128;
    static constexpr size_t kMaxVerdicts = 32;
    // A file of the service holds at most kMaxHistory + kMaxVerdicts records of bounded texts,
    // well under this; anything larger is not one.
    static constexpr size_t kMaxFileBytes = 512 * 1024;

    struct Links {
        // A decision was kept, or the "Start" it asked for was told (the same seq again). Called
        // on the thread that recorded, without the log's lock.
        std::function<void(const Decision &)> recorded;
    };
    static void SetLinks(Links links);

    // What the worker that sent "Start" for a card learned.
    struct StartReport {
        bool sent = false;
        bool listed = false;
        int attempts = 0;
        uint32_t waitedMs = 0;
        uint32_t sentUptimeMs = 0;
    };

    // The file's contents: the history oldest first, the verdicts least recently changed first.
    struct Contents {
        uint64_t lastSeq = 0;
        std::vector<Decision> history;
        std::vector<Verdict> verdicts;
    };

    ~CDecisionLog() override;

    // Numbers and stamps the decision, keeps it in the history (the oldest record goes when
    // there are kMaxHistory) and makes it its device's verdict; a decision on an unplug only
    // marks the device unplugged.
    void Record(Decision decision);
    // The same for a consequence of another decision (a route that becomes the USB headset's
    // unmutes what is attached): kept only when the device's verdict had another outcome.
    void RecordIfOutcomeChanges(Decision decision);
    // Completes the oldest decision of this run that waits for its "Start" on this card.
    void NoteStart(int card, const StartReport &report);

    // The newest `newest` records (0: all), oldest first.
    std::vector<Decision> History(size_t newest = 0);
    std::vector<Verdict> Verdicts();
    // Does a save that is still pending now (the service is ending).
    void Flush();

    // The device of a record, from the device manager's record of it (card -1: none known).
    static DecisionDevice DeviceOf(const USBDeviceInfo &info, int card);
    // A decision about that device, for the caller to complete with inputs, cause or start.
    static Decision About(const USBDeviceInfo &info, int card, const char *event, const std::string &rule,
                          const std::string &outcome, const DecisionInputs &inputs = DecisionInputs());

    // The file, resolved for this system, and its text. Parse takes only what Serialize writes:
    // false, with the reason in `fault`, for text the service did not write; a record that is
    // not of the service's form is left out, and counted in `skipped`.
    static std::string FilePath();
    static std::string Serialize(const Contents &contents);
    static bool Parse(const std::string &text, Contents &contents, std::string &fault, size_t &skipped);

private:
    CDecisionLog();

    void m_Load();
    void m_Keep(Decision decision, bool onlyIfOutcomeChanges);
    std::vector<Verdict>::iterator m_FindVerdict(const DecisionDevice &device);
    void m_UpdateVerdict(const Decision &decision);
    void m_ScheduleSave();
    static gboolean m_OnSaveTimer(gpointer data);
    std::string m_Text();
    static void m_Write(const std::string &text);

    std::mutex m_Mutex;
    uint64_t m_LastSeq = 0;
    // The first number of this run: "Start" reports complete only this run's decisions.
    uint64_t m_FirstSeqOfRun = 1;
    std::deque<Decision> m_History;
    std::vector<Verdict> m_Verdicts;
    CTimer m_SaveTimerId; // the pending save
};
