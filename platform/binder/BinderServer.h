// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <binder/IBinder.h>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace android {

/**
 * Serves the published services of this process on a few threads. A connection occupies a thread only while
 * one of its requests runs: one that says nothing, or half of something, holds nobody up. It may stay as long
 * as there is room; when there is none, the one that has sent no request for the longest time gives way to a
 * new one, once that time is kPatience. Without descriptors the listener pauses, and who waits is served
 * later.
 */
class BinderServer {
  public:
    static BinderServer& instance();
    ~BinderServer();

    /** Makes the service reachable. NO_ERROR or the negative error number. */
    status_t publish(const std::string& name, const sp<IBinder>& service);
    /** Starts the threads that do not run yet. NO_ERROR, or the negative error number, which is reported. */
    status_t startThreads();
    /** The service of this process with that name, or null. */
    sp<IBinder> find(const std::string& name);
    /** Ends the threads after the requests that they run, removes the sockets and lets go of the services. */
    void shutDown();

  private:
    struct Endpoint { ///< a socket that is waited for: listening when `connected` is false
        vnlog::FileDescriptor socket;
        sp<IBinder> service;
        bool connected;
        bool busy = false; ///< a thread works on it, and nobody else drops it
        std::chrono::steady_clock::time_point quietSince = std::chrono::steady_clock::now();
    };

    BinderServer() = default;
    static void* runThread(void* server);
    void serve();
    Endpoint* take(uint64_t id);
    void giveBack(uint64_t id, bool goesOn);
    void accept(const Endpoint& listener);
    bool serveRequest(const Endpoint& endpoint);
    // With mMutex held:
    bool prepare();
    bool makeRoom();
    void watch(uint64_t id, bool isNew);
    void add(vnlog::FileDescriptor socket, const sp<IBinder>& service, bool connected);

    std::mutex mMutex; ///< guards everything below
    std::map<uint64_t, Endpoint> mEndpoints; ///< by a number that never comes again, unlike a descriptor's
    uint64_t mLastId = 0;
    std::map<std::string, sp<IBinder>> mServices;
    std::vector<std::string> mPaths;
    vnlog::FileDescriptor mPoll;
    vnlog::FileDescriptor mEnd; ///< readable when the threads are to end
    std::vector<pthread_t> mThreads;
};

} // namespace android
