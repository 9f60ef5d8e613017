// app.h: request handles, launch requests to other applications, and the service loop.
#include "ContractTest.h"

#include "nimbos/app.h"

#include <glib.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <thread>

namespace contract {
namespace {

constexpr const char *kViewer = "org.nimbos.volume-app";

using AppContract = ContractTest;
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

// The extra data in the order foreach hands them out, up to `limit` of them.
ExtraData ExtraDataOf(app_control_h handle, size_t limit = 100)
{
    std::pair<ExtraData, size_t> seen{{}, limit};
    app_control_foreach_extra_data(handle, [](app_control_h h, const char *key, void *data) {
        auto *seen = static_cast<std::pair<ExtraData, size_t> *>(data);
        g_autofree char *value = nullptr;
        EXPECT_EQ(app_control_get_extra_data(h, key, &value), APP_CONTROL_ERROR_NONE);
        seen->first.emplace_back(key, value ? value : "");
        return seen->first.size() < seen->second;
    }, &seen);
    return seen.first;
}

Handle RequestTo(const char *appId, const ExtraData &extraData)
{
    Handle handle = NewHandle();
    EXPECT_EQ(app_control_set_app_id(handle.get(), appId), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(app_control_set_operation(handle.get(), "show"), APP_CONTROL_ERROR_NONE);
    for (const auto &[key, value] : extraData)
        EXPECT_EQ(app_control_add_extra_data(handle.get(), key.c_str(), value.c_str()), APP_CONTROL_ERROR_NONE);
    return handle;
}

struct Reply {
    int calls = 0;
    int result = 1;
    bool withReply = false;
};

int Send(app_control_h handle, Reply *reply)
{
    return app_control_send_launch_request(handle, [](app_control_h, app_control_h replyHandle, int result, void *data) {
        auto *reply = static_cast<Reply *>(data);
        ++reply->calls;
        reply->result = result;
        reply->withReply = replyHandle != nullptr;
    }, reply);
}

TEST_F(AppContract, AHandleKeepsItsExtraDataInOrderAndReplacesInPlace)
{
    Handle handle = NewHandle();
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);
    ASSERT_EQ(app_control_set_operation(handle.get(), "debug"), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), "debug");
    ASSERT_EQ(app_control_set_operation(handle.get(), nullptr), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);

