#include "DevicesDepot.h"

#include <cstdint>
#include <limits>

#include <json/json.h>

#include "JsonVariant.h"
#include "LocalFileData.h"
#include "Log.h"
#include "nimbos/paths.h"

namespace {

// A real depot holds a handful of entries of a few hundred bytes; anything this large is not one
// the service wrote, and parsing it would only cost memory and time.
constexpr size_t kMaxDepotBytes = 1024 * 1024;

// Unsigned decimal digits only, within 32 bits.
bool ParseTimeStamp(const std::string &text, uint32_t &value)
{
    if (text.empty())
        return false;
    uint64_t result = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        result = result * 10 + static_cast<uint64_t>(c - '0');
        if (result > std::numeric_limits<uint32_t>::max())
            return false;
    }
    value = static_cast<uint32_t>(result);
    return true;
}

void ReadStringField(const Json::Value &entry, Json::ArrayIndex index, const char *key, std::string &field)
{
    const Json::Value &value = entry[key];
    if (value.isNull())
        return;
    if (!value.isString()) {
        LOGW("depot entry %u: \"%s\" is not a string, skipped", index, key);
        return;
    }
    field = value.asString();
}

void ReadIntField(const Json::Value &entry, Json::ArrayIndex index, const char *key, int32_t &field)
{
    const Json::Value &value = entry[key];
    if (value.isNull())
        return;
    // isInt() alone also accepts integral floating-point numbers.
    bool isInteger = value.type() == Json::intValue || value.type() == Json::uintValue;
    if (!isInteger || !value.isInt()) {
        LOGW("depot entry %u: \"%s\" is not a 32-bit integer, skipped", index, key);
        return;
    }
    field = value.asInt();
}

void ReadTimeStampField(const Json::Value &entry, Json::ArrayIndex index, uint32_t &field)
{
    const Json::Value &value = entry[DEPOT_KEY_TIME_STAMP];
    if (value.isNull())
        return;
    if (!value.isString()) {
        LOGW("depot entry %u: \"%s\" is not a string, skipped", index, DEPOT_KEY_TIME_STAMP);
        return;
    }
    if (!ParseTimeStamp(value.asString(), field))
        LOGW("depot entry %u: \"%s\" is not an unsigned 32-bit number: %s, skipped", index,
             DEPOT_KEY_TIME_STAMP, value.asCString());
}

USBDeviceInfo ReadEntry(const Json::Value &entry, Json::ArrayIndex index)
{
    USBDeviceInfo info;
    int32_t status = info.eStatus;
    ReadStringField(entry, index, DEPOT_KEY_PRODUCT_NAME, info.strProductName);
    ReadIntField(entry, index, DEPOT_KEY_VENDOR_ID, info.nVendorId);
    ReadIntField(entry, index, DEPOT_KEY_PRODUCT_ID, info.nProductId);
    ReadStringField(entry, index, DEPOT_KEY_DEV_PATH, info.strDevPath);
    ReadStringField(entry, index, DEPOT_KEY_MANUFATURE, info.strManufature);
    ReadIntField(entry, index, DEPOT_KEY_CARD_NUM, info.nCardNum);
    ReadIntField(entry, index, DEPOT_KEY_STATUS, status);
    info.eStatus = static_cast<device_status>(status);
    ReadTimeStampField(entry, index, info.timeStamp);
    return info;
}

} // namespace

void PrintDeviceRecord(int index, const USBDeviceInfo &info)
{
    LOGD("-----USB Devices Depot  No.%d", index);
    LOGD("-----strProductName:%s", info.strProductName.c_str());
    LOGD("-----nVendorId:%d", info.nVendorId);
    LOGD("-----nProductId:%d", info.nProductId);
    LOGD("-----strDevPath:%s", info.strDevPath.c_str());
    LOGD("-----strManufature:%s", info.strManufature.c_str());
    LOGD("-----nCardNum:%d", info.nCardNum);
    LOGD("-----eStatus:%d", static_cast<int>(info.eStatus));
    LOGD("-----timeStamp:%lu", static_cast<unsigned long>(info.timeStamp));
}

DevicesDepot::DevicesDepot()
{
    m_Deserialize();
}

void DevicesDepot::m_Deserialize()
{
    std::string path = nimbos::Path(DEVICES_DEPOT_FILE);
    CLocalFileData::RemoveUnfinishedReplacements(path);
    std::string text;
    std::string fault;
    switch (CLocalFileData::ReadResolvedFile(path, kMaxDepotBytes, true, text, fault)) {
    case CLocalFileData::ReadOutcome::Missing:
    case CLocalFileData::ReadOutcome::Refused:
        LOGE("fail to open the fail.");
        return;
    case CLocalFileData::ReadOutcome::TooLarge:
        LOGE("device depot %s is larger than %zu bytes, ignored", path.c_str(), kMaxDepotBytes);
        return;
    case CLocalFileData::ReadOutcome::Ok:
        break;
    }
    m_Devices = Deserialize(text);
}

std::vector<USBDeviceInfo> DevicesDepot::Deserialize(const std::string &text)
{
    std::vector<USBDeviceInfo> devices;
    Json::Value root;
    std::string errors;
    if (!ParseJson(text, root, errors)) {
        LOGE("prase device depot fail.");
        LOGD("%s", errors.c_str());
        return devices;
    }
    if (!root.isArray()) {
        LOGE("device depot is not an array, ignored");
        return devices;
    }

    for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
        if (!root[i].isObject()) {
            LOGW("depot entry %u is not an object, skipped", i);
            continue;
        }
        devices.push_back(ReadEntry(root[i], i));
    }
    LOGD("read %zu devices from the depot", devices.size());
    return devices;
}

bool DevicesDepot::FindDevice(int vendorId, int productId)
{
    for (const USBDeviceInfo &info : m_Devices)
        if (info.nVendorId == vendorId && info.nProductId == productId)
            return true;
    return false;
}

void DevicesDepot::ForeachDevice(const std::function<void(const USBDeviceInfo &)> &func)
{
    for (const USBDeviceInfo &info : m_Devices)
        func(info);
}

void DevicesDepot::Print()
{
    int index = 0;
    for (const USBDeviceInfo &info : m_Devices)
        PrintDeviceRecord(index++, info);
}
