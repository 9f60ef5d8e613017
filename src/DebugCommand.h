// Debug commands: engineers drive one operation of the running service by sending it a launch
// request with one extra-data key. Nothing is answered; results go to the log.
//
// The keys are tried in this order and the first one present is the command (others are
// ignored): "pulse", "audio_control", "speakerManager", "soundManager", "localFileData", "cset",
// "cget", "setMaxVolume". A sub-command matches when the value starts with its word.
//
// Mixer commands (the value is split at white space; a quoted part keeps its spaces):
//   "cget"  value "CARD CONTROL"        e.g. "1 numid=3" or "1 name='PCM Playback Volume'"
//   "cset"  value "CARD CONTROL VALUE"  e.g. "1 numid=3 80%" or "1 name='PCM Playback Volume' 100,90"
// CARD is a card number in decimal, CONTROL an ALSA control identifier ("numid=N", "name='...'",
// optionally with "iface=", "index=" ...), VALUE the rest of the text in ALSA's value syntax
// ("80%", "100,90", "on"). A malformed value is refused with its reason in the log.
#pragma once

#include <string>

#include "nimbos/app.h"

// Looks for one command key in the request and runs it.
void ParseCommand(app_control_h app_control, void *user_data);

// The parts of a "cget" or "cset" value.
struct MixerCommandArgs {
    int card = -1;
    std::string control;
    std::string value; // "cset" only
};

// Splits a "cget" (withValue false) or "cset" (withValue true) value. On failure returns false
// and says why in reason.
bool ParseMixerCommandArgs(const std::string &text, bool withValue, MixerCommandArgs &args, std::string &reason);

// A decimal card number, or 0 when the text is not one.
int ParseCardNumber(const std::string &text);
