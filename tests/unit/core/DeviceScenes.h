// What the device-manager suites read back from the service's peers and files, and the scenes
// they set up beyond the harness: the devices of the last run, devices with parts missing.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "DecisionLog.h"
#include "ServiceHarness.h"
#include "USBDevice.h"
#include "nimbos/fake.h"

namespace hadrix::test {

using Texts = std::vector<std::string>;
using Cards = std::vector<int>;

constexpr int kUsbHeadsetRoute = 15;
constexpr int kTvSpeakerRoute = 0;
constexpr int kDefaultRoute = 7;
constexpr char kUsbAudioMode[] = "/home/owner/apps_rw/hadrix/data/USB_AUDIO_mode";
constexpr char kDepot[] = "/home/owner/apps_rw/hadrix/data/devices.depot";
constexpr char kMuteKey[] = "db/hadrix/volume_mute_status";

// A gamepad whose headset jack is a USB sound card, known to the service by its ids.
inline const TestDevice kKnownPad{"Wireless Controller", "Sony Interactive Entertainment", 0x054c, 0x09cc, "1-7", 7};

inline size_t CallCount(const std::string &function)
{
    return nimbos::fake::CallsTo(function).size();
}

// The KPI events so far, one text each: "new <product>", "connected <first>[ + <second>]",
// "disconnected …", "unsupported <product>", "setup failed <product>".
inline Texts KpiEvents(const ServiceHarness &tv)
{
    Texts events;
    std::istringstream lines(tv.root.ReadFile("/var/log/hadrix/kpi.jsonl"));
    for (std::string line; std::getline(lines, line);) {
        Json::Value event;
        std::istringstream in(line);
        Json::CharReaderBuilder reader;
        if (!Json::parseFromStream(reader, in, &event, nullptr)) {
            events.push_back("unreadable: " + line);
            continue;
        }
        const std::string kind = event["event"].asString();
        if (kind == "new_connected_device") {
            events.push_back("new " + event["product_name"].asString());
        } else if (kind == "connect_status") {
            const std::string second = event["second_name"].asString();
            events.push_back((event["connected"].asBool() ? "connected " : "disconnected ") +
                             event["first_name"].asString() + (second.empty() ? "" : " + " + second));
        } else {
            events.push_back((event["warning_code"].asInt() == 1 ? "unsupported " : "setup failed ") +
                             event["product_name"].asString());
        }
    }
    return events;
}

// The popups posted, once there are `count` of them (a worker thread posts each), as
// "<kind> <title>": kinds "not supported", "connected", "noise", "may not work".
inline Texts Popups(size_t count)
{
    nimbos::fake::RunUntil([count] { return nimbos::fake::Posted().size() >= count; });
    Texts popups;
    for (const nimbos::fake::Notification &popup : nimbos::fake::Posted()) {
        const std::string &text = popup.content;
        const char *kind = text.find("NOT_SUPPORTED") != std::string::npos    ? "not supported"
                           : text.find("NOISE") != std::string::npos          ? "noise"
                           : text.find("NORMALLY") != std::string::npos       ? "may not work"
                                                                              : "connected";
        popups.push_back(std::string(kind) + " " + popup.title);
    }
    return popups;
}

// The cards of the attached devices that carry the output, in the manager's order.
inline Cards CardsInUse(ServiceHarness &tv)
{
    Cards cards;
    for (const USBDeviceInfo &device : tv.DeviceManager()->GetDevices())
        if (device.eStatus == DEVICE_STATUS_USING)
            cards.push_back(device.nCardNum);
    return cards;
}

// The viewer plugs the devices in, a second apart.
inline void PlugOneAfterAnother(ServiceHarness &tv, const std::vector<TestDevice> &devices)
{
    for (const TestDevice &device : devices) {
        tv.clock.Advance(1000);
        tv.Plug(device);
    }
}

// The depot as the last run left it, holding these devices.
inline void RememberDevices(ServiceHarness &tv, const std::vector<TestDevice> &devices)
{
    Json::Value depot(Json::arrayValue);
    for (const TestDevice &device : devices) {
        Json::Value entry;
        entry["product_name"] = device.product;
        entry["vendor_id"] = device.vendorId;
        entry["product_id"] = device.productId;
        entry["dev_path"] = device.DevPath();
        entry["manufature"] = device.manufacturer;
        entry["card_num"] = device.card;
        entry["status"] = DEVICE_STATUS_USING;
        entry["time_stamp"] = "5000";
        depot.append(entry);
    }
    tv.root.WriteFile(kDepot, Json::writeString(Json::StreamWriterBuilder(), depot));
}

// The decisions about the device (by its port) as `hadrixctl why` and `history` show them, each
// "<event> <outcome> <rule>", with " (<cause>)" when another device's event decided: the latest
// one (its verdict, "" for none), or every one the history keeps, oldest first.
inline std::string Words(const Decision &decision)
{
    return decision.event + " " + decision.outcome + " " + decision.rule +
           (decision.cause.empty() ? "" : " (" + decision.cause + ")");
}

inline std::string Decided(const TestDevice &device)
{
    for (const Verdict &verdict : CSingleton<CDecisionLog>::GetInstance()->Verdicts())
        if (verdict.decision.device.port == device.port)
            return Words(verdict.decision);
    return "";
}

inline Texts History(const TestDevice &device)
{
    Texts decisions;
    for (const Decision &decision : CSingleton<CDecisionLog>::GetInstance()->History())
        if (decision.device.port == device.port)
            decisions.push_back(Words(decision));
    return decisions;
}

inline double NowSeconds(ServiceHarness &tv)
{
    return static_cast<double>(tv.clock.NowMs()) / 1000.0;
}

} // namespace hadrix::test
