// Audio control on the host: a client of org.nimbos.AudioControl on the system bus.
#include "nimbos/audio_control.h"

#include "PlatformService.h"

namespace {

using nimbos::kServiceOk;

class AudioControlClient final : public IAudioControl {
public:
    int getUsbOutMute(bool *mute) override
    {
        if (!mute)
            return nimbos::kServiceInvalidParameter;
        gboolean value = FALSE;
        int result = m_service.ReadBoolean("GetUsbOutMute", nullptr, &value);
        if (result == kServiceOk)
            *mute = value;
        return result;
    }

    int setUsbOutMute(bool mute) override
    {
        return m_service.Command("SetUsbOutMute", g_variant_new("(b)", gboolean(mute)));
    }

    int getUsbOutGain(unsigned int *gain) override { return ReadUnsigned("GetUsbOutGain", gain); }

    int setUsbOutGain(unsigned int gain) override
    {
        return m_service.Command("SetUsbOutGain", g_variant_new("(u)", guint32(gain)));
    }

    int getUsbOutDelay(unsigned int *delay) override { return ReadUnsigned("GetUsbOutDelay", delay); }

    int setUsbOutDelay(unsigned int delay) override
    {
        return m_service.Command("SetUsbOutDelay", g_variant_new("(u)", guint32(delay)));
    }

private:
    int ReadUnsigned(const char *method, unsigned int *value) const
    {
        return value ? m_service.ReadUint32(method, nullptr, value) : nimbos::kServiceInvalidParameter;
    }

    const nimbos::PlatformService m_service{"org.nimbos.AudioControl"};
};

} // namespace

IAudioControl *IAudioControl::getInstance()
{
    static AudioControlClient instance;
    return &instance;
}
