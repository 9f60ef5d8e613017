// usb.h: the USB sound cards present, and hot-plug: "added" once a card is ready, "removed" with
// the data it had, in order, on the registering thread's context.
#include "ContractTest.h"

#include "nimbos/usb.h"

namespace contract {
namespace {

using hadrix::test::LoopThread;

// A card as the library describes it.
struct Seen {
    std::string action;
    std::string devpath;
    std::string devname;
    std::string product;
    std::string manufacturer;
    int vendorId;
    int productId;
    int number;
    int usbClass;
    bool operator==(const Seen &other) const
    {
        return action == other.action && devpath == other.devpath && devname == other.devname &&
               product == other.product && manufacturer == other.manufacturer && vendorId == other.vendorId &&
               productId == other.productId && number == other.number && usbClass == other.usbClass;
    }
};

std::ostream &operator<<(std::ostream &out, const Seen &seen)
{
    return out << seen.action << " " << seen.devpath << " " << seen.devname << " \"" << seen.product << "\" \""
               << seen.manufacturer << "\" " << std::hex << seen.vendorId << ":" << seen.productId << std::dec << " #"
               << seen.number << " class " << seen.usbClass;
}

Seen Describe(usb_device_s *device, const std::string &action = "")
{
    return Seen{action, usb_device_get_devpath(device), usb_device_get_devname(device),
                usb_device_get_product(device), usb_device_get_manufacturer(device),
                usb_device_get_vendor_id(device), usb_device_get_product_id(device),
                usb_device_get_number(device), usb_device_get_class(device)};
}

Seen Expected(const std::string &action, const UsbCard &card)
{
    return Seen{action, DevpathOf(card), DevnameOf(card), card.product, card.manufacturer, card.vendorId,
                card.productId, card.devnum, card.interfaceClass};
}

void Record(usb_device_s *device, char *action, void *heard)
{
    static_cast<Heard<Seen> *>(heard)->Add(Describe(device, action));
    free_usb_device_h(device);
}

void RecordToo(usb_device_s *device, char *action, void *heard)
{
    Record(device, action, heard);
}

std::vector<Seen> List()
{
    usb_device_list_s *list = nullptr;
    EXPECT_EQ(usb_device_get_device_list(&list), USB_DEVICE_ERROR_NONE);
    std::vector<Seen> cards;
    usb_device_s *device = nullptr;
    for (int result = usb_device_list_get_first(list, &device); result == USB_DEVICE_ERROR_NONE;
         result = usb_device_list_get_next(list, &device))
        cards.push_back(Describe(device));
    EXPECT_EQ(usb_device_list_get_count(list), static_cast<int>(cards.size()));
    EXPECT_EQ(usb_device_list_get_next(list, &device), USB_DEVICE_ERROR_NO_DATA);
    usb_device_free_device_list(list);
    return cards;
}

const UsbCard kHeadset{};
const UsbCard kSpeaker{2, 2, 3, 0x046d, 0x0a44, "USB Speaker", "", 1};
const UsbCard kWebcam{3, 3, 4, 0x046d, 0x0825, "Webcam C270", "Logitech", 1};
const UsbCard kVendorAudio{4, 4, 5, 0x0b05, 0x1234, "Vendor Audio", "Vendor", 0xff};

class UsbContract : public ContractTest {
protected:
    void SetUp() override
    {
        ContractTest::SetUp();
        ASSERT_EQ(usb_device_init(), USB_DEVICE_ERROR_NONE);
    }
    void TearDown() override
    {
        usb_device_fini();
        ContractTest::TearDown();
    }
};

TEST_F(UsbContract, CallsBeforeInitFailAndInitAgainDoesNothing)
{
    ASSERT_EQ(usb_device_fini(), USB_DEVICE_ERROR_NONE);
    usb_device_list_s *list = nullptr;
    EXPECT_EQ(usb_device_get_device_list(&list), USB_DEVICE_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(usb_set_connected_cb(Record, nullptr), USB_DEVICE_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(usb_device_init(), USB_DEVICE_ERROR_NONE);
    EXPECT_EQ(usb_device_init(), USB_DEVICE_ERROR_NONE);
}

TEST_F(UsbContract, TheListHoldsTheReadyCardsWithTheirProperties)
{
    EXPECT_TRUE(List().empty()) << "no card is an empty list";
    driver.PlugCard(kHeadset, true);
    driver.PlugCard(kSpeaker, false);
    EXPECT_EQ(List(), std::vector<Seen>{Expected("", kHeadset)}) << "a card not ready yet is not listed";
    driver.MakeCardReady(kSpeaker);
    driver.PlugCard(kVendorAudio, true);
    EXPECT_EQ(List(), (std::vector<Seen>{Expected("", kHeadset), Expected("", kSpeaker), Expected("", kVendorAudio)}))
        << "a missing manufacturer reads as \"\"; a card behind another interface class reports it";

    usb_device_list_s *list = nullptr;
    ASSERT_EQ(usb_device_get_device_list(&list), USB_DEVICE_ERROR_NONE);
    usb_device_free_device_list(list);
    EXPECT_EQ(usb_device_get_vendor_id(nullptr), -1);
    EXPECT_EQ(usb_device_get_number(nullptr), -1);
    EXPECT_EQ(usb_device_get_devpath(nullptr), nullptr);
    EXPECT_EQ(usb_device_list_get_count(nullptr), 0);
}

TEST_F(UsbContract, AddedComesOnceACardIsReadyAndRemovedWithTheDataItHad)
{
    Heard<Seen> heard;
    ASSERT_EQ(usb_set_connected_cb(Record, &heard), USB_DEVICE_ERROR_NONE);
    driver.PlugCard(kHeadset, true);
    EXPECT_EQ(heard.Count(), 0u) << "delivered later, never inside the event";
    ASSERT_TRUE(heard.WaitFor(1));
    driver.PlugCard(kSpeaker, false);
    driver.MakeCardReady(kSpeaker);
    driver.MakeCardReady(kSpeaker);
    // The library reads a card's description when it handles the card: it must still be there.
    ASSERT_TRUE(heard.WaitFor(2));
    driver.UnplugCard(kHeadset);
    driver.UnplugCard(kSpeaker);
    ASSERT_TRUE(heard.WaitFor(4));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<Seen>{Expected("added", kHeadset), Expected("added", kSpeaker),
                                                  Expected("removed", kHeadset), Expected("removed", kSpeaker)}));
    EXPECT_TRUE(heard.AllOn(std::this_thread::get_id()));
}

TEST_F(UsbContract, TheCallbackRunsOnTheRegisteringThreadsContext)
{
    LoopThread thread;
    Heard<Seen> heard;
    thread.Run([&heard] { ASSERT_EQ(usb_set_connected_cb(Record, &heard), USB_DEVICE_ERROR_NONE); });
    driver.PlugCard(kWebcam, true);
    ASSERT_TRUE(heard.WaitFor(1));
    EXPECT_TRUE(heard.AllOn(thread.Id()));
    thread.Run([] { usb_unset_connected_cb(); });
}

TEST_F(UsbContract, AnotherCallbackReplacesItAndUnsettingStopsTheEvents)
{
    Heard<Seen> first, second;
    ASSERT_EQ(usb_set_connected_cb(Record, &first), USB_DEVICE_ERROR_NONE);
    ASSERT_EQ(usb_set_connected_cb(RecordToo, &second), USB_DEVICE_ERROR_NONE);
    driver.PlugCard(kHeadset, true);
    ASSERT_TRUE(second.WaitFor(1));

    ASSERT_EQ(usb_unset_connected_cb(), USB_DEVICE_ERROR_NONE);
    driver.PlugCard(kSpeaker, true);
    ASSERT_EQ(usb_set_connected_cb(Record, &first), USB_DEVICE_ERROR_NONE);
    driver.UnplugCard(kSpeaker);
    ASSERT_TRUE(first.WaitFor(1));
    RunPending();
    EXPECT_EQ(second.Events(), std::vector<Seen>{Expected("added", kHeadset)});
    EXPECT_EQ(first.Events(), std::vector<Seen>{Expected("removed", kSpeaker)})
        << "nothing while unset; the card plugged meanwhile counts as there when set again";
}

} // namespace
} // namespace contract
