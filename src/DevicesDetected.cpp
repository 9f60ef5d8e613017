#include "DevicesDetected.h"

#include <algorithm>
#include <string>

#include <json/json.h>

#include "DevicesDepot.h"
#include "LocalFileData.h"
#include "Log.h"

namespace {

constexpr guint kSerializeDelayMs = 500;

Json::Value ToJson(const USBDeviceInfo &info)
{
    Json::Value entry(Json::objectValue);
    entry[DEPOT_KEY_PRODUCT_NAME] = info.strProductName;
    entry[DEPOT_KEY_VENDOR_ID] = info.nVendorId;
    entry[DEPOT_KEY_PRODUCT_ID] = info.nProductId;
    entry[DEPOT_KEY_DEV_PATH] = info.strDevPath;
    entry[DEPOT_KEY_MANUFATURE] = info.strManufature;
    entry[DEPOT_KEY_CARD_NUM] = info.nCardNum;
    entry[DEPOT_KEY_STATUS] = static_cast<int>(info.eStatus);
    // A string keeps the unsigned 32-bit value whatever a reader does with large integers.
    entry[DEPOT_KEY_TIME_STAMP] = std::to_string(info.timeStamp);
    return entry;
}

} // namespace

DevicesDetected::~DevicesDetected()
{
    // The pending save would run on a destroyed list; a released list is not saved.
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_SerializeTimerId.Stop();
}

void DevicesDetected::AddDevice(const USBDeviceInfo &info)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    LOGI("add device vendor  %d, product  %d,  path %s", info.nVendorId, info.nProductId,
         info.strDevPath.c_str());
    auto it = m_Find(info.strDevPath);
    if (it != m_Devices.end())
        m_Devices.erase(it);
    m_Devices.push_back(info);
    m_Serialize();
}

void DevicesDetected::RemoveDevice(const std::string &devPath)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    LOGI("remove Dev path: %s", devPath.c_str());
    auto it = m_Find(devPath);
    if (it == m_Devices.end())
        return;
    m_Devices.erase(it);
    m_Serialize();
}

void DevicesDetected::SetDeviceStatus(const std::string &devPath, device_status status)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    LOGI("set Dev status path: %s  status %d", devPath.c_str(), static_cast<int>(status));
    auto it = m_Find(devPath);
    if (it == m_Devices.end())
        return;
    it->eStatus = status;
    m_Serialize();
}

device_status DevicesDetected::GetDeviceStatus(const std::string &devPath)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Find(devPath);
    return it == m_Devices.end() ? DEVICE_STATUS_IDLE : it->eStatus;
}

bool DevicesDetected::FindDevice(const std::string &devPath)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Find(devPath) != m_Devices.end();
}

int DevicesDetected::GetUsingCnt()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return static_cast<int>(std::count_if(m_Devices.begin(), m_Devices.end(), [](const USBDeviceInfo &info) {
        return info.eStatus == DEVICE_STATUS_USING;
    }));
}

int DevicesDetected::GetSize()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return static_cast<int>(m_Devices.size());
}

void DevicesDetected::SortDevices()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    std::sort(m_Devices.begin(), m_Devices.end(), [](const USBDeviceInfo &a, const USBDeviceInfo &b) {
        return a.timeStamp < b.timeStamp;
    });
}

void DevicesDetected::ForeachDevice(const std::function<void(const USBDeviceInfo &)> &func)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    for (const USBDeviceInfo &info : m_Devices) {
        USBDeviceInfo copy = info;
        func(copy);
    }
}

std::vector<USBDeviceInfo> DevicesDetected::GetDevices()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Devices;
}

void DevicesDetected::Clear()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Devices.clear();
}

void DevicesDetected::Print()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    int index = 0;
    for (const USBDeviceInfo &info : m_Devices)
        PrintDeviceRecord(index++, info);
}

std::vector<USBDeviceInfo>::iterator DevicesDetected::m_Find(const std::string &devPath)
{
    return std::find_if(m_Devices.begin(), m_Devices.end(),
                         [&devPath](const USBDeviceInfo &info) { return info.strDevPath == devPath; });
}

void DevicesDetected::m_Serialize()
{
    m_SerializeTimerId.Start(kSerializeDelayMs, m_OnSerializeTimer, this);
}

gboolean DevicesDetected::m_OnSerializeTimer(gpointer user)
{
    LOGD("[START] ");
    auto *self = static_cast<DevicesDetected *>(user);
    if (!self) {
        LOGE("fail to get this Point...");
        return G_SOURCE_REMOVE;
    }

    std::lock_guard<std::mutex> lock(self->m_Mutex);
    // A change on another thread may have armed the timer again while this callback waited for
    // the lock; the new timeout saves the newer list.
    if (!self->m_SerializeTimerId.IsFiring())
        return G_SOURCE_REMOVE;

    std::string text = self->m_ToJson();
    CLocalFileData::GetInstance()->WriteToFile(DEVICES_DEPOT_FILE, text.c_str(), text.size());
    return G_SOURCE_REMOVE;
}

std::string DevicesDetected::m_ToJson() const
{
    Json::Value devices(Json::arrayValue);
    for (const USBDeviceInfo &info : m_Devices)
        devices.append(ToJson(info));
    Json::StreamWriterBuilder builder;
    return Json::writeString(builder, devices);
}
