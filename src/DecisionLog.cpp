#include "DecisionLog.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "DMesgAnalysis.h"
#include "HadrixUtil.h"
#include "JsonVariant.h"
#include "LocalFileData.h"
#include "Log.h"
#include "nimbos/paths.h"

namespace {

constexpr char kFile[] = "/home/owner/apps_rw/hadrix/data/decisions.json";
// Where a file that was refused is kept for a look, replacing the one refused before.
constexpr char kRefusedSuffix[] = ".refused";
constexpr char kFormat[] = "hadrix-decisions";
constexpr int kVersion = 1;
constexpr unsigned int kSaveDelayMs = 500;
using decision::kMaxNameBytes;
using decision::kMaxPathBytes;
using decision::kMaxPortBytes;

CDecisionLog::Links g_links;

bool SameDevice(const DecisionDevice &a, const DecisionDevice &b)
{
    return a.port == b.port && a.vendorId == b.vendorId && a.productId == b.productId;
}

int64_t WallClockMs()
{
    return g_get_real_time() / 1000;
}

// The records of one array, in order; those of another form are counted in `skipped`.
template <typename Record>
bool ReadRecords(const Json::Value &array, const char *what, std::vector<Record> &records, size_t &skipped,
                 std::string &fault)
{
    if (!array.isArray()) {
        fault = std::string(what) + " is not an array";
        return false;
    }
    for (const Json::Value &json : array) {
        Record record;
        std::string recordFault;
        if (FromJson(json, record, recordFault))
            records.push_back(std::move(record));
        else
            ++skipped;
    }
    return true;
}

uint64_t SeqOf(const Decision &decision)
{
    return decision.seq;
}

uint64_t SeqOf(const Verdict &verdict)
{
    return verdict.decision.seq;
}

// Keeps the last `bound` records whose numbers are not above lastSeq: the service numbers every
// record it writes up to it.
template <typename Record>
void Bound(std::vector<Record> &records, size_t bound, uint64_t lastSeq, size_t &skipped)
{
    const auto beyond = std::remove_if(records.begin(), records.end(),
                                       [lastSeq](const Record &record) { return SeqOf(record) > lastSeq; });
    skipped += static_cast<size_t>(records.end() - beyond);
    records.erase(beyond, records.end());
    if (records.size() > bound) {
        skipped += records.size() - bound;
        records.erase(records.begin(), records.end() - static_cast<std::ptrdiff_t>(bound));
    }
}

// One verdict per device, as the service keeps them: the one changed last.
void KeepLastVerdictOfEachDevice(std::vector<Verdict> &verdicts, size_t &skipped)
{
    std::vector<Verdict> kept;
    for (auto it = verdicts.rbegin(); it != verdicts.rend(); ++it) {
        const bool newer = std::any_of(kept.begin(), kept.end(), [&it](const Verdict &verdict) {
            return SameDevice(verdict.decision.device, it->decision.device);
        });
        if (newer)
            ++skipped;
        else
            kept.push_back(std::move(*it));
    }
    verdicts.assign(std::make_move_iterator(kept.rbegin()), std::make_move_iterator(kept.rend()));
}

bool IsOlder(const Decision &a, const Decision &b)
{
    return a.seq < b.seq;
}

// Moves a refused file aside (a link is moved, not followed), so that support can still look at
// it while a fresh history takes its place.
void KeepRefusedFile(const std::string &path)
{
    const std::string aside = path + kRefusedSuffix;
    if (rename(path.c_str(), aside.c_str()) != 0)
        LOGW("cannot move the refused decision history to %s: %s", aside.c_str(), strerror(errno));
}

} // namespace

void CDecisionLog::SetLinks(Links links)
{
    g_links = std::move(links);
}

CDecisionLog::CDecisionLog()
{
    m_Load();
}

CDecisionLog::~CDecisionLog()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_SaveTimerId.Stop();
}

std::string CDecisionLog::FilePath()
{
    return nimbos::Path(kFile);
}

DecisionDevice CDecisionLog::DeviceOf(const USBDeviceInfo &info, int card)
{
    DecisionDevice device;
    device.product = RecordText(info.strProductName, kMaxNameBytes);
    device.manufacturer = RecordText(info.strManufature, kMaxNameBytes);
    device.vendorId = info.nVendorId & 0xffff;
    device.productId = info.nProductId & 0xffff;
    device.port = RecordText(CDMesgAnalysis::PortOfDevPath(info.strDevPath), kMaxPortBytes);
    device.card = card < 0 ? -1 : card;
    device.path = RecordText(info.strDevPath, kMaxPathBytes);
    return device;
}

