#include "DMesgAnalysis.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/klog.h>
#include <system_error>
#include <thread>

#include "HadrixUtil.h"
#include "LocalFileData.h"
#include "Log.h"

namespace {

// Room for a kernel log of `size` bytes; null, logged, when there is none (the log can be large).
std::unique_ptr<char[]> AllocateLogBuffer(size_t size)
{
    std::unique_ptr<char[]> buf(new (std::nothrow) char[size]);
    if (!buf)
        LOGE("[START] no memory for a kernel log of %zu bytes", size);
    return buf;
}

constexpr int SYSLOG_ACTION_READ_ALL = 3;
constexpr int SYSLOG_ACTION_SIZE_BUFFER = 10;

// First read size when the kernel does not tell the ring-buffer size; reads grow by 4 while
// they fill the buffer, up to about 256 MiB.
constexpr size_t FIRST_FULL_READ_SIZE = 16392;
constexpr size_t FIRST_PARTIAL_READ_SIZE = 10240;
constexpr size_t READ_GROWTH = 4;
constexpr size_t MAX_GROWN_READ_SIZE = 256u * 1024 * 1024;

constexpr int MAX_PARSE_ATTEMPTS = 10;
constexpr unsigned long RETRY_WAIT_MS = 1000;

// A device found this soon after an event was there already when the event happened.
constexpr uint32_t EVENT_SETTLE_MS = 5000;
// A device found this soon after boot was plugged in before the TV started.
constexpr uint32_t BOOT_SETTLE_MS = 30000;
// Up to this uptime the log is still filling with boot-time detections: every trigger parses.
constexpr uint32_t BOOT_PARSE_WINDOW_MS = 29999;

// A kernel message is at most 1024 bytes; past that a "line" is garbage and only its first
// KiB is looked at.
constexpr size_t MAX_LINE_LENGTH = 1024;
constexpr size_t MAX_PORT_LENGTH = 64;
constexpr int MAX_LOGGED_STAMP = 32;

constexpr size_t ID_DIGITS = 4;
constexpr size_t SEARCH_WINDOW = 64 * 1024;

const char *const LOG_COPY_PATH = "/tmp/dmesg.txt";
const char *const MARKER_CORE_INIT = "usb_enable mod ld";
const char *const MARKER_DRIVER_DETECTED = "New USB device found";
const char *const MARKER_PORT_DETECTED = " new full-speed USB device number";
const char *const MARKER_DISCONNECTED = " USB disconnect completed";
const char *const TAG_VENDOR = "idVendor=";
const char *const TAG_PRODUCT = "idProduct=";

bool IsStampChar(char c)
{
    return (c >= '0' && c <= '9') || c == '.' || c == '-';
}

bool IsPortChar(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_';
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool IsSpace(char c)
{
    return IsBlank(c) || c == '\n' || c == '\r';
}

unsigned long AsUL(uint32_t value)
{
    return static_cast<unsigned long>(value);
}

// The first occurrence of marker in [from, end). Searched a window at a time, so that each search
// hands memmem a stretch of bounded size: sanitizer runtimes check the whole range passed to it,
// which over the rest of a large log for every hit would cost as much as the parse many times over.
const char *FindMarker(const char *from, const char *end, const char *marker, size_t markerLen)
{
    while (static_cast<size_t>(end - from) >= markerLen) {
        size_t window = std::min(static_cast<size_t>(end - from), SEARCH_WINDOW + markerLen - 1);
        const void *hit = memmem(from, window, marker, markerLen);
        if (hit)
            return static_cast<const char *>(hit);
        // The next window overlaps this one by less than a marker, so no occurrence falls between.
        from += window - (markerLen - 1);
    }
    return nullptr;
}

// Calls onHit with every occurrence of marker in the text, in order. Returns whether there was
// any. The text holds no NUL before its end, so this finds what strstr would; with the length
// known, no search has to measure the rest of the text again.
template <typename OnHit>
bool ForEachOccurrence(const char *text, size_t len, const char *marker, OnHit onHit)
{
    const char *end = text + len;
    size_t markerLen = strlen(marker);
    bool any = false;
    for (const char *hit = FindMarker(text, end, marker, markerLen); hit;
         hit = FindMarker(hit + markerLen, end, marker, markerLen)) {
        any = true;
        onHit(hit);
    }
    if (!any)
        LOGD("[START] fail to find string [%s]", marker);
    return any;
}

// Kernel time stamps are seconds with a decimal fraction. Read exactly (3.005 s is 3005 ms) and
// independently of the process locale; the count wraps in 32 bits like the uptime does.
uint32_t SecondsTextToMs(const char *begin, const char *end, double &seconds)
{
    uint64_t whole = 0;
    const char *p = begin;
    for (; p < end && *p >= '0' && *p <= '9'; ++p)
        whole = whole * 10 + static_cast<uint64_t>(*p - '0');
    seconds = static_cast<double>(whole);
    uint64_t milli = 0;
    if (p < end && *p == '.') {
        double scale = 0.1;
        int digits = 0;
        for (++p; p < end && *p >= '0' && *p <= '9'; ++p, ++digits, scale /= 10) {
            seconds += (*p - '0') * scale;
            if (digits < 3)
                milli = milli * 10 + static_cast<uint64_t>(*p - '0');
        }
        for (; digits < 3; ++digits)
            milli *= 10;
    }
    return static_cast<uint32_t>(whole * 1000 + milli);
}

// Nearest "[" ... "]" before pos, scanning down; the content may hold only "0123456789.-". Stops
// at floor when no "]" is pending there (cleanFloor true): the caller knows the answer below.
struct StampScan {
    const char *open = nullptr;
    const char *close = nullptr;
    bool cleanFloor = false;
};

StampScan ScanBackForStamp(const char *text, const char *floor, const char *pos)
{
    StampScan scan;
    for (const char *p = pos; p > text;) {
        --p;
        if (p < floor && !scan.close) {
            scan.cleanFloor = true;
            return scan;
        }
        char c = *p;
        if (c == ']') {
            scan.close = p;
        } else if (c == '[') {
            if (scan.close) {
                scan.open = p;
                return scan;
            }
        } else if (scan.close && !IsStampChar(c)) {
            scan.close = nullptr;
        }
    }
    scan.close = nullptr;
    return scan;
}

// The four characters after tag within [begin, end), or empty.
std::string IdDigitsAfter(const char *begin, const char *end, const char *tag)
{
    size_t tagLen = strlen(tag);
    const char *found = static_cast<const char *>(memmem(begin, static_cast<size_t>(end - begin), tag, tagLen));
    if (!found)
        return {};
    const char *digits = found + tagLen;
    if (static_cast<size_t>(end - digits) < ID_DIGITS)
        return {};
    return std::string(digits, ID_DIGITS);
}

// The text as it was parsed, kept for diagnosis.
void SaveLogCopy(const std::string &suffix, const char *text, size_t len)
{
    CLocalFileData::GetInstance()->WriteToFile(LOG_COPY_PATH + suffix, text, len);
}

} // namespace

CDMesgAnalysis::CDMesgAnalysis()
    : m_ReadKernelLog([](int action, char *buf, int len) { return ::klogctl(action, buf, len); })
{
}

void CDMesgAnalysis::SetKernelLogReader(KernelLogReader reader)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_ReadKernelLog = std::move(reader);
}

