/* USB device enumeration: the USB sound cards present now, and hot-plug of cards.
 * One device stands for one USB sound card. Calls return 0 (USB_DEVICE_ERROR_NONE) on success
 * and a negative usb_device_error_e otherwise, unless stated otherwise. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    USB_DEVICE_ERROR_NONE = 0,
    USB_DEVICE_ERROR_NOT_INITIALIZED = -1,   /* called before usb_device_init */
    USB_DEVICE_ERROR_IO_ERROR = -5,          /* the system's device database could not be read */
    USB_DEVICE_ERROR_OUT_OF_MEMORY = -12,
    USB_DEVICE_ERROR_INVALID_PARAMETER = -22,
    USB_DEVICE_ERROR_NO_DATA = -61,          /* no further device in the list */
} usb_device_error_e;

/* USB interface class of a device that carries audio. */
#define USB_DEVICE_CLASS_AUDIO 1

typedef struct usb_device_s usb_device_s;
/* A snapshot of the devices present, with a cursor for walking it. */
typedef struct usb_device_list_s usb_device_list_s;

/* Opens the library; must come before every other call. Calling it again while open does
 * nothing and returns 0. */
int usb_device_init(void);
/* Removes the hot-plug callback and closes the library. */
int usb_device_fini(void);

/* The devices present now, as a new list the caller frees with usb_device_free_device_list.
 * Besides sound cards the list may hold other USB devices, which report their own class.
 * No device present gives an empty list, not an error. */
int usb_device_get_device_list(usb_device_list_s **list);
/* Frees the list and every device in it. */
int usb_device_free_device_list(usb_device_list_s *list);
/* Number of devices in the list; 0 for a null list. */
int usb_device_list_get_count(usb_device_list_s *list);
/* Moves the cursor to the first device and returns it in *device; USB_DEVICE_ERROR_NO_DATA when
 * the list is empty. The device belongs to the list: do not free it. */
int usb_device_list_get_first(usb_device_list_s *list, usb_device_s **device);
/* Moves the cursor on and returns that device; USB_DEVICE_ERROR_NO_DATA after the last one. */
int usb_device_list_get_next(usb_device_list_s *list, usb_device_s **device);

/* Hot-plug callback. action is "added" (the card is ready for use) or "removed"; it belongs to
 * the library and is valid during the call. device belongs to the callee, who frees it with
 * free_usb_device_h. */
typedef void (*usb_connected_cb)(usb_device_s *device, char *action, void *user_data);
/* Calls cb on the main context of the registering thread for every card added or removed from
 * now on, in the order it happened, never during the call that set it. "added" comes once per
 * card, when it is ready for use; cards already ready when a callback is set while none was (the
 * first one, or the first after usb_unset_connected_cb) count as added (they are in the device
 * list), so only their removal is reported. "removed" comes for every card that was added, with
 * the data it had then. A card unplugged before its "added" was delivered may be announced
 * neither way. One callback at a time: setting another replaces it. */
int usb_set_connected_cb(usb_connected_cb cb, void *user_data);
int usb_unset_connected_cb(void);

/* Frees a device handed to the hot-plug callback. Devices of a list are freed with the list. */
int free_usb_device_h(usb_device_s *device);

/* Getters. The numeric ones return the value, or -1 for a null device. The strings belong to
 * the device and live as long as it does; an attribute the device lacks reads as "", and only a
 * null device gives NULL. */

/* USB interface class of the interface that carries the card (USB_DEVICE_CLASS_AUDIO). */
int usb_device_get_class(usb_device_s *device);
/* Device number of the USB device on its bus. */
int usb_device_get_number(usb_device_s *device);
/* Kernel device path of the sound card, "/devices/.../1-1:1.0/sound/card1"; the identity of
 * the device. */
const char *usb_device_get_devpath(usb_device_s *device);
/* Device node of the USB device, "/dev/bus/usb/001/004". */
const char *usb_device_get_devname(usb_device_s *device);
/* Product and manufacturer strings the device reports. */
const char *usb_device_get_product(usb_device_s *device);
const char *usb_device_get_manufacturer(usb_device_s *device);
/* USB vendor and product ids (0 to 0xffff). */
int usb_device_get_vendor_id(usb_device_s *device);
int usb_device_get_product_id(usb_device_s *device);

#ifdef __cplusplus
}
#endif
