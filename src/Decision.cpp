#include "Decision.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <set>

#include <glib.h>

namespace {

using decision::kMaxIdBytes;
using decision::kMaxNameBytes;
using decision::kMaxPathBytes;
using decision::kMaxPortBytes;

// Every number is written as a signed 64-bit integer, which is what the reader reads a number
// back as: a record read from its own JSON equals it.
Json::Value Number(int64_t value)
{
    return Json::Value(static_cast<Json::Int64>(value));
}

struct Field {
    const char *key;
    std::optional<int64_t> DecisionInputs::*time;
    std::optional<int32_t> DecisionInputs::*count;
};

// The inputs that are numbers, by key; usb_audio_mode is the one boolean.
const Field kInputNumbers[] = {
    {"detected_ms", &DecisionInputs::detectedMs, nullptr},
    {"core_init_ms", &DecisionInputs::coreInitMs, nullptr},
    {"power_changed_ms", &DecisionInputs::powerChangedMs, nullptr},
    {"uptime_ms", &DecisionInputs::uptimeMs, nullptr},
    {"using_count", nullptr, &DecisionInputs::usingCount},
    {"attached_count", nullptr, &DecisionInputs::attachedCount},
    {"mixer_result", nullptr, &DecisionInputs::mixerResult},
    {"power_state", nullptr, &DecisionInputs::powerState},
    {"route", nullptr, &DecisionInputs::route},
    {"interface_class", nullptr, &DecisionInputs::interfaceClass},
};
constexpr char kUsbAudioModeKey[] = "usb_audio_mode";

Json::Value DeviceJson(const DecisionDevice &device)
{
    Json::Value json(Json::objectValue);
    json["product"] = device.product;
    json["manufacturer"] = device.manufacturer;
    json["usb_id"] = UsbIdText(device.vendorId, device.productId);
    json["port"] = device.port;
    json["card"] = Number(device.card);
    json["path"] = device.path;
    return json;
}

Json::Value InputsJson(const DecisionInputs &inputs)
{
    Json::Value json(Json::objectValue);
    for (const Field &field : kInputNumbers) {
        if (field.time && inputs.*field.time)
            json[field.key] = Number(*(inputs.*field.time));
        if (field.count && inputs.*field.count)
            json[field.key] = Number(*(inputs.*field.count));
    }
    if (inputs.usbAudioMode)
        json[kUsbAudioModeKey] = *inputs.usbAudioMode;
    return json;
}

Json::Value StartJson(const DecisionStart &start)
{
    Json::Value json(Json::objectValue);
    json["card"] = Number(start.card);
    json["pending"] = start.pending;
    if (start.pending)
        return json;
    json["sent"] = start.sent;
    json["listed"] = start.listed;
    json["attempts"] = Number(start.attempts);
    json["waited_ms"] = Number(start.waitedMs);
    json["sent_uptime_ms"] = Number(start.sentUptimeMs);
    return json;
}

// Reading: each step checks one member and says what is wrong with it.
class Reader {
public:
    Reader(const Json::Value &object, const char *what, std::string &fault) : m_Object(object), m_Fault(fault)
    {
        if (!object.isObject())
            Fail(std::string(what) + " is not an object");
    }

    bool Ok() const { return m_Fault.empty(); }

    // Fails when the object has a member none of the reads asked for.
    bool NoOthers(const char *what)
    {
        for (const std::string &name : m_Object.getMemberNames())
            if (Ok() && !m_Read.count(name))
                Fail(std::string(what) + " has an unknown member \"" + name + "\"");
        return Ok();
    }

    bool Has(const char *key) const { return Ok() && m_Object.isMember(key); }

    void Int(const char *key, int64_t &out, int64_t low, int64_t high)
    {
        const Json::Value *value = Take(key);
        if (!value)
            return;
        if (!value->isInt64() || value->asInt64() < low || value->asInt64() > high)
            return Fail(std::string(key) + " is not a number in its range");
        out = value->asInt64();
    }

