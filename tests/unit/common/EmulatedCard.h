// A sound card's control device for in-process tests: /dev/snd/controlC<N> in a umockdev
// testbed, answering alsa-lib's control ioctls from the controls the test describes, so that the
// real alsa-lib in the test binary walks, reads and writes them. Every write is recorded.
//
// The binary runs under umockdev's preload (UmockdevMain.cpp starts it again under
// umockdev-wrapper). The device answers on umockdev's own thread, so the code under test may
// block in its ioctls on any thread of the test.
#pragma once

#include <umockdev.h>

#include <iosfwd>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "UniqueHandle.h"

namespace hadrix::test {

// The binary's testbed, made on first use and kept to the end: umockdev keeps descriptors of
// every testbed made. It has no catch-all ioctl handler: the preload connects every open of a
// /dev path to that one, failed opens too, and keeps the failed ones in its table of 50 emulated
// descriptors for good, so looking for absent cards would soon abort the binary (without it, such
// an open costs one descriptor).
UMockdevTestbed *CardTestbed();

enum class ControlType { Boolean, Integer, Enumerated, Bytes, Integer64 };
enum class ControlIface { Card, Mixer };

// One control element. values holds one entry per channel (item indexes of an enumerated one).
struct CardControl {
    std::string name;
    std::vector<long> values{0};
    long min = 0;
    long max = 1;
    ControlType type = ControlType::Integer;
    ControlIface iface = ControlIface::Mixer;
    bool readable = true;
    bool writable = true;
    bool inactive = false;
    std::vector<std::string> items; // of an enumerated control
    std::optional<long> keeps;      // the most the hardware keeps of a larger written value
    int writeError = 0;             // errno writes to it are answered with...
    int writesBeforeError = 0;      // ...once it has taken this many

    CardControl &Inactive() { inactive = true; return *this; }
    CardControl &Unreadable() { readable = false; return *this; }
    CardControl &Unwritable() { writable = false; return *this; }
    CardControl &On(ControlIface other) { iface = other; return *this; }
    CardControl &Keeps(long most) { keeps = most; return *this; }
    CardControl &FailsWrites(int error, int after = 0) { writeError = error; writesBeforeError = after; return *this; }
};

// An integer control of the mixer.
CardControl Volume(const std::string &name, std::vector<long> values, long min, long max);
CardControl Switch(const std::string &name, std::vector<long> values);
CardControl Enumerated(const std::string &name, long item, std::vector<std::string> items);

// One ELEM_WRITE request.
struct CardWrite {
    std::string control;
    // How the writer looked the control up before: "numid=2" or "name='PCM Playback Volume'".
    std::string lookedUpAs;
    std::vector<long> values;
    int error = 0; // errno it was answered with, 0 when the card took it
    bool operator==(const CardWrite &other) const
    {
        return control == other.control && lookedUpAs == other.lookedUpAs && values == other.values &&
               error == other.error;
    }
};
void PrintTo(const CardWrite &write, std::ostream *out);

class EmulatedCard {
public:
    // Numbered controls in the order given (numid 1 first), at /dev/snd/controlC<number> of
    // CardTestbed() until the card is destroyed.
    EmulatedCard(int number, std::vector<CardControl> controls);
    ~EmulatedCard();
    EmulatedCard(const EmulatedCard &) = delete;
    EmulatedCard &operator=(const EmulatedCard &) = delete;

    // Every later request with this ioctl number is answered with error.
    void FailRequest(unsigned long request, int error);

    std::vector<CardWrite> Writes() const;
    std::vector<long> Values(const std::string &control) const;
    // How often a client opened the node.
    int Connections() const;

private:
    static gboolean OnIoctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self);
    static void OnConnected(UMockdevIoctlBase *, UMockdevIoctlClient *, gpointer self);
    int Answer(UMockdevIoctlClient *client);
    int CardInfo(UMockdevIoctlData *arg);
    int ElemList(UMockdevIoctlData *arg);
    int ElemInfo(UMockdevIoctlClient *client);
    int ElemRead(UMockdevIoctlData *arg);
    int ElemWrite(UMockdevIoctlClient *client);

    const int m_number;
    const std::string m_node; // in the testbed
    std::string m_file;       // where it is on disk
    UniqueHandle<UMockdevIoctlBase, g_object_unref> m_device;
    mutable std::mutex m_lock;
    std::vector<CardControl> m_controls;
    std::vector<std::pair<unsigned long, int>> m_failing;
    std::vector<CardWrite> m_writes;
    int m_connections = 0;
};

} // namespace hadrix::test
