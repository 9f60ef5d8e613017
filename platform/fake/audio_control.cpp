// Fake audio control: the USB output's mute, gain and delay held in memory.
#include "nimbos/audio_control.h"

#include "FakeCore.h"

#include <cerrno>
#include <mutex>

namespace {

using nimbos::fake::Service;
using nimbos::fake::UsbOut;
using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Flag;
using nimbos::fake::detail::Text;

// The codes the other service headers name; audio_control.h only says "negative".
constexpr int kIoError = -EIO;
constexpr int kTimedOut = -ETIMEDOUT;
constexpr int kInvalidParameter = -EINVAL;

struct Output {
    std::mutex lock;
    UsbOut state;
};

Output &TheOutput()
{
    static Output *output = new Output;
    return *output;
}

std::optional<int> EnterMethod(const char *method, std::vector<std::string> args)
{
    return Enter((std::string("IAudioControl::") + method).c_str(), std::move(args));
}

std::optional<int> Unavailable()
{
    return nimbos::fake::detail::Unavailable(Service::AudioControl, kIoError, kTimedOut);
}

template <typename T>
int Read(const char *method, T UsbOut::*field, T *value)
{
    if (auto injected = EnterMethod(method, {}))
        return *injected;
    if (!value)
        return kInvalidParameter;
    if (auto unavailable = Unavailable())
        return *unavailable;
    Output &output = TheOutput();
    std::lock_guard<std::mutex> lock(output.lock);
    *value = output.state.*field;
    return 0;
}

template <typename T>
int Write(const char *method, T UsbOut::*field, T value, std::string text)
{
    if (auto injected = EnterMethod(method, {std::move(text)}))
        return *injected;
    if (auto unavailable = Unavailable())
        return *unavailable;
    Output &output = TheOutput();
    std::lock_guard<std::mutex> lock(output.lock);
    output.state.*field = value;
    return 0;
}

class FakeAudioControl final : public IAudioControl {
public:
    int getUsbOutMute(bool *mute) override { return Read(__func__, &UsbOut::mute, mute); }
    int setUsbOutMute(bool mute) override { return Write(__func__, &UsbOut::mute, mute, Flag(mute)); }
    int getUsbOutGain(unsigned int *gain) override { return Read(__func__, &UsbOut::gain, gain); }
    int setUsbOutGain(unsigned int gain) override { return Write(__func__, &UsbOut::gain, gain, Text(gain)); }
    int getUsbOutDelay(unsigned int *delay) override { return Read(__func__, &UsbOut::delay, delay); }
    int setUsbOutDelay(unsigned int delay) override { return Write(__func__, &UsbOut::delay, delay, Text(delay)); }
};

} // namespace

IAudioControl *IAudioControl::getInstance()
{
    static FakeAudioControl instance;
    return &instance;
}

namespace nimbos::fake {

UsbOut UsbOutput()
{
    Output &output = TheOutput();
    std::lock_guard<std::mutex> lock(output.lock);
    return output.state;
}

void SetUsbOutput(const UsbOut &state)
{
    Output &output = TheOutput();
    std::lock_guard<std::mutex> lock(output.lock);
    output.state = state;
}

namespace detail {

void ResetAudioControl()
{
    SetUsbOutput(UsbOut());
}

} // namespace detail

} // namespace nimbos::fake
