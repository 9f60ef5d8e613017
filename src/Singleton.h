// Process-wide singletons: every manager class derives from CSingleton<itself> and is reached
// through GetInstance(). Creation and release are serialised per class; an existing instance is
// handed out without taking the lock.
#pragma once

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "Log.h"

template <typename T>
class CSingleton {
public:
    static T *GetInstance()
    {
        LOGD("GetInstance in");
        // Acquire pairs with the release below, so a reader that skips the lock sees a fully
        // constructed object.
        T *instance = m_pInstance.load(std::memory_order_acquire);
        if (instance)
            return instance;

        LOGD("GetInstance in 000");
        std::lock_guard<std::mutex> lock(m_Singleton_mutex); // a failed lock throws std::system_error
        LOGD("GetInstance in 111");
        if (!m_pInstance.load(std::memory_order_relaxed)) {
            LOGD("GetInstance 222");
            m_pInstance.store(new T, std::memory_order_release);
            LOGD("GetInstance 333");
        }
        instance = m_pInstance.load(std::memory_order_relaxed);
        if (!instance) {
            LOGE("Instance is NULL !!!!!");
            // Stays fatal in release builds, where assert() is compiled out.
            LOGE("%s: Assertion `m_pInstance != nullptr' failed.", __PRETTY_FUNCTION__);
            std::abort();
        }
        return instance;
    }

    // Runs fn with the instance (made if there is none) while no other thread can release it:
    // for threads that use an instance the main loop may release and build anew.
    template <typename Fn>
    static auto WithInstance(Fn &&fn)
    {
        std::lock_guard<std::mutex> lock(m_Singleton_mutex);
        T *instance = m_pInstance.load(std::memory_order_relaxed);
        if (!instance) {
            instance = new T;
            m_pInstance.store(instance, std::memory_order_release);
        }
        return fn(*instance);
    }

    // The instance if one has been made; never makes one.
    static T *PeekInstance() { return m_pInstance.load(std::memory_order_acquire); }

    static void ReleaseInstance()
    {
        LOGD("ReleaseInstance");
        std::lock_guard<std::mutex> lock(m_Singleton_mutex);
        T *instance = m_pInstance.exchange(nullptr, std::memory_order_acq_rel);
        delete instance;
    }

protected:
    CSingleton() = default;
    virtual ~CSingleton() = default;

private:
    CSingleton(const CSingleton &) = delete;
    CSingleton &operator=(const CSingleton &) = delete;

    static std::atomic<T *> m_pInstance;
    static std::mutex m_Singleton_mutex;
};

template <typename T>
std::atomic<T *> CSingleton<T>::m_pInstance{nullptr};
template <typename T>
std::mutex CSingleton<T>::m_Singleton_mutex;
