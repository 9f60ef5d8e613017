// The service's decision records in plain words, for hadrixctl: one paragraph per device for
// `why`, one line per decision for `history` and `monitor`. The records are those of the
// diagnostics interface in their JSON form (src/Decision.h); times of day are local.
#pragma once

#include <string>

#include <json/json.h>

namespace decision_text {

// The device of a record: "Evolve 20 (Jabra, 0b0e:0300, port 1-1, card 1)".
std::string DeviceName(const Json::Value &record);
// A verdict as a paragraph (one line): what the service decided about the device, when and on
// which event, the rule with its numbers, the "Start" it sent, and whether it is unplugged.
std::string Why(const Json::Value &verdict);
// A decision as one line, beginning with its date and time.
std::string Line(const Json::Value &decision);
// Whether a record's device is the one a user named: by product name (any case), by
// vendor:product ("0b0e:0300") or by USB port ("1-1").
bool Matches(const Json::Value &record, const std::string &query);

} // namespace decision_text
