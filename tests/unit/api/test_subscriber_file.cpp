// Reading the subscriber file's text: pairs of words in file order, and what is left out.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "HadrixDbusAPIServer.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs Read(const std::string &text)
{
    std::istringstream in(text);
    return CUSBAPIServer::ReadSubscribers(in);
}

TEST(SubscriberFileTest, ReadsWordPairsInFileOrderAndSkipsWhatNoClientNameCanBe)
{
    using namespace std::string_literals;
    EXPECT_EQ(Read(""), Pairs{});
    EXPECT_EQ(Read("b.app objb.app\na.app   obja.app\n\n\tc objc\nlone.word\n"),
              (Pairs{{"b.app", "objb.app"}, {"a.app", "obja.app"}, {"c", "objc"}}));
    EXPECT_EQ(Read("a\0b obja\nc.app objc.app\nd.app objd\xff\nk\xc3\xa9 objk\xc3\xa9\n"s),
              (Pairs{{"c.app", "objc.app"}, {"k\xc3\xa9", "objk\xc3\xa9"}}));
}

} // namespace
