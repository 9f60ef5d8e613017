// The subscriber file reader over arbitrary file content. What it reads must be storable again:
// words without white space that, written as the server writes them, read back the same.
#include <glib.h>

#include <sstream>
#include <string>

#include "FuzzEnvironment.h"
#include "HadrixDbusAPIServer.h"

namespace {

// One word of UTF-8 text, as a D-Bus string can carry it.
bool IsWord(const std::string &text)
{
    if (text.empty() || !g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
        return false;
    for (char c : text)
        if (g_ascii_isspace(c))
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::istringstream file(std::string(reinterpret_cast<const char *>(data), size));
    const auto subscribers = CUSBAPIServer::ReadSubscribers(file);

    std::string written;
    for (const auto &[name, object] : subscribers) {
        FUZZ_CHECK(IsWord(name));
        FUZZ_CHECK(IsWord(object));
        written += name + " " + object + "\n";
    }
    std::istringstream again(written);
    FUZZ_CHECK(CUSBAPIServer::ReadSubscribers(again) == subscribers);
    return 0;
}
