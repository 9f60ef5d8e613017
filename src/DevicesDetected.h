// The list of USB audio devices detected now, shared by the main loop and worker threads. Every
// change (add, remove, status) is saved to the device depot file 500 ms after the last change of
// a burst.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <glib.h>

#include "Singleton.h"
#include "Timer.h"
#include "USBDeviceInfo.h"

class DevicesDetected : public CSingleton<DevicesDetected> {
    friend class CSingleton<DevicesDetected>;

public:
    ~DevicesDetected() override;

    // A record whose path is already listed is replaced and moves to the end.
    void AddDevice(const USBDeviceInfo &info);
    void RemoveDevice(const std::string &devPath);
    void SetDeviceStatus(const std::string &devPath, device_status status);
    // DEVICE_STATUS_IDLE for an unknown path.
    device_status GetDeviceStatus(const std::string &devPath);
    bool FindDevice(const std::string &devPath);
    // The number of records carrying the output (status DEVICE_STATUS_USING).
    int GetUsingCnt();
    int GetSize();
    // Oldest first by time stamp; not stable. Not saved.
    void SortDevices();
    // func gets a copy of each record in list order, under the list's lock: it must not call
    // back into the list.
    void ForeachDevice(const std::function<void(const USBDeviceInfo &)> &func);
    // A copy of the records in list order, for callers that work on the list without the lock.
    std::vector<USBDeviceInfo> GetDevices();
    // Not saved.
    void Clear();
    void Print();

private:
    DevicesDetected() = default;

    // Callers hold m_Mutex.
    std::vector<USBDeviceInfo>::iterator m_Find(const std::string &devPath);
    void m_Serialize();

    static gboolean m_OnSerializeTimer(gpointer user);
    std::string m_ToJson() const;

    std::vector<USBDeviceInfo> m_Devices;
    CTimer m_SerializeTimerId; // the pending save
    std::mutex m_Mutex;        // guards m_Devices and the arming of the save; not recursive
};
