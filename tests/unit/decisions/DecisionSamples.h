// Decisions as the service records them, for the tests of the decision history and its words.
#pragma once

#include <string>

#include "Decision.h"

namespace samples {

// A headset on a port of its own: "Evolve 20" on 1-1 is card 1, the others follow.
inline DecisionDevice Headset(const std::string &port = "1-1", int card = 1, const std::string &product = "Evolve 20")
{
    DecisionDevice device;
    device.product = product;
    device.manufacturer = "Jabra";
    device.vendorId = 0x0b0e;
    device.productId = 0x0300;
    device.port = port;
    device.card = card;
    device.path = "/devices/platform/soc/xhci_hcd.0/usb1/" + port + "/" + port + ":1.0/sound/card" + std::to_string(card);
    return device;
}

// The viewer plugs the headset in 117.9 s after the USB core came up: it takes the sound, and
// "Start" went out 12 ms later, the card listed at the first ask.
inline Decision FreshPlug(const DecisionDevice &device = Headset())
{
    Decision decision;
    decision.seq = 7;
    decision.timeMs = 1764099662123; // 2025-11-25 19:41:02.123 UTC
    decision.uptimeMs = 150010;
    decision.event = decision::kHotplugAdded;
    decision.rule = decision::kDetectedAfterCore;
    decision.outcome = decision::kTookSound;
    decision.device = device;
    decision.inputs.detectedMs = 120000;
    decision.inputs.coreInitMs = 2100;
    decision.inputs.powerChangedMs = decision::kUnknownTime;
    decision.inputs.uptimeMs = 150004;
    decision.inputs.usbAudioMode = false;
    decision.inputs.usingCount = 0;
    decision.inputs.attachedCount = 0;
    decision.inputs.mixerResult = 0;
    decision.start.emplace();
    decision.start->card = device.card;
    decision.start->pending = false;
    decision.start->sent = true;
    decision.start->listed = true;
    decision.start->attempts = 1;
    decision.start->waitedMs = 3;
    decision.start->sentUptimeMs = 150022;
    return decision;
}

// The headset was found at start-up, detected 1.4 s after the USB core came up.
inline Decision PresentAtBoot()
{
    Decision decision;
    decision.seq = 1;
    decision.timeMs = 1764099600000; // 2025-11-25 19:40:00 UTC
    decision.uptimeMs = 9500;
    decision.event = decision::kStartupEnumeration;
    decision.rule = decision::kDetectedWithCore;
    decision.outcome = decision::kPresentAtBoot;
    decision.device = Headset();
    decision.inputs.detectedMs = 3500;
    decision.inputs.coreInitMs = 2100;
    decision.inputs.powerChangedMs = decision::kUnknownTime;
    decision.inputs.uptimeMs = 9490;
    decision.inputs.usbAudioMode = false;
    return decision;
}

} // namespace samples