    void Int32(const char *key, int32_t &out, int32_t low)
    {
        int64_t value = 0;
        Int(key, value, low, std::numeric_limits<int32_t>::max());
        out = static_cast<int32_t>(value);
    }

    void Bool(const char *key, bool &out)
    {
        const Json::Value *value = Take(key);
        if (value && !value->isBool())
            return Fail(std::string(key) + " is not a boolean");
        if (value)
            out = value->asBool();
    }

    // Text as a record keeps it (RecordText), and, when id is set, an id of lower-case letters,
    // digits and dashes.
    void Text(const char *key, std::string &out, size_t maxBytes, bool id = false)
    {
        const Json::Value *value = Take(key);
        if (!value)
            return;
        if (!value->isString())
            return Fail(std::string(key) + " is not text");
        out = value->asString();
        const bool idChars = std::all_of(out.begin(), out.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
        });
        if (out != RecordText(out, maxBytes) || (id && (out.empty() || !idChars)))
            Fail(std::string(key) + " is not text the service writes");
    }

    const Json::Value *Take(const char *key)
    {
        if (!Ok())
            return nullptr;
        m_Read.insert(key);
        if (!m_Object.isMember(key)) {
            Fail(std::string("no ") + key);
            return nullptr;
        }
        return &m_Object[key];
    }

    void Fail(const std::string &fault)
    {
        if (Ok())
            m_Fault = fault;
    }

private:
    const Json::Value &m_Object;
    std::string &m_Fault;
    std::set<std::string> m_Read;
};

bool ParseUsbId(const std::string &text, int32_t &vendorId, int32_t &productId)
{
    unsigned int vendor = 0;
    unsigned int product = 0;
    char check[sizeof "0000:0000"] = {};
    if (text.size() != 9 || sscanf(text.c_str(), "%4x:%4x", &vendor, &product) != 2)
        return false;
    snprintf(check, sizeof check, "%04x:%04x", vendor, product);
    vendorId = static_cast<int32_t>(vendor);
    productId = static_cast<int32_t>(product);
    return text == check;
}

void ReadDevice(const Json::Value &json, DecisionDevice &device, std::string &fault)
{
    Reader read(json, "device", fault);
    std::string usbId;
    read.Text("product", device.product, kMaxNameBytes);
    read.Text("manufacturer", device.manufacturer, kMaxNameBytes);
    read.Text("usb_id", usbId, kMaxIdBytes);
    read.Text("port", device.port, kMaxPortBytes);
    read.Int32("card", device.card, -1);
    read.Text("path", device.path, kMaxPathBytes);
    if (read.Ok() && !ParseUsbId(usbId, device.vendorId, device.productId))
        read.Fail("usb_id is not vvvv:pppp");
    read.NoOthers("device");
}