Decision CDecisionLog::About(const USBDeviceInfo &info, int card, const char *event, const std::string &rule,
                             const std::string &outcome, const DecisionInputs &inputs)
{
    Decision decision;
    decision.device = DeviceOf(info, card);
    decision.event = event;
    decision.rule = rule;
    decision.outcome = outcome;
    decision.inputs = inputs;
    return decision;
}

void CDecisionLog::Record(Decision decision)
{
    m_Keep(std::move(decision), false);
}

void CDecisionLog::RecordIfOutcomeChanges(Decision decision)
{
    m_Keep(std::move(decision), true);
}

void CDecisionLog::m_Keep(Decision decision, bool onlyIfOutcomeChanges)
{
    decision.cause = RecordText(decision.cause, kMaxNameBytes);
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (onlyIfOutcomeChanges) {
            auto verdict = m_FindVerdict(decision.device);
            if (verdict != m_Verdicts.end() && verdict->plugged && verdict->decision.outcome == decision.outcome)
                return;
        }
        decision.seq = ++m_LastSeq;
        decision.timeMs = WallClockMs();
        decision.uptimeMs = CUsbServiceUtil::GetUptime();
        m_History.push_back(decision);
        if (m_History.size() > kMaxHistory)
            m_History.pop_front();
        m_UpdateVerdict(decision);
        m_ScheduleSave();
    }
    LOGI("decision %llu: %s %s: %s by %s", static_cast<unsigned long long>(decision.seq), decision.device.product.c_str(),
         decision.event.c_str(), decision.outcome.c_str(), decision.rule.c_str());
    if (g_links.recorded)
        g_links.recorded(decision);
}

std::vector<Verdict>::iterator CDecisionLog::m_FindVerdict(const DecisionDevice &device)
{
    return std::find_if(m_Verdicts.begin(), m_Verdicts.end(),
                        [&device](const Verdict &verdict) { return SameDevice(verdict.decision.device, device); });
}

// The verdict that changes last moves to the end; beyond the bound, the unplugged device
// changed least recently goes first, else the device changed least recently. A decision on the
// unplug of the device itself (not one caused by another's) keeps the verdict and marks it
// unplugged.
void CDecisionLog::m_UpdateVerdict(const Decision &decision)
{
    const bool unplug = decision.event == decision::kHotplugRemoved && decision.cause.empty();
    Verdict verdict;
    auto known = m_FindVerdict(decision.device);
    if (known != m_Verdicts.end()) {
        verdict = std::move(*known);
        m_Verdicts.erase(known);
    }
    if (!unplug || verdict.decision.seq == 0)
        verdict.decision = decision;
    verdict.plugged = !unplug;
    verdict.unpluggedTimeMs = unplug ? decision.timeMs : 0;
    verdict.unpluggedUptimeMs = unplug ? decision.uptimeMs : 0;
    m_Verdicts.push_back(std::move(verdict));
    if (m_Verdicts.size() <= kMaxVerdicts)
        return;
    auto gone = std::find_if(m_Verdicts.begin(), m_Verdicts.end(), [](const Verdict &v) { return !v.plugged; });
    m_Verdicts.erase(gone != m_Verdicts.end() ? gone : m_Verdicts.begin());
}

void CDecisionLog::NoteStart(int card, const StartReport &report)
{
    Decision completed;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        auto waiting = std::find_if(m_History.begin(), m_History.end(), [this, card](const Decision &decision) {
            return decision.seq >= m_FirstSeqOfRun && decision.start && decision.start->pending &&
                   decision.start->card == card;
        });
        if (waiting == m_History.end())
            return;
        DecisionStart &start = *waiting->start;
        start.pending = false;
        start.sent = report.sent;
        start.listed = report.listed;
        start.attempts = report.attempts;
        start.waitedMs = report.waitedMs;
        start.sentUptimeMs = report.sentUptimeMs;
        completed = *waiting;
        for (Verdict &verdict : m_Verdicts)
            if (verdict.decision.seq == completed.seq)
                verdict.decision = completed;
        m_ScheduleSave();
    }
    if (g_links.recorded)
        g_links.recorded(completed);
}

std::vector<Decision> CDecisionLog::History(size_t newest)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    const size_t count = newest == 0 ? m_History.size() : std::min(newest, m_History.size());
    return std::vector<Decision>(m_History.end() - static_cast<std::ptrdiff_t>(count), m_History.end());
}

std::vector<Verdict> CDecisionLog::Verdicts()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Verdicts;
}

void CDecisionLog::Flush()
{
    std::string text;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!m_SaveTimerId.IsPending())
            return;
        m_SaveTimerId.Stop();
        text = m_Text();
    }
    m_Write(text);
}

// Callers hold m_Mutex.
void CDecisionLog::m_ScheduleSave()
{
    m_SaveTimerId.Start(kSaveDelayMs, m_OnSaveTimer, this);
}

