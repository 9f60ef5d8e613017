// The USB sound card's own mixer. The service keeps a headset's hardware volume at its maximum,
// so the only volume the user hears change is the output gain the service drives. Also the
// plain control read and write behind the "cset" and "cget" debug commands.
#pragma once

#include <string>
#include <vector>

#include "USBDeviceInfo.h"

// Results of CUsbMixer::SetMaxVolume.
enum MaxVolumeResult : int {
    MAX_VOLUME_DONE = 0,           // also when nothing needed writing
    MAX_VOLUME_CARD_UNUSABLE = 1,  // invalid card number, or its controls could not be opened
    MAX_VOLUME_WRITE_FAILED = 3,   // at least one control write failed
};

class CUsbMixer {
public:
    // Writes the maximum to every channel of each playback volume control of the card.
    // Returns a MaxVolumeResult.
    static int SetMaxVolume(int card);

    // Writes value to every channel of one control. card is a control device name ("hw:1"),
    // controlId an ASCII element identifier ("numid=3", "name='PCM Playback Volume'").
    static bool ControlsSet(const std::string &card, const std::string &controlId, long value);

    // Whether a control of this name is a playback volume the service keeps at maximum.
    static bool IsPlaybackControl(const std::string &name);

    // Whether another device of the list sits on the same USB port as the device at path.
    static bool IsTwinPortInsert(const std::string &path, const std::vector<USBDeviceInfo> &devices);

    // Sets the maximum again on the card of every record, in list order.
    static void RestVolume(const std::vector<USBDeviceInfo> &devices);

    // Diagnostics: the values of one control as text, channels separated by commas.
    static bool ControlGet(int card, const std::string &controlId, std::string &valueText);
    // Diagnostics: writes a value text in ALSA's syntax ("80%", "100,90", "on") to one control.
    static bool ControlWrite(int card, const std::string &controlId, const std::string &valueText);
};
