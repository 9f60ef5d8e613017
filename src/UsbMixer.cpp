#include "UsbMixer.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Log.h"
#include "UniqueHandle.h"

namespace {

constexpr int kMaxCards = 32; // ALSA card indexes are 0 to 31
constexpr long kRewritePercent = 95;

using HctlPtr = UniqueHandle<snd_hctl_t, snd_hctl_close>;
using CtlPtr = UniqueHandle<snd_ctl_t, snd_ctl_close>;
using ElemIdPtr = UniqueHandle<snd_ctl_elem_id_t, snd_ctl_elem_id_free>;
using ElemInfoPtr = UniqueHandle<snd_ctl_elem_info_t, snd_ctl_elem_info_free>;
using ElemValuePtr = UniqueHandle<snd_ctl_elem_value_t, snd_ctl_elem_value_free>;
using AlsaString = UniqueHandle<char, free>;

// The id, info and value of one control element, zeroed on allocation.
struct ElemObjects {
    ElemIdPtr id;
    ElemInfoPtr info;
    ElemValuePtr value;

    bool Allocate()
    {
        snd_ctl_elem_id_t *rawId = nullptr;
        snd_ctl_elem_info_t *rawInfo = nullptr;
        snd_ctl_elem_value_t *rawValue = nullptr;
        snd_ctl_elem_id_malloc(&rawId);
        id.reset(rawId);
        snd_ctl_elem_info_malloc(&rawInfo);
        info.reset(rawInfo);
        snd_ctl_elem_value_malloc(&rawValue);
        value.reset(rawValue);
        if (id && info && value)
            return true;
        LOGE("Cannot allocate control element objects");
        return false;
    }
};

std::string HwName(int card)
{
    char name[64];
    snprintf(name, sizeof name, "hw:%i", card);
    return name;
}

// The ALSA index of a card number, or -1. Negative numbers never reach ALSA: a text that is not
// a number makes it open every card in search of one with that id.
int ResolveCardIndex(int card)
{
    if (card >= 0 && card < kMaxCards) {
        int index = snd_card_get_index(std::to_string(card).c_str());
        if (index >= 0 && index < kMaxCards)
            return index;
    }
    LOGE("Invalid card number");
    return -1;
}

void LogCardName(int index)
{
    char *rawName = nullptr;
    int err = snd_card_get_name(index, &rawName);
    AlsaString name(rawName);
    if (err >= 0 && name)
        LOGI("card name: %s", name.get());
}

HctlPtr OpenLoadedHctl(const std::string &hwName)
{
    snd_hctl_t *raw = nullptr;
    int err = snd_hctl_open(&raw, hwName.c_str(), 0);
    if (err < 0) {
        LOGE("Control %s open error: %s", hwName.c_str(), snd_strerror(err));
        return nullptr;
    }
    HctlPtr hctl(raw);
    err = snd_hctl_load(hctl.get());
    if (err < 0) {
        LOGE("Control %s local error: %s\n", hwName.c_str(), snd_strerror(err));
        return nullptr;
    }
    return hctl;
}

// Looks the element up by its ASCII identifier and reads its value into obj, allocated here.
// Returns the open control handle, or null after logging why not.
CtlPtr OpenAndReadControl(const std::string &device, const std::string &controlId, ElemObjects &obj)
{
    if (!obj.Allocate())
        return nullptr;
    int err = snd_ctl_ascii_elem_id_parse(obj.id.get(), controlId.c_str());
    // ALSA asserts on a lookup without numid and name, so such an identifier stops here.
    if (err < 0 ||
        (snd_ctl_elem_id_get_numid(obj.id.get()) == 0 && *snd_ctl_elem_id_get_name(obj.id.get()) == '\0')) {
        LOGE("Wrong control identifier: %s", controlId.c_str());
        return nullptr;
    }
    snd_ctl_t *raw = nullptr;
    err = snd_ctl_open(&raw, device.c_str(), 0);
    if (err < 0) {
        LOGE("Control %s open error: %s", device.c_str(), snd_strerror(err));
        return nullptr;
    }
    CtlPtr ctl(raw);
    snd_ctl_elem_info_set_id(obj.info.get(), obj.id.get());
    if (snd_ctl_elem_info(ctl.get(), obj.info.get()) < 0) {
        LOGE("Cannot find the given element from control %s", device.c_str());
        return nullptr;
    }
    snd_ctl_elem_info_get_id(obj.info.get(), obj.id.get());
    snd_ctl_elem_value_set_id(obj.value.get(), obj.id.get());
    if (snd_ctl_elem_read(ctl.get(), obj.value.get()) < 0) {
        LOGE("Cannot read the given element from control %s", device.c_str());
        return nullptr;
    }
    return ctl;
}

bool WriteControlText(const std::string &device, const std::string &controlId, const std::string &valueText)
{
    ElemObjects obj;
    CtlPtr ctl = OpenAndReadControl(device, controlId, obj);
    if (!ctl)
        return false;
    int err = snd_ctl_ascii_value_parse(ctl.get(), obj.value.get(), obj.info.get(), valueText.c_str());
    if (err < 0) {
        LOGE("Control %s parse error: %s", device.c_str(), snd_strerror(err));
        return false;
    }
    err = snd_ctl_elem_write(ctl.get(), obj.value.get());
    if (err < 0) {
        LOGE("Control %s element write error: %s", device.c_str(), snd_strerror(err));
        return false;
    }
    return true;
}

std::string EnumItemName(snd_ctl_t *ctl, const snd_ctl_elem_info_t *info, unsigned int item)
{
    snd_ctl_elem_info_t *raw = nullptr;
    snd_ctl_elem_info_malloc(&raw);
    ElemInfoPtr itemInfo(raw);
    if (!itemInfo)
        return std::to_string(item);
    snd_ctl_elem_info_copy(itemInfo.get(), info);
    snd_ctl_elem_info_set_item(itemInfo.get(), item);
    if (snd_ctl_elem_info(ctl, itemInfo.get()) < 0)
        return std::to_string(item);
    return snd_ctl_elem_info_get_item_name(itemInfo.get());
}

// One channel's value in the syntax snd_ctl_ascii_value_parse accepts back.
bool FormatChannel(snd_ctl_t *ctl, const snd_ctl_elem_info_t *info, const snd_ctl_elem_value_t *value,
                   unsigned int channel, std::string &text)
{
    char buf[32];
    switch (snd_ctl_elem_info_get_type(info)) {
    case SND_CTL_ELEM_TYPE_BOOLEAN:
        text = snd_ctl_elem_value_get_boolean(value, channel) ? "on" : "off";
        return true;
    case SND_CTL_ELEM_TYPE_INTEGER:
        text = std::to_string(snd_ctl_elem_value_get_integer(value, channel));
        return true;
    case SND_CTL_ELEM_TYPE_INTEGER64:
        text = std::to_string(snd_ctl_elem_value_get_integer64(value, channel));
        return true;
    case SND_CTL_ELEM_TYPE_ENUMERATED:
        text = EnumItemName(ctl, info, snd_ctl_elem_value_get_enumerated(value, channel));
        return true;
    case SND_CTL_ELEM_TYPE_BYTES:
        snprintf(buf, sizeof buf, "0x%02x", snd_ctl_elem_value_get_byte(value, channel));
        text = buf;
        return true;
    default:
        return false;
    }
}

// Floor of max * 95 / 100, without overflowing for any positive max.
long RewriteThreshold(long max)
{
    return max / 100 * kRewritePercent + max % 100 * kRewritePercent / 100;
}

// Reads the element and returns the smallest channel value through smallest, never above max.
bool ReadSmallestChannel(const std::string &hwName, snd_hctl_elem_t *elem, ElemObjects &obj,
                         long max, long &smallest)
{
    int err = snd_hctl_elem_read(elem, obj.value.get());
    if (err < 0) {
        LOGE("Control %s element read error: %s", hwName.c_str(), snd_strerror(err));
        return false;
    }
    smallest = max;
    const unsigned int count = snd_ctl_elem_info_get_count(obj.info.get());
    for (unsigned int i = 0; i < count; ++i) {
        long channelValue = snd_ctl_elem_value_get_integer(obj.value.get(), i);
        LOGD("idx : [%u], value :[%ld]", i, channelValue);
        smallest = std::min(smallest, channelValue);
    }
    return true;
}

// Whether the element (its info already in obj) is an active integer playback volume of the
// mixer with a usable range. Fills name and the range.
bool IsMaximisableVolume(snd_hctl_elem_t *elem, ElemObjects &obj, std::string &name, long &max)
{
    const snd_ctl_elem_info_t *info = obj.info.get();
    if (snd_ctl_elem_info_is_inactive(info))
        return false;

    snd_hctl_elem_get_id(elem, obj.id.get());
    AlsaString idText(snd_ctl_ascii_elem_id_get(obj.id.get()));
    if (!idText) {
        LOGW("snd_ctl_ascii_elem_id_get return null");
        return false;
    }
    LOGD("id : %s", idText.get());

    const char *elemName = snd_hctl_elem_get_name(elem);
    if (!elemName) {
        LOGW("snd_hctl_elem_get_name return null");
        return false;
    }
    if (!CUsbMixer::IsPlaybackControl(elemName)) {
        LOGD("This is not Playback Volume");
        return false;
    }
    name = elemName;

    const snd_ctl_elem_id_t *id = obj.id.get();
    LOGD("numid : %u, ifacet : %d, index : %u, device : %u, subdevice : %u,", snd_ctl_elem_id_get_numid(id),
         snd_ctl_elem_id_get_interface(id), snd_ctl_elem_id_get_index(id), snd_ctl_elem_id_get_device(id),
         snd_ctl_elem_id_get_subdevice(id));
    if (snd_ctl_elem_id_get_interface(id) != SND_CTL_ELEM_IFACE_MIXER) {
        LOGD("not mixer interface");
        return false;
    }
    const snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
    if (type != SND_CTL_ELEM_TYPE_INTEGER) {
        LOGD("value type : %d is not integer.", type);
        return false;
    }

    const long min = snd_ctl_elem_info_get_min(info);
    max = snd_ctl_elem_info_get_max(info);
    LOGD("count: [%u] min : [%ld]  max: [%ld]  step [%ld]", snd_ctl_elem_info_get_count(info), min, max,
         snd_ctl_elem_info_get_step(info));
    if (!(max > min && max > 0)) {
        LOGW("err min/max value");
        return false;
    }
    return true;
}

// Brings one element to its maximum. Returns false when a write to it failed; an element that
// is skipped counts as done.
bool MaximiseElement(const std::string &hwName, snd_hctl_elem_t *elem, ElemObjects &obj)
{
    std::string name;
    long max = 0;
    if (!IsMaximisableVolume(elem, obj, name, max))
        return true;

    if (!snd_ctl_elem_info_is_readable(obj.info.get())) {
        LOGW("info is none readable");
        return true;
    }
    long smallest = max;
    if (!ReadSmallestChannel(hwName, elem, obj, max, smallest))
        return true;
    if (!snd_ctl_elem_info_is_writable(obj.info.get())) {
        LOGW("info is none writable");
        return true;
    }

    bool written = true;
    const unsigned int numid = snd_ctl_elem_id_get_numid(obj.id.get());
    if (smallest < max)
        written = CUsbMixer::ControlsSet(hwName, "numid=" + std::to_string(numid), max);
    else
        LOGD("current value == max, need not set again");

    // Some devices do not take a write by numid; what the card holds now decides.
    if (!ReadSmallestChannel(hwName, elem, obj, max, smallest))
        return written;
    if (smallest < RewriteThreshold(max) && !CUsbMixer::ControlsSet(hwName, "name='" + name + "'", max))
        written = false;
    return written;
}

} // namespace