gboolean CDecisionLog::m_OnSaveTimer(gpointer data)
{
    auto *self = static_cast<CDecisionLog *>(data);
    std::string text;
    {
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        // A record on another thread may have armed the timer again while this callback waited
        // for the lock; the new timeout saves the newer history.
        if (!self->m_SaveTimerId.IsFiring())
            return G_SOURCE_REMOVE;
        text = self->m_Text();
    }
    m_Write(text);
    return G_SOURCE_REMOVE;
}

// Callers hold m_Mutex.
std::string CDecisionLog::m_Text()
{
    return Serialize({m_LastSeq, {m_History.begin(), m_History.end()}, m_Verdicts});
}

void CDecisionLog::m_Write(const std::string &text)
{
    const std::string path = FilePath();
    if (!CLocalFileData::ReplaceResolvedFile(path, text.data(), text.size()))
        LOGE("cannot save the decision history to %s: %s", path.c_str(), strerror(errno));
}

void CDecisionLog::m_Load()
{
    const std::string path = FilePath();
    CLocalFileData::RemoveUnfinishedReplacements(path);
    std::string text;
    std::string fault;
    const CLocalFileData::ReadOutcome read =
        CLocalFileData::ReadResolvedFile(path, kMaxFileBytes, false, text, fault);
    if (read == CLocalFileData::ReadOutcome::Missing)
        return;
    Contents contents;
    size_t skipped = 0;
    if (read != CLocalFileData::ReadOutcome::Ok || !Parse(text, contents, fault, skipped)) {
        LOGE("decision history %s refused, starting afresh: %s", path.c_str(), fault.c_str());
        KeepRefusedFile(path);
        return;
    }
    if (skipped > 0)
        LOGW("decision history %s: %zu records not of the service's form left out", path.c_str(), skipped);
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_LastSeq = contents.lastSeq;
    m_FirstSeqOfRun = contents.lastSeq + 1;
    m_History.assign(contents.history.begin(), contents.history.end());
    m_Verdicts = std::move(contents.verdicts);
    LOGI("decision history: %zu records, %zu devices", m_History.size(), m_Verdicts.size());
}

// One record at a time, so that the whole history is never a JSON tree in memory: the text is
// a fraction of its size.
template <typename Record>
std::string JsonArray(const std::vector<Record> &records, const Json::StreamWriterBuilder &builder)
{
    std::string text = "[";
    for (const Record &record : records) {
        if (text.size() > 1)
            text += ',';
        text += Json::writeString(builder, ToJson(record));
    }
    return text + "]";
}

std::string CDecisionLog::Serialize(const Contents &contents)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return std::string("{\"format\":\"") + kFormat + "\",\"version\":" + std::to_string(kVersion) +
           ",\"last_seq\":" + std::to_string(contents.lastSeq) + ",\"history\":" +
           JsonArray(contents.history, builder) + ",\"verdicts\":" + JsonArray(contents.verdicts, builder) + "}\n";
}

bool CDecisionLog::Parse(const std::string &text, Contents &contents, std::string &fault, size_t &skipped)
{
    contents = {};
    skipped = 0;
    Json::Value root;
    if (text.size() > kMaxFileBytes) {
        fault = "it is larger than " + std::to_string(kMaxFileBytes) + " bytes";
        return false;
    }
    if (!ParseJson(text, root, fault)) {
        fault = "it is not JSON (" + fault.substr(0, fault.find('\n')) + ")";
        return false;
    }
    if (!root.isObject() || root.size() != 5 || root["format"] != kFormat || root["version"] != kVersion) {
        fault = std::string("it is not a decision history of version ") + std::to_string(kVersion);
        return false;
    }
    const Json::Value &lastSeq = root["last_seq"];
    if (!lastSeq.isInt64() || lastSeq.asInt64() < 0) {
        fault = "last_seq is not a number";
        return false;
    }
    contents.lastSeq = static_cast<uint64_t>(lastSeq.asInt64());
    if (!ReadRecords(root["history"], "history", contents.history, skipped, fault) ||
        !ReadRecords(root["verdicts"], "verdicts", contents.verdicts, skipped, fault))
        return false;
    // Oldest first, each number once, as the service keeps them.
    std::stable_sort(contents.history.begin(), contents.history.end(), IsOlder);
    const auto repeated = std::unique(contents.history.begin(), contents.history.end(),
                                      [](const Decision &a, const Decision &b) { return a.seq == b.seq; });
    skipped += static_cast<size_t>(contents.history.end() - repeated);
    contents.history.erase(repeated, contents.history.end());
    Bound(contents.history, kMaxHistory, contents.lastSeq, skipped);
    KeepLastVerdictOfEachDevice(contents.verdicts, skipped);
    Bound(contents.verdicts, kMaxVerdicts, contents.lastSeq, skipped);
    return true;
}
