/* Audio control: mute, gain and delay of the USB headset output. C++ only.
 * Every operation returns 0 on success, -5 (-EIO) when the audio-control service failed or is not
 * running, -110 (-ETIMEDOUT) when it gave no answer within 1000 ms and -22 (-EINVAL) for a null
 * pointer; a getter writes its result only on success. Values are in the audio-control service's
 * own units and passed through unchanged.
 * Callable from any thread. */
#pragma once

#ifndef __cplusplus
#error "nimbos/audio_control.h is a C++ interface"
#endif

class IAudioControl {
public:
    /* The process's one instance; never null, lives until the process ends. */
    static IAudioControl *getInstance();

    virtual int getUsbOutMute(bool *mute) = 0;
    virtual int setUsbOutMute(bool mute) = 0;
    virtual int getUsbOutGain(unsigned int *gain) = 0;
    virtual int setUsbOutGain(unsigned int gain) = 0;
    virtual int getUsbOutDelay(unsigned int *delay) = 0;
    virtual int setUsbOutDelay(unsigned int delay) = 0;

protected:
    /* Not virtual, so the six operations are the only slots; the instance is never deleted
     * through this interface. */
    ~IAudioControl() = default;
};
