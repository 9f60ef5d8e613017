// The subscriber file: which names can be stored, and what the reader takes from a file (the
// calls that store them: core/test_client_api.cpp).
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "HadrixDbusAPIServer.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs Read(const std::string &text)
{
    std::istringstream file(text);
    return CUSBAPIServer::ReadSubscribers(file);
}

TEST(SubscriberFileTest, ANameIsStoredOnlyWhenItReadsBackAsTheSameWordAndSoIsItsObjectName)
{
    const std::string longest(CUSBAPIServer::kMaxWordBytes, 'a');
    const std::vector<std::string> storable = {"org.example.player", "x", "caf\u00e9.\u97f3\u697d", longest};
    CUSBAPIServer::SubscriberTable table;
    for (const std::string &name : storable) {
        EXPECT_EQ(CUSBAPIServer::WordFault(name), nullptr) << name;
        table[name] = CUSBAPIServer::ClientObjectName(name.c_str());
        EXPECT_EQ(CUSBAPIServer::WordFault(table[name]), nullptr) << table[name];
    }
    EXPECT_EQ(table[longest], "obj" + longest.substr(3));
    EXPECT_EQ(Read(CUSBAPIServer::FormatSubscribers(table)), Pairs(table.begin(), table.end()));

    // Every byte the reader separates words at, a word longer than it reads, and what no D-Bus
    // string can be.
    for (const std::string &name : {std::string("two words"), std::string("tab\t"), std::string("new\nline"),
                                    std::string("vertical\vtab"), std::string("form\ffeed"), std::string("cr\r"),
                                    longest + "a", std::string("\xff\xfe"), std::string("nul\0byte", 8),
                                    std::string()})
        EXPECT_NE(CUSBAPIServer::WordFault(name), nullptr) << name;
}

TEST(SubscriberFileTest, ReaderLeavesOutEntriesItCannotStoreWithoutShiftingTheOthers)
{
    const std::string tooLong(300, 'x');
    EXPECT_EQ(Read("app.a obja\n" + tooLong + " objx\napp.\xff objbad\napp.b objb\nlone\n"),
              (Pairs{{"app.a", "obja"}, {"app.b", "objb"}}));
}

TEST(SubscriberFileTest, ReaderTakesAtMostTheTableBoundFromTheFirst64KiB)
{
    std::string many;
    for (size_t n = 0; n < CUSBAPIServer::kMaxSubscribers + 20; ++n)
        many += "app." + std::to_string(n) + " obj\n";
    const Pairs read = Read(many);
    ASSERT_EQ(read.size(), CUSBAPIServer::kMaxSubscribers);
    EXPECT_EQ(read.back().first, "app." + std::to_string(CUSBAPIServer::kMaxSubscribers - 1));

    // The bound falls inside the second word: the pair is not read with that word cut short.
    const std::string pair = "app.late objapp.late\n";
    const std::string padding(CUSBAPIServer::kMaxSubscriberFileBytes - pair.size() + 5, ' ');
    EXPECT_EQ(Read(padding + pair), Pairs{});
    EXPECT_EQ(Read(padding.substr(10) + pair), (Pairs{{"app.late", "objapp.late"}}));
}

} // namespace
