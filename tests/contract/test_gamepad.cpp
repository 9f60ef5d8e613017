// gamepad.h: the gamepads connected, at the lowest indexes, and connection events with the
// gamepad's uid ("VID_%04X PID_%04X") and name, on the registering thread's context.
#include "ContractTest.h"

#include "nimbos/gamepad.h"

#include <cstring>

namespace contract {
namespace {

using hadrix::test::LoopThread;

struct Pad {
    int event; // 0 for a gamepad read by index
    std::string uid;
    std::string name;
    bool operator==(const Pad &other) const { return event == other.event && uid == other.uid && name == other.name; }
};

std::ostream &operator<<(std::ostream &out, const Pad &pad)
{
    return out << pad.event << " " << pad.uid << " \"" << pad.name << "\"";
}

void Record(int event, _gamepad_device_info_s info, void *heard)
{
    static_cast<Heard<Pad> *>(heard)->Add(Pad{event, info.uid, info.name});
}

void RecordToo(int event, _gamepad_device_info_s info, void *heard)
{
    Record(event, info, heard);
}

const Pad kDualShock{0, "VID_054C PID_09CC", "Wireless Controller"};
const Pad kXbox{0, "VID_045E PID_02EA", "Xbox Wireless Controller"};
const Pad kSwitch{0, "VID_057E PID_2009", "Pro Controller"};

Pad Event(int event, const Pad &pad)
{
    return Pad{event, pad.uid, pad.name};
}

class GamepadContract : public ContractTest {
protected:
    void SetUp() override
    {
        ContractTest::SetUp();
        ASSERT_EQ(gamepad_open(), 1);
    }
    void TearDown() override
    {
        gamepad_unregister_connection_callback();
        ContractTest::TearDown();
    }
};

TEST_F(GamepadContract, ConnectedGamepadsTakeTheLowestIndexes)
{
    EXPECT_EQ(gamepad_open(), 1) << "opening again";
    driver.ConnectGamepad(0x054c, 0x09cc, kDualShock.name);
    driver.ConnectGamepad(0x045e, 0x02ea, kXbox.name);
    const int slots = gamepad_maximum_gampad_count();
    ASSERT_GE(slots, 3);
    std::vector<Pad> found;
    _gamepad_device_info_s info{};
    for (int index = 0; index < 2; ++index) {
        ASSERT_EQ(gamepad_get_connected_device_Info(&info, index), 1) << index;
        found.push_back(Pad{0, info.uid, info.name});
    }
    EXPECT_EQ(found, (std::vector<Pad>{kDualShock, kXbox}));

    driver.DisconnectGamepad(0x054c, 0x09cc);
    ASSERT_EQ(gamepad_get_connected_device_Info(&info, 0), 1);
    EXPECT_EQ(Pad({0, info.uid, info.name}), kXbox) << "the one left moves to the lowest index";

    strcpy(info.uid, "untouched");
    EXPECT_EQ(gamepad_get_connected_device_Info(&info, 1), 0) << "no gamepad there";
    EXPECT_LT(gamepad_get_connected_device_Info(&info, slots), 0);
    EXPECT_LT(gamepad_get_connected_device_Info(&info, -1), 0);
    EXPECT_STREQ(info.uid, "untouched");
}

TEST_F(GamepadContract, ConnectionEventsComeLaterOnTheRegisteringThreadsContext)
{
    LoopThread thread;
    Heard<Pad> heard;
    thread.Run([&heard] { ASSERT_EQ(gamepad_register_connection_callback(Record, &heard), 1); });
    driver.ConnectGamepad(0x054c, 0x09cc, kDualShock.name);
    driver.DisconnectGamepad(0x054c, 0x09cc);
    ASSERT_TRUE(heard.WaitFor(2));
    EXPECT_EQ(heard.Events(), (std::vector<Pad>{Event(GAMEPAD_EVENT_CONNECTED, kDualShock),
                                                 Event(GAMEPAD_EVENT_DISCONNECTED, kDualShock)}));
    EXPECT_TRUE(heard.AllOn(thread.Id()));
    thread.Run([] { gamepad_unregister_connection_callback(); });

    Heard<Pad> later;
    ASSERT_EQ(gamepad_register_connection_callback(Record, &later), 1);
    driver.ConnectGamepad(0x045e, 0x02ea, kXbox.name);
    EXPECT_EQ(later.Count(), 0u) << "never inside the event";
    EXPECT_TRUE(later.WaitFor(1));
}

TEST_F(GamepadContract, AnotherCallbackReplacesItAndUnregisteringStopsTheEvents)
{
    Heard<Pad> first, second;
    ASSERT_EQ(gamepad_register_connection_callback(Record, &first), 1);
    ASSERT_EQ(gamepad_register_connection_callback(RecordToo, &second), 1);
    driver.ConnectGamepad(0x054c, 0x09cc, kDualShock.name);
    ASSERT_TRUE(second.WaitFor(1));

    ASSERT_EQ(gamepad_unregister_connection_callback(), 1);
    driver.ConnectGamepad(0x045e, 0x02ea, kXbox.name);
    ASSERT_EQ(gamepad_register_connection_callback(Record, &first), 1);
    driver.ConnectGamepad(0x057e, 0x2009, kSwitch.name);
    ASSERT_TRUE(first.WaitFor(1));
    RunPending();
    EXPECT_EQ(second.Events(), std::vector<Pad>{Event(GAMEPAD_EVENT_CONNECTED, kDualShock)});
    EXPECT_EQ(first.Events(), std::vector<Pad>{Event(GAMEPAD_EVENT_CONNECTED, kSwitch)});
}

} // namespace
} // namespace contract