void ReadInputs(const Json::Value &json, DecisionInputs &inputs, std::string &fault)
{
    Reader read(json, "inputs", fault);
    for (const Field &field : kInputNumbers) {
        if (!read.Has(field.key))
            continue;
        int64_t value = 0;
        if (field.time) {
            read.Int(field.key, value, decision::kUnknownTime, std::numeric_limits<uint32_t>::max());
            inputs.*field.time = value;
        } else {
            read.Int(field.key, value, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
            inputs.*field.count = static_cast<int32_t>(value);
        }
    }
    if (read.Has(kUsbAudioModeKey)) {
        bool mode = false;
        read.Bool(kUsbAudioModeKey, mode);
        inputs.usbAudioMode = mode;
    }
    read.NoOthers("inputs");
}

void ReadStart(const Json::Value &json, DecisionStart &start, std::string &fault)
{
    Reader read(json, "start", fault);
    read.Int32("card", start.card, -1);
    read.Bool("pending", start.pending);
    if (read.Ok() && !start.pending) {
        read.Bool("sent", start.sent);
        read.Bool("listed", start.listed);
        read.Int32("attempts", start.attempts, 0);
        read.Int("waited_ms", start.waitedMs, 0, std::numeric_limits<uint32_t>::max());
        read.Int("sent_uptime_ms", start.sentUptimeMs, 0, std::numeric_limits<uint32_t>::max());
    }
    read.NoOthers("start");
}

// The members of a decision; the verdict's own members are left to its reader.
void ReadDecision(Reader &read, Decision &decision, std::string &fault)
{
    int64_t seq = 0;
    read.Int("seq", seq, 1, std::numeric_limits<int64_t>::max());
    decision.seq = static_cast<uint64_t>(seq);
    read.Int("time_ms", decision.timeMs, 0, std::numeric_limits<int64_t>::max());
    read.Int("uptime_ms", decision.uptimeMs, 0, std::numeric_limits<uint32_t>::max());
    read.Text("event", decision.event, kMaxIdBytes, true);
    read.Text("rule", decision.rule, kMaxIdBytes, true);
    read.Text("outcome", decision.outcome, kMaxIdBytes, true);
    if (read.Has("cause"))
        read.Text("cause", decision.cause, kMaxNameBytes);
    if (const Json::Value *device = read.Take("device"))
        ReadDevice(*device, decision.device, fault);
    if (const Json::Value *inputs = read.Take("inputs"))
        ReadInputs(*inputs, decision.inputs, fault);
    if (read.Has("start")) {
        decision.start.emplace();
        ReadStart(*read.Take("start"), *decision.start, fault);
    }
}

} // namespace

std::string UsbIdText(int32_t vendorId, int32_t productId)
{
    char text[32];
    snprintf(text, sizeof text, "%04x:%04x", static_cast<unsigned int>(vendorId) & 0xffffu,
             static_cast<unsigned int>(productId) & 0xffffu);
    return text;
}

std::string RecordText(const std::string &text, size_t maxBytes)
{
    g_autofree gchar *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string clean(valid);
    for (char &c : clean)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    if (clean.size() <= maxBytes)
        return clean;
    // Cut at the start of a character.
    size_t end = maxBytes;
    while (end > 0 && (static_cast<unsigned char>(clean[end]) & 0xc0) == 0x80)
        --end;
    return clean.substr(0, end);
}

Json::Value ToJson(const Decision &decision)
{
    Json::Value json(Json::objectValue);
    json["seq"] = Number(static_cast<int64_t>(decision.seq));
    json["time_ms"] = Number(decision.timeMs);
    json["uptime_ms"] = Number(decision.uptimeMs);
    json["event"] = decision.event;
    json["rule"] = decision.rule;
    json["outcome"] = decision.outcome;
    if (!decision.cause.empty())
        json["cause"] = decision.cause;
    json["device"] = DeviceJson(decision.device);
    json["inputs"] = InputsJson(decision.inputs);
    if (decision.start)
        json["start"] = StartJson(*decision.start);
    return json;
}

Json::Value ToJson(const Verdict &verdict)
{
    Json::Value json = ToJson(verdict.decision);
    json["plugged"] = verdict.plugged;
    if (!verdict.plugged) {
        json["unplugged_time_ms"] = Number(verdict.unpluggedTimeMs);
        json["unplugged_uptime_ms"] = Number(verdict.unpluggedUptimeMs);
    }
    return json;
}

bool FromJson(const Json::Value &json, Decision &decision, std::string &fault)
{
    fault.clear();
    Reader read(json, "decision", fault);
    ReadDecision(read, decision, fault);
    return read.NoOthers("decision");
}

bool FromJson(const Json::Value &json, Verdict &verdict, std::string &fault)
{
    fault.clear();
    Reader read(json, "verdict", fault);
    ReadDecision(read, verdict.decision, fault);
    read.Bool("plugged", verdict.plugged);
    if (read.Ok() && !verdict.plugged) {
        read.Int("unplugged_time_ms", verdict.unpluggedTimeMs, 0, std::numeric_limits<int64_t>::max());
        read.Int("unplugged_uptime_ms", verdict.unpluggedUptimeMs, 0, std::numeric_limits<uint32_t>::max());
    }
    return read.NoOthers("verdict");
}