int CUsbMixer::SetMaxVolume(int card)
{
    const int index = ResolveCardIndex(card);
    if (index < 0)
        return MAX_VOLUME_CARD_UNUSABLE;
    const std::string hwName = HwName(index);
    LogCardName(index);

    ElemObjects obj;
    if (!obj.Allocate())
        return MAX_VOLUME_CARD_UNUSABLE;
    HctlPtr hctl = OpenLoadedHctl(hwName);
    if (!hctl)
        return MAX_VOLUME_CARD_UNUSABLE;

    bool writeFailed = false;
    for (snd_hctl_elem_t *elem = snd_hctl_first_elem(hctl.get()); elem; elem = snd_hctl_elem_next(elem)) {
        int err = snd_hctl_elem_info(elem, obj.info.get());
        if (err < 0) {
            LOGE("Control %s snd_hctl_elem_info error: %s\n", hwName.c_str(), snd_strerror(err));
            return MAX_VOLUME_CARD_UNUSABLE;
        }
        if (!MaximiseElement(hwName, elem, obj))
            writeFailed = true;
    }
    return writeFailed ? MAX_VOLUME_WRITE_FAILED : MAX_VOLUME_DONE;
}

bool CUsbMixer::ControlsSet(const std::string &card, const std::string &controlId, long value)
{
    LOGI("m_ControlsSet, card : [%s], cId: [%s], value: [%li]", card.c_str(), controlId.c_str(), value);
    return WriteControlText(card, controlId, std::to_string(value));
}

