// Audio control on the host: a client of org.nimbos.AudioControl on the system bus.
#include "nimbos/audio_control.h"

#include "PlatformService.h"

namespace {

using nimbos::kServiceOk;
using nimbos::PlatformService;

class AudioControlClient final : public IAudioControl {
public:
    int getUsbOutMute(bool *mute) override
    {
        if (!mute)
            return nimbos::kServiceInvalidParameter;
        gboolean value = FALSE;
        int result = Read("GetUsbOutMute", "(b)", &value);
        if (result == kServiceOk)
            *mute = value;
        return result;
    }

    int setUsbOutMute(bool mute) override { return Write("SetUsbOutMute", g_variant_new("(b)", gboolean(mute))); }

    int getUsbOutGain(unsigned int *gain) override { return ReadUnsigned("GetUsbOutGain", gain); }

    int setUsbOutGain(unsigned int gain) override { return Write("SetUsbOutGain", g_variant_new("(u)", guint32(gain))); }

    int getUsbOutDelay(unsigned int *delay) override { return ReadUnsigned("GetUsbOutDelay", delay); }

    int setUsbOutDelay(unsigned int delay) override
    {
        return Write("SetUsbOutDelay", g_variant_new("(u)", guint32(delay)));
    }

private:
    // `type` is a one-value tuple type, also the format that unpacks it into `value`.
    int Read(const char *method, const char *type, void *value) const
    {
        g_autoptr(GVariant) reply = nullptr;
        int result = m_service.Call(method, nullptr, G_VARIANT_TYPE(type), &reply);
        if (result == kServiceOk)
            g_variant_get(reply, type, value);
        return result;
    }

    int ReadUnsigned(const char *method, unsigned int *value) const
    {
        if (!value)
            return nimbos::kServiceInvalidParameter;
        guint32 read = 0;
        int result = Read(method, "(u)", &read);
        if (result == kServiceOk)
            *value = read;
        return result;
    }

    int Write(const char *method, GVariant *arguments) const
    {
        return m_service.Call(method, arguments, G_VARIANT_TYPE_UNIT);
    }

    const PlatformService m_service{"org.nimbos.AudioControl"};
};

} // namespace

IAudioControl *IAudioControl::getInstance()
{
    static AudioControlClient instance;
    return &instance;
}
