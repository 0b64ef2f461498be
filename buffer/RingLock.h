#pragma once

#include <pthread.h>

namespace vnlog {

/** Holds the ring buffer's mutex while in scope; cancellation releases it, too. */
class RingLock {
  public:
    enum Taken { Held };

    explicit RingLock(pthread_mutex_t& mutex) : mMutex(mutex) { pthread_mutex_lock(&mMutex); }
    /** Takes over a mutex that the caller has locked. */
    RingLock(pthread_mutex_t& mutex, Taken) : mMutex(mutex) {}
    ~RingLock() { pthread_mutex_unlock(&mMutex); }
    RingLock(const RingLock&) = delete;
    RingLock& operator=(const RingLock&) = delete;

  private:
    pthread_mutex_t& mMutex;
};

} // namespace vnlog
