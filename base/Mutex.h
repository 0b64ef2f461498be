// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ctime>
#include <mutex>

/*
 * Locks whose use the compiler checks: clang with -Wthread-safety reports every access to a guarded member
 * without its lock. Other compilers see plain mutexes.
 */
#if defined(__clang__)
#define VNLOG_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define VNLOG_THREAD_SAFETY(attribute)
#endif

#define VNLOG_GUARDED_BY(role) VNLOG_THREAD_SAFETY(guarded_by(role)) ///< of a member
#define VNLOG_PT_GUARDED_BY(role) VNLOG_THREAD_SAFETY(pt_guarded_by(role)) ///< of what a member points to
#define VNLOG_REQUIRES(...) VNLOG_THREAD_SAFETY(requires_capability(__VA_ARGS__)) ///< the caller holds it
#define VNLOG_EXCLUDES(...) VNLOG_THREAD_SAFETY(locks_excluded(__VA_ARGS__)) ///< the caller does not hold it
#define VNLOG_ACQUIRES(...) VNLOG_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define VNLOG_RELEASES(...) VNLOG_THREAD_SAFETY(release_capability(__VA_ARGS__))
#define VNLOG_SCOPED_LOCK VNLOG_THREAD_SAFETY(scoped_lockable)
/** For a function that reaches guarded members where no other thread can: say why. */
#define VNLOG_UNCHECKED VNLOG_THREAD_SAFETY(no_thread_safety_analysis)

namespace vnlog {

/**
 * A lock as the compiler's analysis knows it. State records are plain and hold no mutex, so their members
 * name the role of the lock that guards them; a lock is declared as `struct NameLock { static LockRole role;
 * };`.
 */
struct VNLOG_THREAD_SAFETY(capability("lock")) LockRole {};

template <class Lock> class LockGuard;
template <class Lock> class PatientLockGuard;

/** The mutex behind a role. A thread that waits with it held must have cancellation disabled, or releases by
 * unwinding. */
template <class Lock> class Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

  private:
    friend class LockGuard<Lock>;
    friend class PatientLockGuard<Lock>;
    std::mutex mMutex;
};

/** Holds a mutex while in scope; unwinding by cancellation releases it, too. */
template <class Lock> class VNLOG_SCOPED_LOCK LockGuard {
  public:
    explicit LockGuard(Mutex<Lock>& mutex) VNLOG_ACQUIRES(Lock::role) : mMutex(mutex.mMutex) {
        mMutex.lock();
    }
    ~LockGuard() VNLOG_RELEASES() { mMutex.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    std::mutex& mMutex;
};

/**
 * Holds a mutex while in scope if it is to be had in so many milliseconds; looks every 5. The compiler does
 * not check what is done with it: only where held() says so may guarded members be used.
 */
template <class Lock> class PatientLockGuard {
  public:
    PatientLockGuard(Mutex<Lock>& mutex, int milliseconds) : mMutex(mutex.mMutex) {
        constexpr int kLookMs = 5;
        for (int left = milliseconds; !(mHeld = mMutex.try_lock()) && left > 0; left -= kLookMs) {
            timespec pause{0, kLookMs * 1000000L};
            (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr); // a signal only makes it shorter
        }
    }
    ~PatientLockGuard() {
        if (mHeld)
            mMutex.unlock();
    }
    PatientLockGuard(const PatientLockGuard&) = delete;
    PatientLockGuard& operator=(const PatientLockGuard&) = delete;

    bool held() const { return mHeld; }

  private:
    std::mutex& mMutex;
    bool mHeld = false;
};

} // namespace vnlog
