// The subscriber file both ways over arbitrary input:
// - read as file content, what the reader takes must be storable words that, written as the
//   server writes them, read back the same;
// - split at NUL bytes (which no D-Bus string holds) into process names, every name the server
//   would store, with the object name it forms, must read back as the same pairs once written,
//   and the file stays within its bound.
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "FuzzEnvironment.h"
#include "HadrixDbusAPIServer.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs ReadBack(const std::string &text)
{
    std::istringstream file(text);
    return CUSBAPIServer::ReadSubscribers(file);
}

void CheckFileContent(const std::string &content)
{
    const Pairs subscribers = ReadBack(content);
    FUZZ_CHECK(subscribers.size() <= CUSBAPIServer::kMaxSubscribers);
    std::string written;
    for (const auto &[name, object] : subscribers) {
        FUZZ_CHECK(!CUSBAPIServer::WordFault(name));
        FUZZ_CHECK(!CUSBAPIServer::WordFault(object));
        written += name + " " + object + "\n";
    }
    FUZZ_CHECK(ReadBack(written) == subscribers);
}

void CheckAcceptedNames(const std::string &input)
{
    CUSBAPIServer::SubscriberTable table;
    std::istringstream names(input);
    for (std::string name; std::getline(names, name, '\0') && table.size() < CUSBAPIServer::kMaxSubscribers;) {
        if (!CUSBAPIServer::WordFault(name))
            table[name] = CUSBAPIServer::ClientObjectName(name.c_str());
    }
    const std::string text = CUSBAPIServer::FormatSubscribers(table);
    FUZZ_CHECK(text.size() < CUSBAPIServer::kMaxSubscriberFileBytes);
    FUZZ_CHECK(ReadBack(text) == Pairs(table.begin(), table.end()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    CheckFileContent(input);
    CheckAcceptedNames(input);
    return 0;
}