bool CDMesgAnalysis::m_IsTimingForParse(uint32_t now) const
{
    uint32_t power = m_PowerChangedTime.load();
    return now <= BOOT_PARSE_WINDOW_MS || (power != TIME_UNKNOWN && now - power < EVENT_SETTLE_MS);
}

void CDMesgAnalysis::TriggerParse(bool force)
{
    bool ready = IsParsingReady();
    bool timing = m_IsTimingForParse(CUsbServiceUtil::GetUptime());
    LOGI("[START] ---ready:%d  timing:%d  force:%d ", ready, timing, force);
    if (!timing && !force && ready)
        return;
    m_RunOnParseThread(&CDMesgAnalysis::m_KlogParseThreadEntry);
}

void CDMesgAnalysis::TriggerPartialParse(bool force)
{
    bool ready = IsParsingReady();
    LOGI("[START] ---ready:%d force:%d ", ready, force);
    if (!force && !ready)
        return;
    m_RunOnParseThread(&CDMesgAnalysis::m_KlogPartialParseThreadEntry);
}

// The parse gets a thread of its own for its stack; the caller waits for it.
void CDMesgAnalysis::m_RunOnParseThread(void (CDMesgAnalysis::*entry)())
{
    try {
        std::thread parser(entry, this);
        parser.join();
    } catch (const std::system_error &e) {
        LOGE("[START] fail to run the parse thread: %s", e.what());
    }
}