bool CUsbMixer::IsPlaybackControl(const std::string &name)
{
    auto contains = [&name](const char *word) { return name.find(word) != std::string::npos; };
    if (contains("Playback Volum"))
        return true;
    if (!contains("Volume"))
        return false;
    for (const char *word : {"Capture", "Bypass", "Mic", "Switch", "Map"}) {
        if (contains(word))
            return false;
    }
    return contains("PCM");
}

bool CUsbMixer::IsTwinPortInsert(const std::string &path, const std::vector<USBDeviceInfo> &devices)
{
    if (devices.empty())
        return false;
    const std::string::size_type usb = path.find("usb");
    constexpr std::string::size_type kPortLength = 4; // "usb" and the bus digit
    if (usb == std::string::npos || path.size() < usb + kPortLength)
        return false;
    const std::string port = path.substr(0, usb + kPortLength);
    LOGD("usb path : %s", port.c_str());
    return std::any_of(devices.begin(), devices.end(), [&](const USBDeviceInfo &device) {
        return device.strDevPath != path && device.strDevPath.find(port) != std::string::npos;
    });
}

void CUsbMixer::RestVolume(const std::vector<USBDeviceInfo> &devices)
{
    LOGI("[START]");
    for (const USBDeviceInfo &device : devices)
        SetMaxVolume(device.nCardNum);
}

