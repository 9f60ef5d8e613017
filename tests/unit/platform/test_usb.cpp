// The USB library's call contract: what it answers before it is open, to missing arguments and
// to null devices and lists. The devices and the list walk are covered by the integration tests,
// which give the library an emulated device tree.
#include "nimbos/usb.h"

#include <gtest/gtest.h>

namespace {

void IgnoreCard(usb_device_s *device, char *, void *)
{
    free_usb_device_h(device);
}

TEST(UsbLibrary, RefusesEveryCallBeforeInitAndAfterFini)
{
    usb_device_list_s *list = nullptr;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(usb_device_get_device_list(&list), USB_DEVICE_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(usb_set_connected_cb(IgnoreCard, nullptr), USB_DEVICE_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(usb_unset_connected_cb(), USB_DEVICE_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(usb_device_fini(), USB_DEVICE_ERROR_NOT_INITIALIZED);
        EXPECT_EQ(list, nullptr);
        ASSERT_EQ(usb_device_init(), USB_DEVICE_ERROR_NONE);
        EXPECT_EQ(usb_device_init(), USB_DEVICE_ERROR_NONE) << "a second init while open does nothing";
        EXPECT_EQ(usb_device_fini(), USB_DEVICE_ERROR_NONE);
    }
}

TEST(UsbLibrary, RefusesMissingArgumentsAndReadsNullDevicesAsMinusOneAndNull)
{
    ASSERT_EQ(usb_device_init(), USB_DEVICE_ERROR_NONE);
    usb_device_s *device = nullptr;
    EXPECT_EQ(usb_device_get_device_list(nullptr), USB_DEVICE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(usb_set_connected_cb(nullptr, nullptr), USB_DEVICE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(usb_device_free_device_list(nullptr), USB_DEVICE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(usb_device_list_get_first(nullptr, &device), USB_DEVICE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(usb_device_list_get_next(nullptr, &device), USB_DEVICE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(free_usb_device_h(nullptr), USB_DEVICE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(usb_device_list_get_count(nullptr), 0);
    EXPECT_EQ(usb_device_fini(), USB_DEVICE_ERROR_NONE);

    EXPECT_EQ(usb_device_get_class(nullptr), -1);
    EXPECT_EQ(usb_device_get_number(nullptr), -1);
    EXPECT_EQ(usb_device_get_vendor_id(nullptr), -1);
    EXPECT_EQ(usb_device_get_product_id(nullptr), -1);
    EXPECT_EQ(usb_device_get_devpath(nullptr), nullptr);
    EXPECT_EQ(usb_device_get_devname(nullptr), nullptr);
    EXPECT_EQ(usb_device_get_product(nullptr), nullptr);
    EXPECT_EQ(usb_device_get_manufacturer(nullptr), nullptr);
}

} // namespace
