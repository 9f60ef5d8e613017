// The parsers of what udev reports about a device: the card number and the USB port taken from
// its sysfs path, the camera and special-product checks on its name and ids, and its id string.
// Input: two bytes of vendor id, two of product id, then the text used as path and name.
#include <cstring>
#include <string>

#include "DMesgAnalysis.h"
#include "FuzzEnvironment.h"
#include "HadrixUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    const int vendorId = data[0] << 8 | data[1];
    const int productId = data[2] << 8 | data[3];
    const std::string text(reinterpret_cast<const char *>(data + 4), size - 4);

    int card = -1;
    if (CUsbServiceUtil::GetCardNum(text, &card))
        FUZZ_CHECK(text.find("card") != std::string::npos);

    const std::string port = CDMesgAnalysis::GetUsbPortNumberFromDevPath(text);
    if (!port.empty()) {
        // The port is the path component that the first ':' ends.
        FUZZ_CHECK(port.find('/') == std::string::npos && port.find(':') == std::string::npos);
        FUZZ_CHECK(text.find("/" + port + ":") != std::string::npos);
    }

    CUsbServiceUtil::IsCamera(text, vendorId, productId);
    CUsbServiceUtil::IsAstroProduct(text, vendorId, productId);
    // Ids of 16 bits make " vvvv#pppp ".
    const std::string id = CUsbServiceUtil::MakeId(vendorId, productId);
    FUZZ_CHECK(id.size() == 11 && id[0] == ' ' && id[5] == '#' && id[10] == ' ');
    return 0;
}
