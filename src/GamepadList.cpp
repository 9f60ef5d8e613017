#include "GamepadList.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "Log.h"

namespace {

constexpr size_t kIdDigits = 4;

// The four hexadecimal digits after marker ("VID_", "PID_") in uid; false when the marker is
// missing or fewer than four digits follow it.
bool ReadId(const std::string &uid, const char *marker, std::string &text, int &id)
{
    const size_t at = uid.find(marker);
    if (at == std::string::npos)
        return false;
    text = uid.substr(at + std::char_traits<char>::length(marker), kIdDigits);
    if (text.size() < kIdDigits ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; }))
        return false;
    id = static_cast<int>(std::strtol(text.c_str(), nullptr, 16));
    return true;
}

// Sony's controllers of two console generations have a headset jack that the TV sees as a USB
// sound card. The names are for the log; a device matches by its ids.
std::vector<GamepadRecord> KnownGamepads()
{
    return {
        {"DUALSHOCK 4 Wireless Controller", 0x054c, 0x05c4},
        {"DUALSHOCK 4 Wireless Controller (second model)", 0x054c, 0x09cc},
        {"DUALSHOCK 4 USB Wireless Adaptor", 0x054c, 0x0ba0},
        {"DualSense Wireless Controller", 0x054c, 0x0ce6},
        {"DualSense Edge Wireless Controller", 0x054c, 0x0df2},
    };
}

} // namespace

const CGamepadList &CGamepadList::Known()
{
    static const CGamepadList known(KnownGamepads());
    return known;
}

CGamepadList::Change CGamepadList::Update(int event, const _gamepad_device_info_s &info)
{
    const std::string uid(info.uid, strnlen(info.uid, sizeof info.uid));
    std::string pidText, vidText;
    int productId = 0, vendorId = 0;
    if (!ReadId(uid, "PID_", pidText, productId)) {
        LOGW("can not find PID");
        return Change::NoProductId;
    }
    if (!ReadId(uid, "VID_", vidText, vendorId)) {
        LOGW("can not find VID");
        return Change::NoVendorId;
    }
    LOGI("vid :%s, %d, pid :%s, %d", vidText.c_str(), vendorId, pidText.c_str(), productId);

    std::lock_guard<std::mutex> lock(m_Mutex);
    auto same = std::find_if(m_Records.begin(), m_Records.end(), [&](const GamepadRecord &record) {
        return record.nVendorId == vendorId && record.nProductId == productId;
    });
    if (event == GAMEPAD_EVENT_CONNECTED) {
        if (same != m_Records.end())
            return Change::AlreadyListed;
        m_Records.push_back({std::string(info.name, strnlen(info.name, sizeof info.name)), vendorId, productId});
        return Change::Added;
    }
    if (same == m_Records.end())
        return Change::NotListed;
    m_Records.erase(same);
    return Change::Removed;
}

bool CGamepadList::HasIds(int vendorId, int productId) const
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return std::any_of(m_Records.begin(), m_Records.end(), [&](const GamepadRecord &record) {
        return record.nVendorId == vendorId && record.nProductId == productId;
    });
}

bool CGamepadList::HasName(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return std::any_of(m_Records.begin(), m_Records.end(),
                       [&](const GamepadRecord &record) { return record.name == name; });
}

std::vector<GamepadRecord> CGamepadList::Records() const
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Records;
}
