// Application control: the request handle. Launch requests over the bus are the daemon's tests
// (test_lifecycle.py, test_debug_commands.py, test_volume_keys.py).
#include "nimbos/app.h"

#include <gtest/gtest.h>

#include <glib.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Handle = std::unique_ptr<app_control_s, int (*)(app_control_h)>;

Handle NewHandle()
{
    app_control_h raw = nullptr;
    EXPECT_EQ(app_control_create(&raw), APP_CONTROL_ERROR_NONE);
    return Handle(raw, app_control_destroy);
}

std::string Operation(app_control_h handle)
{
    g_autofree char *text = nullptr;
    EXPECT_EQ(app_control_get_operation(handle, &text), APP_CONTROL_ERROR_NONE);
    return text ? text : "";
}

// The extra data in the order foreach_extra_data hands them out, up to `limit` of them.
Pairs ExtraData(app_control_h handle, size_t limit = 100)
{
    std::pair<Pairs, size_t> seen{{}, limit};
    app_control_foreach_extra_data(handle, [](app_control_h h, const char *key, void *data) {
        auto *seen = static_cast<std::pair<Pairs, size_t> *>(data);
        g_autofree char *value = nullptr;
        EXPECT_EQ(app_control_get_extra_data(h, key, &value), APP_CONTROL_ERROR_NONE);
        seen->first.emplace_back(key, value ? value : "");
        return seen->first.size() < seen->second;
    }, &seen);
    return seen.first;
}

TEST(AppControlHandleTest, KeepsOperationAndExtraDataInOrder)
{
    Handle handle = NewHandle();
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);
    ASSERT_EQ(app_control_set_operation(handle.get(), "debug"), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), "debug");
    ASSERT_EQ(app_control_set_operation(handle.get(), nullptr), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);

    for (const auto &[key, value] : Pairs{{"cset", "1"}, {"audio_control", "2"}, {"pulse", "3"}, {"audio_control", "20"}})
        ASSERT_EQ(app_control_add_extra_data(handle.get(), key.c_str(), value.c_str()), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(ExtraData(handle.get()), (Pairs{{"cset", "1"}, {"audio_control", "20"}, {"pulse", "3"}}))
        << "a key added again keeps its place";
    EXPECT_EQ(ExtraData(handle.get(), 2), (Pairs{{"cset", "1"}, {"audio_control", "20"}}))
        << "the walk stops when the callback says so";

    char *value = nullptr;
    EXPECT_EQ(app_control_get_extra_data(handle.get(), "cget", &value), APP_CONTROL_ERROR_KEY_NOT_FOUND);
    EXPECT_EQ(value, nullptr);
}

TEST(AppControlHandleTest, RefusesWhatCannotBeSent)
{
    Handle handle = NewHandle();
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "", "v"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "k", nullptr), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "k", "\xff\xfe"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_set_operation(handle.get(), "\xc3"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_set_app_id(handle.get(), "not a bus name"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(nullptr, "k", "v"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(ExtraData(handle.get()).empty());
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);

    int replies = 0;
    EXPECT_EQ(app_control_send_launch_request(handle.get(), [](app_control_h, app_control_h, int, void *data) {
        ++*static_cast<int *>(data);
    }, &replies), APP_CONTROL_ERROR_INVALID_PARAMETER) << "no app id";
    EXPECT_EQ(replies, 0);
}

} // namespace