bool CUsbMixer::ControlGet(int card, const std::string &controlId, std::string &valueText)
{
    const int index = ResolveCardIndex(card);
    if (index < 0)
        return false;
    const std::string device = HwName(index);
    ElemObjects obj;
    CtlPtr ctl = OpenAndReadControl(device, controlId, obj);
    if (!ctl)
        return false;

    std::string text;
    const unsigned int count = snd_ctl_elem_info_get_count(obj.info.get());
    for (unsigned int i = 0; i < count; ++i) {
        std::string channel;
        if (!FormatChannel(ctl.get(), obj.info.get(), obj.value.get(), i, channel)) {
            LOGE("Control %s: values of type %s cannot be shown", device.c_str(),
                 snd_ctl_elem_type_name(snd_ctl_elem_info_get_type(obj.info.get())));
            return false;
        }
        text += (i ? "," : "") + channel;
    }
    valueText = text;
    LOGI("card : [%s], cId: [%s], values: [%s]", device.c_str(), controlId.c_str(), valueText.c_str());
    return true;
}

bool CUsbMixer::ControlWrite(int card, const std::string &controlId, const std::string &valueText)
{
    const int index = ResolveCardIndex(card);
    if (index < 0)
        return false;
    const std::string device = HwName(index);
    LOGI("card : [%s], cId: [%s], value: [%s]", device.c_str(), controlId.c_str(), valueText.c_str());
    return WriteControlText(device, controlId, valueText);
}
