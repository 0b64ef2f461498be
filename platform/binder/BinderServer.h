#pragma once

#include "base/Handles.h"

#include <binder/IBinder.h>
#include <map>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace android {

/**
 * Serves the published services of this process on a few threads. A connection occupies a thread only while
 * one of its requests runs: one that says nothing, or half of something, holds nobody up.
 */
class BinderServer {
  public:
    static BinderServer& instance();
    ~BinderServer();

    /** Makes the service reachable. NO_ERROR or the negative error number. */
    status_t publish(const std::string& name, const sp<IBinder>& service);
    /** Starts the threads, once. */
    void startThreads();
    /** The service of this process with that name, or null. */
    sp<IBinder> find(const std::string& name);
    /** Ends the threads after the requests that they run, removes the sockets and lets go of the services. */
    void shutDown();

  private:
    struct Endpoint { ///< a socket that is waited for: listening when `connected` is false
        vnlog::FileDescriptor socket;
        sp<IBinder> service;
        bool connected;
    };

    BinderServer() = default;
    void serve();
    void accept(Endpoint& endpoint);
    bool serveRequest(const Endpoint& endpoint);
    // With mMutex held:
    bool prepare();
    void watch(int fd, bool isNew);
    void add(vnlog::FileDescriptor socket, const sp<IBinder>& service, bool connected);
    void drop(int fd);

    std::mutex mMutex; ///< guards everything below
    std::map<int, Endpoint> mEndpoints;
    std::map<std::string, sp<IBinder>> mServices;
    std::vector<std::string> mPaths;
    vnlog::FileDescriptor mPoll;
    vnlog::FileDescriptor mEnd; ///< readable when the threads are to end
    std::vector<std::thread> mThreads;
};

} // namespace android
