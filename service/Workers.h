// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "service/LogService.h"

namespace vnlog {

class FinishRequest;

/**
 * Starts and ends the three workers' threads; each step is reported. Callers see to it that no worker is
 * started or ended by two at once: a stop of the host ends the readers, after the comeback, which may start
 * one; the flush thread is ended with the command lock held.
 */
class Workers {
  public:
    /** Both must outlive the object. */
    Workers(LogService& service, ServiceParts& parts) : mService(service), mParts(parts) {}

    // False when there is no thread for the worker.

    [[nodiscard]] bool startFlushThread();
    [[nodiscard]] bool startKernelReader();
    [[nodiscard]] bool startAndroidReader();

    /** Asks the readers of these flags, as of serviceStop, to finish what is there for them to read. */
    void askToFinish(const bool* flags);
    /**
     * Waits until a reader that was asked has ended. One that has not come a step further for five seconds,
     * or whose source is switched off, is cancelled. False when it cannot be ended.
     */
    [[nodiscard]] bool endKernelReader();
    [[nodiscard]] bool endAndroidReader();
    /**
     * Waits until the flush thread has written out what is in the ring, or for five seconds in which the ring
     * gets no emptier.
     */
    void drain();
    /** Ends the flush thread; what is still in the ring is dropped or stays in the memory file. False when it
     * cannot be ended. */
    [[nodiscard]] bool endFlushThread();

  private:
    bool start(Flag& running, pthread_t& handle, void* (*body)(void*), const char* name);
    bool joinReader(pthread_t thread, FinishRequest& request, bool listens, const char* name, int* error);
    int awaitEnd(pthread_t thread, const FinishRequest& request);

    LogService& mService;
    ServiceParts& mParts;
};

} // namespace vnlog