void CDMesgAnalysis::SetPowerChangdTime()
{
    uint32_t now = CUsbServiceUtil::GetUptime();
    m_PowerChangedTime.store(now);
    LOGI("[END] adjust uptime %lu", AsUL(now));
}

uint32_t CDMesgAnalysis::GetUsbCoreInitalTime()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_UsbCoreInitTime;
}

size_t CDMesgAnalysis::GetDetectedDevicesCount()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_DetectedByPort.size();
}

bool CDMesgAnalysis::IsParsingReady()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_ParsingReady;
}

std::string CDMesgAnalysis::GetUsbPortNumberFromDevPath(const std::string &devPath)
{
    std::string port = PortOfDevPath(devPath);
    LOGD("[START] parse port is [%s]", port.c_str());
    return port;
}

std::string CDMesgAnalysis::PortOfDevPath(const std::string &devPath)
{
    size_t colon = devPath.find(':');
    if (colon == std::string::npos)
        return {};
    size_t slash = devPath.rfind('/', colon);
    return slash == std::string::npos ? std::string() : devPath.substr(slash + 1, colon - slash - 1);
}

uint32_t CDMesgAnalysis::GetUsbDeviceDetectedByDriverTime(int vendorId, int productId)
{
    std::string id = CUsbServiceUtil::MakeId(vendorId, productId);
    LOGD("[START] get driver detect time ,vendor%d,  product %d  id: %s", vendorId, productId, id.c_str());
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_DetectedByDriver.find(id);
    return it == m_DetectedByDriver.end() ? TIME_UNKNOWN : it->second;
}

uint32_t CDMesgAnalysis::GetUsbDetectedTimeByDevPath(const std::string &devPath)
{
    std::string port = GetUsbPortNumberFromDevPath(devPath);
    LOGD("[START] get driver detect time path[%s] ,port [%s]", devPath.c_str(), port.c_str());
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_DetectedByPort.find(port);
    return it == m_DetectedByPort.end() ? TIME_UNKNOWN : it->second;
}

void CDMesgAnalysis::RemoveDevice(int vendorId, int productId)
{
    std::string id = CUsbServiceUtil::MakeId(vendorId, productId);
    LOGD("[START] remove driver detect device ,vendor%d,  product %d  id: %s", vendorId, productId,
         id.c_str());
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_DetectedByDriver.erase(id);
}

bool CDMesgAnalysis::NeedWaitDetect(int vendorId, int productId, bool &found)
{
    uint32_t detected = GetUsbDeviceDetectedByDriverTime(vendorId, productId);
    LOGD("[START] vendor [%d] product [%d]  detect time [%lu] power changed time[%lu]  found %d", vendorId,
         productId, AsUL(detected), AsUL(m_PowerChangedTime.load()), detected != TIME_UNKNOWN);
    return m_NeedWaitDetect(detected, found);
}

bool CDMesgAnalysis::NeedWaitDetect(const std::string &devPath, bool &found)
{
    uint32_t detected = GetUsbDetectedTimeByDevPath(devPath);
    LOGD("[START] dev path [%s]  detect time [%lu] power changed time[%lu]  found %d", devPath.c_str(),
         AsUL(detected), AsUL(m_PowerChangedTime.load()), detected != TIME_UNKNOWN);
    return m_NeedWaitDetect(detected, found);
}

bool CDMesgAnalysis::m_NeedWaitDetect(uint32_t detected, bool &found) const
{
    found = detected != TIME_UNKNOWN;
    if (!found)
        return false;
    uint32_t power = m_PowerChangedTime.load();
    if (power == TIME_UNKNOWN)
        return detected < BOOT_SETTLE_MS;
    // A detection before the power change wraps to a large difference.
    return detected - power < EVENT_SETTLE_MS;
}

