// Ownership of a C library's handle: UniqueHandle<snd_ctl_t, snd_ctl_close> is a unique_ptr that
// gives its handle back with snd_ctl_close. Shared by the service, the host platform and the tools.
#pragma once

#include <memory>

template <auto Release>
struct ReleaseWith {
    template <typename T>
    void operator()(T *handle) const
    {
        Release(handle);
    }
};

template <typename T, auto Release>
using UniqueHandle = std::unique_ptr<T, ReleaseWith<Release>>;
