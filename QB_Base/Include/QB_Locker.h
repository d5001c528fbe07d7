// QB_Locker: a recursive lock, and QB_Lock, its scope guard.
//
// A Windows critical section would spin 4000 times before blocking;
// std::recursive_mutex has no such setting, and no lock here is held long.
#pragma once

#include <cassert>
#include <mutex>

class QB_Locker
{
public:
    // The name is for the reader of the code; it is not kept.
    explicit QB_Locker(const char* pszName = nullptr) { (void)pszName; }
    virtual ~QB_Locker() = default;
    QB_Locker(const QB_Locker&) = delete;
    QB_Locker& operator=(const QB_Locker&) = delete;

    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }
    // Takes the lock only if no other thread holds it; tests use it to see
    // whether a lock is free without blocking.
    bool TryLock() { return m_mutex.try_lock(); }

private:
    std::recursive_mutex m_mutex;
};

class QB_Lock
{
public:
    explicit QB_Lock(QB_Locker* lck) : m_lpLocker(lck)
    {
        assert(lck && "lck");
        m_lpLocker->Lock();
    }
    ~QB_Lock() { Unlock(); }
    QB_Lock(const QB_Lock&) = delete;
    QB_Lock& operator=(const QB_Lock&) = delete;

    // Releases early; the destructor then does nothing.
    void Unlock()
    {
        if (m_lpLocker)
        {
            m_lpLocker->Unlock();
            m_lpLocker = nullptr;
        }
    }

private:
    QB_Locker* m_lpLocker;
};