bool CDMesgAnalysis::NeedChangeSpeaker(int vendorId, int productId)
{
    SpeakerJudgement why;
    return m_NeedChangeSpeaker(GetUsbDeviceDetectedByDriverTime(vendorId, productId), why);
}

bool CDMesgAnalysis::NeedChangeSpeaker(const std::string &devPath, SpeakerJudgement *why)
{
    SpeakerJudgement judged;
    return m_NeedChangeSpeaker(GetUsbDetectedTimeByDevPath(devPath), why ? *why : judged);
}

// All arithmetic is unsigned 32-bit on purpose: unknown (all bits set) and wrapped differences
// take part in the comparisons exactly as the kernel-log and uptime counters do.
bool CDMesgAnalysis::m_NeedChangeSpeaker(uint32_t detected, SpeakerJudgement &why)
{
    uint32_t now = CUsbServiceUtil::GetUptime();
    uint32_t core = GetUsbCoreInitalTime();
    LOGD("[START] uptime %lu core init time %lu, driver detect time %lu, delta %lu", AsUL(now), AsUL(core),
         AsUL(detected), AsUL(detected - core));

    bool result;
    if (core != TIME_UNKNOWN) {
        if (detected != TIME_UNKNOWN && detected >= core && detected - core > EVENT_SETTLE_MS) {
            result = true;
            why.rule = decision::kDetectedAfterCore;
        } else if (detected < core || detected - core <= EVENT_SETTLE_MS) {
            result = false;
            why.rule = decision::kDetectedWithCore;
        } else { // the device's detection is unknown: only the time since the core came up tells
            result = !(now < core + BOOT_SETTLE_MS);
            why.rule = result ? decision::kCoreUpLongAgo : decision::kCoreUpRecently;
        }
    } else {
        result = !(now < core + BOOT_SETTLE_MS);
        why.rule = result ? decision::kCoreUnknownLate : decision::kCoreUnknownEarly;
    }
    if (!result)
        LOGD("[START] ------core init time judgement success------- ");

    uint32_t power = m_PowerChangedTime.load();
    LOGD("[START] uptime %lu driver detect time %lu, power changed time %lu,  delta %lu", AsUL(now),
         AsUL(detected), AsUL(power), AsUL(detected - power));
    if (power != TIME_UNKNOWN && now < power + EVENT_SETTLE_MS &&
        (detected - power <= EVENT_SETTLE_MS || detected == TIME_UNKNOWN || detected < power)) {
        result = false;
        why.rule = decision::kPowerChanged;
        LOGD("[START] ------power changed judgement success------- ");
    }
    LOGI("[END] result of speakerChange  %d", result);
    why.detected = detected;
    why.core = core;
    why.power = power;
    why.now = now;
    why.changeSpeaker = result;
    return result;
}

DecisionReason CDMesgAnalysis::SpeakerJudgement::Reason() const
{
    auto time = [](uint32_t ms) { return ms == TIME_UNKNOWN ? decision::kUnknownTime : static_cast<int64_t>(ms); };
    DecisionReason reason;
    reason.rule = rule ? rule : "";
    reason.outcomeIfKept = reason.rule == decision::kPowerChanged ? decision::kPresentAtResume : decision::kPresentAtBoot;
    reason.inputs.detectedMs = time(detected);
    reason.inputs.coreInitMs = time(core);
    reason.inputs.powerChangedMs = time(power);
    reason.inputs.uptimeMs = now;
    return reason;
}

int CDMesgAnalysis::m_ReadInto(char *buf, size_t size)
{
    int len = size > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(size);
    errno = 0;
    int rc = m_ReadKernelLog(SYSLOG_ACTION_READ_ALL, buf, len);
    if (rc < 0 && errno == EPERM)
        m_ReportReadRefused();
    if (rc > len) {
        LOGW("[START] kernel log read claims %d bytes of %d, keeping %d", rc, len, len);
        rc = len;
    }
    return rc;
}

