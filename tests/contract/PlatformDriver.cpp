#include "PlatformDriver.h"

#include <glib.h>

namespace contract {

std::string DevpathOf(const UsbCard &card)
{
    const std::string port = "1-" + std::to_string(card.port);
    return "/devices/platform/soc/usb1/" + port + "/" + port + ":1.0/sound/card" + std::to_string(card.card);
}

std::string DevnameOf(const UsbCard &card)
{
    g_autofree char *devname = g_strdup_printf("/dev/bus/usb/001/%03d", card.devnum);
    return devname;
}

} // namespace contract
