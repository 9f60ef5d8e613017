// The device depot reader over arbitrary file content.
#include <string>

#include "DevicesDepot.h"
#include "FuzzEnvironment.h"
#include "HadrixUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    int index = 0;
    for (const USBDeviceInfo &info : DevicesDepot::Deserialize(text)) {
        // What the service does with a record read back: log it and look at its path.
        PrintDeviceRecord(index++, info);
        int card = -1;
        CUsbServiceUtil::GetCardNum(info.strDevPath, &card);
        CUsbServiceUtil::MakeId(info.nVendorId, info.nProductId);
    }
    return 0;
}