// The kernel refuses its log to a process without CAP_SYSLOG (kernel.dmesg_restrict). Every
// failed attempt is logged where it fails; the cause is said once, for whoever reads the log.
void CDMesgAnalysis::m_ReportReadRefused()
{
    if (m_ReadRefusalReported)
        return;
    m_ReadRefusalReported = true;
    LOGE("[START] the kernel log cannot be read: permission denied (EPERM); reading it needs "
         "CAP_SYSLOG. Devices are judged without it, by the uptime alone");
}

// NULs inside the text become blanks, so that string searches see all of it, and the last byte
// read ends the text.
CDMesgAnalysis::LogText CDMesgAnalysis::m_MakeText(std::unique_ptr<char[]> data, int rc)
{
    LogText text;
    text.rc = rc;
    if (rc <= 0)
        return text;
    char *buf = data.get();
    size_t last = static_cast<size_t>(rc) - 1;
    for (char *nul = static_cast<char *>(memchr(buf, '\0', last)); nul;
         nul = static_cast<char *>(memchr(nul + 1, '\0', last - static_cast<size_t>(nul + 1 - buf))))
        *nul = ' ';
    buf[last] = '\0';
    text.data = std::move(data);
    text.length = last;
    return text;
}

CDMesgAnalysis::LogText CDMesgAnalysis::m_ReadLog()
{
    int kernelSize = m_ReadKernelLog(SYSLOG_ACTION_SIZE_BUFFER, nullptr, 0);
    LOGD("[START] get syslog buffer size %d", kernelSize);
    bool sizeKnown = kernelSize >= 1;
    size_t size = sizeKnown ? static_cast<size_t>(kernelSize) + 8 : FIRST_FULL_READ_SIZE;
    for (;;) {
        std::unique_ptr<char[]> buf = AllocateLogBuffer(size);
        if (!buf)
            return m_MakeText(nullptr, -ENOMEM);
        int rc = m_ReadInto(buf.get(), size);
        // A read that fills the buffer may have been cut: read again with more room.
        if (!sizeKnown && rc >= 0 && static_cast<size_t>(rc) == size && size <= MAX_GROWN_READ_SIZE) {
            size *= READ_GROWTH;
            continue;
        }
        if (rc < 0)
            LOGE("[START] fail to read the kernel log, rc %d", rc);
        return m_MakeText(std::move(buf), rc);
    }
}

CDMesgAnalysis::LogText CDMesgAnalysis::m_PartialReadLog(size_t size,
                                                         const std::function<bool(const LogText &)> &check)
{
    for (;;) {
        std::unique_ptr<char[]> buf = AllocateLogBuffer(size);
        if (!buf)
            return m_MakeText(nullptr, -ENOMEM);
        int rc = m_ReadInto(buf.get(), size);
        LOGD("[START] partial read rc = %d  sz = %zu", rc, size);
        if (rc < 0)
            return m_MakeText(nullptr, rc);
        LogText text = m_MakeText(std::move(buf), rc);
        if (check(text))
            return text;
        // A read shorter than the buffer already held the whole log; more room shows nothing new.
        if (static_cast<size_t>(rc) < size || size > MAX_GROWN_READ_SIZE / READ_GROWTH) {
            LOGD("[START] no disconnect line in the %d bytes of the log", rc);
            return text;
        }
        size *= READ_GROWTH;
    }
}

bool CDMesgAnalysis::m_CheckPartialLogValid(const LogText &text)
{
    if (text.Empty())
        return false;
    m_ParseUsbDeviceDetectedByDevicePort(text.data.get(), text.length);
    return m_ParseUsbDeviceDisconnected(text.data.get(), text.length);
}

