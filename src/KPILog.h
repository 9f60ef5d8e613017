// Key-performance events for the platform's event log: a new device connected, a change of
// connection status, warnings. Each event is logged and appended as one JSON line to
// "/var/log/hadrix/kpi.jsonl"; a failed append is logged and ignored.
#pragma once

#include <string>

#include "Singleton.h"

enum KPI_WARNING {
    KPI_WARNING_UNSUPPORTED_DEVICE = 1, // a device the service does not use (Astro, gamepad, unsupported)
    KPI_WARNING_DEVICE_SETUP_FAILED = 2, // the device's mixer could not be set to maximum
};

class CKPILog : public CSingleton<CKPILog> {
    friend class CSingleton<CKPILog>;

public:
    ~CKPILog() override = default;

    void SendNewConnectedDevice(const std::string &productName, int vendorId, int productId);
    // One event naming the device(s) whose output was switched on (connected) or off.
    void SendConnectStatus(bool connected, const std::string &firstName, const std::string &secondName);
    void SendWarnings(KPI_WARNING warning, const std::string &productName);

private:
    CKPILog() = default;
};