    for (const auto &[key, value] : ExtraData{{"cset", "1"}, {"audio_control", "2"}, {"pulse", "3"}, {"audio_control", "20"}})
        ASSERT_EQ(app_control_add_extra_data(handle.get(), key.c_str(), value.c_str()), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(ExtraDataOf(handle.get()), (ExtraData{{"cset", "1"}, {"audio_control", "20"}, {"pulse", "3"}}));
    EXPECT_EQ(ExtraDataOf(handle.get(), 2), (ExtraData{{"cset", "1"}, {"audio_control", "20"}}))
        << "the walk stops when the callback says so";
    char *value = nullptr;
    EXPECT_EQ(app_control_get_extra_data(handle.get(), "cget", &value), APP_CONTROL_ERROR_KEY_NOT_FOUND);
    EXPECT_EQ(value, nullptr);

    EXPECT_EQ(app_control_add_extra_data(handle.get(), "", "v"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "k", nullptr), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(handle.get(), "k", "\xff\xfe"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_add_extra_data(nullptr, "k", "v"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_set_operation(handle.get(), "\xc3"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_control_set_app_id(handle.get(), "not a bus name"), APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ExtraDataOf(handle.get()).size(), 3u);
    EXPECT_EQ(Operation(handle.get()), APP_CONTROL_OPERATION_DEFAULT);
}

TEST_F(AppContract, ALaunchRequestReachesItsTargetAndRepliesBeforeReturning)
{
    driver.SetApp(kViewer, Availability::Running);
    Handle handle = RequestTo(kViewer, {{"level", "35"}, {"mute", "off"}, {"level", "40"}});
    Reply reply;
    EXPECT_EQ(Send(handle.get(), &reply), APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(reply.calls, 1);
    EXPECT_EQ(reply.result, APP_CONTROL_ERROR_NONE);
    EXPECT_TRUE(reply.withReply);
    EXPECT_EQ(driver.Launches(), (std::vector<Launch>{{kViewer, "show", {{"level", "40"}, {"mute", "off"}}}}));

    Handle anonymous = NewHandle();
    Reply none;
    EXPECT_EQ(Send(anonymous.get(), &none), APP_CONTROL_ERROR_INVALID_PARAMETER) << "no app id";
    EXPECT_EQ(none.calls, 0);
}

TEST_F(AppContract, AMissingOrSilentTargetFailsTheLaunchAndTheReplySaysSo)
{
    const std::pair<Availability, int> cases[] = {{Availability::Missing, APP_CONTROL_ERROR_APP_NOT_FOUND},
                                                  {Availability::Silent, APP_CONTROL_ERROR_LAUNCH_FAILED}};
    for (const auto &[availability, code] : cases) {
        driver.SetApp(kViewer, availability);
        Handle handle = RequestTo(kViewer, {{"level", "1"}});
        Reply reply;
        EXPECT_LE(ElapsedMs([&] { EXPECT_EQ(Send(handle.get(), &reply), code); }), kSilentCallBoundMs);
        EXPECT_EQ(reply.calls, 1);
        EXPECT_EQ(reply.result, code);
        EXPECT_FALSE(reply.withReply);
    }
    EXPECT_TRUE(driver.Launches().empty());
}

// What one run of the service loop saw.
struct LoopRun {
    enum End { ExitFromAnotherThread, ExitInCreate, SigtermInCreate, ExitAndCreateFails } end = ExitFromAnotherThread;
    std::vector<std::string> steps;
    std::vector<Launch> requests;
    std::thread::id requestThread;
    std::thread exiter;
};

bool Create(void *data)
{
    auto *run = static_cast<LoopRun *>(data);
    run->steps.push_back("create");
    if (run->end == LoopRun::ExitInCreate || run->end == LoopRun::ExitAndCreateFails)
        service_app_exit();
    if (run->end == LoopRun::SigtermInCreate)
        raise(SIGTERM);
    if (run->end == LoopRun::ExitFromAnotherThread)
        Driver().SendLaunchRequest("debug", {{"cset", "1"}, {"key", "value"}});
    return run->end != LoopRun::ExitAndCreateFails;
}

void Serve(app_control_h request, void *data)
{
    auto *run = static_cast<LoopRun *>(data);
    run->steps.push_back("app_control");
    run->requests.push_back(Launch{"", Operation(request), ExtraDataOf(request)});
    run->requestThread = std::this_thread::get_id();
    run->exiter = std::thread(service_app_exit);
}

// Runs the loop with a deadline: one still running after 5 s is ended and the run marked.
int RunService(LoopRun &run)
{
    service_app_lifecycle_callback_s callbacks{};
    callbacks.create = Create;
    callbacks.app_control = Serve;
    callbacks.terminate = [](void *data) { static_cast<LoopRun *>(data)->steps.push_back("terminate"); };
    guint guard = g_timeout_add_seconds(5, [](gpointer data) {
        static_cast<LoopRun *>(data)->steps.push_back("deadline");
        service_app_exit();
        return G_SOURCE_REMOVE;
    }, &run);
    const int result = service_app_main(0, nullptr, &callbacks, &run);
    if (std::find(run.steps.begin(), run.steps.end(), "deadline") == run.steps.end())
        g_source_remove(guard);
    if (run.exiter.joinable())
        run.exiter.join();
    return result;
}

TEST_F(AppContract, TheLoopServesLaunchRequestsOnTheMainThreadUntilExitThenTerminates)
{
    LoopRun run;
    EXPECT_EQ(RunService(run), 0);
    EXPECT_EQ(run.steps, (std::vector<std::string>{"create", "app_control", "terminate"}));
    EXPECT_EQ(run.requests, (std::vector<Launch>{{"", "debug", {{"cset", "1"}, {"key", "value"}}}}));
    EXPECT_EQ(run.requestThread, std::this_thread::get_id());
}

TEST_F(AppContract, ExitOrSigtermDuringCreateEndsTheLoopAtOnceAndAFailedCreateSkipsIt)
{
    for (LoopRun::End end : {LoopRun::ExitInCreate, LoopRun::SigtermInCreate}) {
        LoopRun run;
        run.end = end;
        EXPECT_EQ(RunService(run), 0);
        EXPECT_EQ(run.steps, (std::vector<std::string>{"create", "terminate"})) << end;
    }
    LoopRun failing;
    failing.end = LoopRun::ExitAndCreateFails;
    EXPECT_LT(RunService(failing), 0);
    EXPECT_EQ(failing.steps, std::vector<std::string>{"create"});
    LoopRun next;
    EXPECT_EQ(RunService(next), 0);
    EXPECT_EQ(next.steps, (std::vector<std::string>{"create", "app_control", "terminate"}))
        << "the exit requests of an ended loop and of a failed create end no later loop";
    EXPECT_LT(service_app_main(0, nullptr, nullptr, nullptr), 0);
}

} // namespace
} // namespace contract