uint32_t CDMesgAnalysis::m_ParseLeftNearestTimeStamp(const char *text, size_t len, const char *pos,
                                                     BackwardMemo *memo)
{
    if (!text || !pos || pos <= text) {
        LOGW("[START] parameter is null.");
        return TIME_UNKNOWN;
    }
    BackwardMemo local(text);
    if (!memo)
        memo = &local;

    StampScan scan = ScanBackForStamp(text, memo->stampFloor, pos);
    if (scan.cleanFloor) {
        // Nothing between the last search and pos: the answer is the last search's.
        scan.open = memo->stampOpen;
        scan.close = memo->stampClose;
    }
    memo->stampFloor = pos;
    memo->stampOpen = scan.open;
    memo->stampClose = scan.close;

    if (!scan.open) {
        LOGW("[START] fail to parse start end tag.");
        return TIME_UNKNOWN;
    }
    LOGD("[START] found [ pos %ld and ] pos %ld. size is %zu", static_cast<long>(scan.open - text),
         static_cast<long>(scan.close - text), len);
    const char *begin = scan.open + 1;
    size_t contentLen = static_cast<size_t>(scan.close - begin);
    LOGD("[START] time string size %zu. {%.*s}", contentLen,
         static_cast<int>(contentLen < MAX_LOGGED_STAMP ? contentLen : MAX_LOGGED_STAMP), begin);
    const char *dash = static_cast<const char *>(memchr(begin, '-', contentLen));
    if (dash)
        begin = dash + 1;
    double seconds = 0;
    uint32_t ms = SecondsTextToMs(begin, scan.close, seconds);
    LOGD("[START] parse time value is %f", seconds);
    return ms;
}

std::string CDMesgAnalysis::m_ParseLeftUsbPort(const char *text, size_t len, const char *pos, BackwardMemo *memo)
{
    if (!text || !pos || pos <= text) {
        LOGW("[START] parameter is null.");
        return {};
    }
    BackwardMemo local(text);
    if (!memo)
        memo = &local;

    const char *floor = memo->bracketFloor;
    const char *bracket = static_cast<const char *>(memrchr(floor, ']', static_cast<size_t>(pos - floor)));
    if (!bracket)
        bracket = memo->bracket;
    memo->bracketFloor = pos;
    memo->bracket = bracket;
    if (!bracket) {
        LOGW("[START] fail to parse start end tag.");
        return {};
    }
    LOGD("[START] found [ pos %ld and ] pos %ld. size is %zu", static_cast<long>(bracket - text),
         static_cast<long>(pos - text), len);

    // The text reads "<driver prefix> usb <port>:"; the port is the last word before the colon.
    const char *start = bracket + 1;
    const char *end = pos;
    while (end > start && IsBlank(end[-1]))
        --end;
    if (end > start && end[-1] == ':')
        --end;
    const char *word = end;
    while (word > start && !IsSpace(word[-1]) && static_cast<size_t>(end - word) <= MAX_PORT_LENGTH)
        --word;
    std::string port(word, static_cast<size_t>(end - word));
    LOGD("[START] message port string size %zu. {%.*s}", port.size(), static_cast<int>(MAX_PORT_LENGTH),
         port.c_str());
    if (port.size() > MAX_PORT_LENGTH || !std::all_of(port.begin(), port.end(), IsPortChar)) {
        LOGW("[START] not a USB port name, line ignored");
        return {};
    }
    return port;
}

std::string CDMesgAnalysis::m_ParseRightVendorProductId(const char *text, size_t len, const char *pos)
{
    if (!text || !pos || pos < text) {
        LOGW("[START] parameter is null.");
        return {};
    }
    size_t rest = len - static_cast<size_t>(pos - text);
    const char *limit = pos + (rest < MAX_LINE_LENGTH ? rest : MAX_LINE_LENGTH);
    const char *end = static_cast<const char *>(memchr(pos, '\n', static_cast<size_t>(limit - pos)));
    if (!end)
        end = limit;
    LOGD("[START] found end pos \n %ld. size is %zu", static_cast<long>(end - text), len);

    std::string vendor = IdDigitsAfter(pos, end, TAG_VENDOR);
    std::string product = IdDigitsAfter(pos, end, TAG_PRODUCT);
    if (vendor.empty() || product.empty()) {
        LOGW("[START] no complete vendor and product id in the line");
        return {};
    }
    return " " + vendor + "#" + product + " ";
}

void CDMesgAnalysis::m_ParseUsbCoreInitalTime(const char *text, size_t len)
{
    const char *hit = FindMarker(text, text + len, MARKER_CORE_INIT, strlen(MARKER_CORE_INIT));
    if (!hit) {
        LOGD("[START] fail to find string [%s]", MARKER_CORE_INIT);
        m_UsbCoreInitTime = TIME_UNKNOWN;
        return;
    }
    m_UsbCoreInitTime = m_ParseLeftNearestTimeStamp(text, len, hit);
}

