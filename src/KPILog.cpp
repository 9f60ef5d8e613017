#include "KPILog.h"

#include <json/json.h>

#include "HadrixUtil.h"
#include "LocalFileData.h"
#include "Log.h"

namespace {

constexpr char kKpiFile[] = "/var/log/hadrix/kpi.jsonl";

const char *WarningName(KPI_WARNING warning)
{
    switch (warning) {
    case KPI_WARNING_UNSUPPORTED_DEVICE:
        return "unsupported_device";
    case KPI_WARNING_DEVICE_SETUP_FAILED:
        return "device_setup_failed";
    }
    return "unknown";
}

Json::Value NewEvent(const char *name)
{
    Json::Value event(Json::objectValue);
    event["event"] = name;
    event["uptime_ms"] = CUsbServiceUtil::GetUptime();
    event["time_ms"] = CUsbServiceUtil::GetCurrentTimeStamp();
    return event;
}

// One event per line, so that a reader can take the file apart without a JSON stream parser.
void AppendEvent(const Json::Value &event)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::string line = Json::writeString(builder, event) + "\n";
    CSingleton<CLocalFileData>::GetInstance()->AppendToFile(kKpiFile, line.c_str(), line.size());
}

} // namespace

void CKPILog::SendNewConnectedDevice(const std::string &productName, int vendorId, int productId)
{
    LOGI("new connected device: %s (%04x:%04x)", productName.c_str(), vendorId, productId);
    Json::Value event = NewEvent("new_connected_device");
    event["product_name"] = productName;
    event["vendor_id"] = vendorId;
    event["product_id"] = productId;
    AppendEvent(event);
}

void CKPILog::SendConnectStatus(bool connected, const std::string &firstName, const std::string &secondName)
{
    LOGI("connect status: %s, first: %s, second: %s", connected ? "connected" : "disconnected",
         firstName.c_str(), secondName.c_str());
    Json::Value event = NewEvent("connect_status");
    event["connected"] = connected;
    event["first_name"] = firstName;
    event["second_name"] = secondName;
    AppendEvent(event);
}

void CKPILog::SendWarnings(KPI_WARNING warning, const std::string &productName)
{
    LOGI("warning: %s (%d), product: %s", WarningName(warning), static_cast<int>(warning),
         productName.c_str());
    Json::Value event = NewEvent("warning");
    event["warning"] = WarningName(warning);
    event["warning_code"] = static_cast<int>(warning);
    event["product_name"] = productName;
    AppendEvent(event);
}
