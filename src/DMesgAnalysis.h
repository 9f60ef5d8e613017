// Kernel-log analysis: when the kernel detected each USB device and when the USB core came up
// after boot, and from those times whether a device the service finds now was already there at
// start-up or wake-up, or has just been plugged in by the user.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Decision.h"
#include "Singleton.h"

class CDMesgAnalysis : public CSingleton<CDMesgAnalysis> {
    friend class CSingleton<CDMesgAnalysis>;

public:
    // Milliseconds since boot; all bits set means unknown.
    static constexpr uint32_t TIME_UNKNOWN = UINT32_MAX;

    // How the analysis reads the kernel log: klogctl(action, buf, len). Tests hand in their own
    // before they use the analyser. (Uptime and the pauses between attempts come from CClock.)
    using KernelLogReader = std::function<int(int action, char *buf, int len)>;

    // What NeedChangeSpeaker compared and which of its judgements decided.
    struct SpeakerJudgement {
        uint32_t detected = TIME_UNKNOWN;
        uint32_t core = TIME_UNKNOWN;
        uint32_t power = TIME_UNKNOWN;
        uint32_t now = 0;
        // The deciding judgement, one of the kernel-log rules of decision:: (the second
        // judgement, by power change, when it overrode the first).
        const char *rule = nullptr;
        bool changeSpeaker = false;

        // As the reason of a decision: the rule, the numbers, and the outcome when the sound does
        // not switch (present at boot, or at resume after a power change).
        DecisionReason Reason() const;
    };

    ~CDMesgAnalysis() override = default;

    void SetKernelLogReader(KernelLogReader reader);

    void TriggerParse(bool force);
    void TriggerPartialParse(bool force);
    void SetPowerChangdTime();

    uint32_t GetUsbCoreInitalTime();
    uint32_t GetPowerChangedTime() const { return m_PowerChangedTime.load(); }
    size_t GetDetectedDevicesCount();
    bool IsParsingReady();

    static std::string GetUsbPortNumberFromDevPath(const std::string &devPath);
    // The same port, found without a log line.
    static std::string PortOfDevPath(const std::string &devPath);
    uint32_t GetUsbDeviceDetectedByDriverTime(int vendorId, int productId);
    uint32_t GetUsbDetectedTimeByDevPath(const std::string &devPath);
    void RemoveDevice(int vendorId, int productId);

    // The vendor/product forms read the "New USB device found" times, which neither parse
    // collects (m_ParseUsbDeviceDetectedByDriverer is not run): to them every device is unknown.
    // The service judges by device path.
    bool NeedWaitDetect(int vendorId, int productId, bool &found);
    bool NeedWaitDetect(const std::string &devPath, bool &found);
    bool NeedChangeSpeaker(int vendorId, int productId);
    // `why`, when given, is told what the judgement compared and which of its rules decided.
    bool NeedChangeSpeaker(const std::string &devPath, SpeakerJudgement *why = nullptr);

protected:
    CDMesgAnalysis();

    // The kernel log as read: NUL-terminated text of `length` bytes, or no data when the read
    // failed or returned nothing.
    struct LogText {
        std::unique_ptr<char[]> data;
        size_t length = 0;
        int rc = 0;
        bool Empty() const { return !data || length == 0; }
    };

    // What the backward searches of one walk over the log learned on earlier occurrences: the
    // answer for `floor` is kept, so a later search stops there instead of rescanning the text.
    struct BackwardMemo {
        explicit BackwardMemo(const char *text) : stampFloor(text), bracketFloor(text) {}
        const char *stampFloor;
        const char *stampOpen = nullptr;
        const char *stampClose = nullptr;
        const char *bracketFloor;
        const char *bracket = nullptr;
    };

    // The steps of the analysis; protected so that they can be exercised one by one. The parsers
    // expect the mutex held (or no other thread using the object).
    LogText m_ReadLog();
    LogText m_PartialReadLog(size_t size, const std::function<bool(const LogText &)> &check);
    bool m_CheckPartialLogValid(const LogText &text);

    void m_ParseUsbCoreInitalTime(const char *text, size_t len);
    void m_ParseUsbDeviceDetectedByDriverer(const char *text, size_t len);
    void m_ParseUsbDeviceDetectedByDevicePort(const char *text, size_t len);
    // True when the text holds a disconnect line.
    bool m_ParseUsbDeviceDisconnected(const char *text, size_t len);

    uint32_t m_ParseLeftNearestTimeStamp(const char *text, size_t len, const char *pos,
                                         BackwardMemo *memo = nullptr);
    std::string m_ParseLeftUsbPort(const char *text, size_t len, const char *pos,
                                   BackwardMemo *memo = nullptr);
    std::string m_ParseRightVendorProductId(const char *text, size_t len, const char *pos);

    void m_KlogParseThreadEntry();
    void m_KlogPartialParseThreadEntry();

private:
    bool m_IsTimingForParse(uint32_t now) const;
    void m_RunOnParseThread(void (CDMesgAnalysis::*entry)());
    bool m_ParseFullLog(const LogText &text);
    void m_LogParseResult();
    int m_ReadInto(char *buf, size_t size);
    void m_ReportReadRefused();
    static LogText m_MakeText(std::unique_ptr<char[]> data, int rc);
    bool m_NeedWaitDetect(uint32_t detected, bool &found) const;
    bool m_NeedChangeSpeaker(uint32_t detected, SpeakerJudgement &why);

    uint32_t m_UsbCoreInitTime = TIME_UNKNOWN;
    // Written by the main loop without the mutex, read by parse and decision code.
    std::atomic<uint32_t> m_PowerChangedTime{TIME_UNKNOWN};
    std::map<std::string, uint32_t> m_DetectedByDriver;
    std::map<std::string, uint32_t> m_DetectedByPort;
    std::mutex m_Mutex;
    bool m_ParsingReady = false;
    // Reads run with m_Mutex held.
    bool m_ReadRefusalReported = false;

    KernelLogReader m_ReadKernelLog;
};