void CDMesgAnalysis::m_ParseUsbDeviceDetectedByDriverer(const char *text, size_t len)
{
    BackwardMemo memo(text);
    ForEachOccurrence(text, len, MARKER_DRIVER_DETECTED, [&](const char *hit) {
        std::string id = m_ParseRightVendorProductId(text, len, hit);
        if (!id.empty())
            m_DetectedByDriver[id] = m_ParseLeftNearestTimeStamp(text, len, hit, &memo);
    });
}

void CDMesgAnalysis::m_ParseUsbDeviceDetectedByDevicePort(const char *text, size_t len)
{
    BackwardMemo memo(text);
    ForEachOccurrence(text, len, MARKER_PORT_DETECTED, [&](const char *hit) {
        std::string port = m_ParseLeftUsbPort(text, len, hit, &memo);
        if (!port.empty())
            m_DetectedByPort[port] = m_ParseLeftNearestTimeStamp(text, len, hit, &memo);
    });
}

bool CDMesgAnalysis::m_ParseUsbDeviceDisconnected(const char *text, size_t len)
{
    BackwardMemo memo(text);
    return ForEachOccurrence(text, len, MARKER_DISCONNECTED, [&](const char *hit) {
        std::string port = m_ParseLeftUsbPort(text, len, hit, &memo);
        uint32_t disconnected = m_ParseLeftNearestTimeStamp(text, len, hit, &memo);
        auto it = m_DetectedByPort.find(port);
        // A device detected again after the disconnect stays.
        if (it != m_DetectedByPort.end() && it->second < disconnected) {
            LOGD("[START] port %s disconnected at %lu", port.c_str(), AsUL(disconnected));
            m_DetectedByPort.erase(it);
        }
    });
}

// One attempt's analysis of a whole log. False when the log holds neither the core start nor
// any detected port, which means the log is not usable yet.
bool CDMesgAnalysis::m_ParseFullLog(const LogText &text)
{
    const char *data = text.data.get();
    if (m_UsbCoreInitTime == TIME_UNKNOWN)
        m_ParseUsbCoreInitalTime(data, text.length);
    m_ParseUsbDeviceDetectedByDevicePort(data, text.length);
    if (m_UsbCoreInitTime == TIME_UNKNOWN && m_DetectedByPort.empty())
        return false;
    m_ParseUsbDeviceDisconnected(data, text.length);
    return true;
}

void CDMesgAnalysis::m_LogParseResult()
{
    LOGI("[START] ---------usb core init time %lu", AsUL(m_UsbCoreInitTime));
    LOGI("[START] ---------parse detected devices.");
    for (const auto &item : m_DetectedByPort)
        LOGI("[START] item  id %s    time %lu", item.first.c_str(), AsUL(item.second));
}

void CDMesgAnalysis::m_KlogParseThreadEntry()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    for (int attempt = 1; attempt <= MAX_PARSE_ATTEMPTS; ++attempt) {
        LogText text = m_ReadLog();
        if (text.Empty()) {
            LOGW("[START] empty kernel log (rc %d), attempt %d", text.rc, attempt);
            continue;
        }
        if (m_ParseFullLog(text)) {
            m_LogParseResult();
            SaveLogCopy(".success", text.data.get(), text.length);
            m_ParsingReady = true;
            return;
        }
        LOGE("[START] fail log, read it again. %d", attempt);
        SaveLogCopy(".err." + std::to_string(attempt), text.data.get(), text.length);
        text.data.reset();
        if (attempt < MAX_PARSE_ATTEMPTS)
            CUsbServiceUtil::Wait(RETRY_WAIT_MS);
    }
    LOGE("[END] no usable kernel log after %d attempts", MAX_PARSE_ATTEMPTS);
}

void CDMesgAnalysis::m_KlogPartialParseThreadEntry()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_PartialReadLog(FIRST_PARTIAL_READ_SIZE, [this](const LogText &text) { return m_CheckPartialLogValid(text); });
}
