// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/types.h>
#include <vector>

/*
 * The stand-in for the logger driver: the devices main and system as sockets, served by one thread of the
 * process that embeds it. Each device holds entries up to its capacity and then drops the oldest; every
 * reader has a position of its own. Unlike the driver's, entries that are on their way to a reader already
 * survive a flush, and what the devices hold goes with the process.
 *
 * A reader of batches is told what it has lost since it was opened: entries that were dropped before it was
 * given them, and packets of writers that are no whole entry or a too large one. The latter are told with the
 * next entry that the reader is given, the former in the place where they are missing. What a flush removes
 * is not lost.
 *
 * There is room for 128 clients. When all is taken, one that has not said within kPatience what it wants to
 * be gives way. Without descriptors for more the devices pause; who waits is served later.
 */
namespace vnlog::platform {

class LoggerDriver {
  public:
    /** Bytes that each device holds unless stated otherwise. */
    static constexpr size_t kCapacity = 262144;

    LoggerDriver();
    /** Ends the thread and removes the devices. */
    ~LoggerDriver();
    LoggerDriver(const LoggerDriver&) = delete;
    LoggerDriver& operator=(const LoggerDriver&) = delete;

    /**
     * Makes a device at each of the paths and starts to serve them. False with errno set when one cannot be
     * made, EINVAL for a capacity that does not hold every entry or is no answer, EAGAIN when no thread can
     * be had; none is left then. To be called once.
     */
    [[nodiscard]] bool start(const std::vector<std::string>& paths, size_t capacity = kCapacity);

  private:
    struct Incoming;
    struct Outgoing;
    struct Device;
    struct Endpoint;

    bool makeDevices(const std::vector<std::string>& paths, size_t capacity);
    void removeDevices();
    bool watch(int operation, Endpoint& endpoint, uint32_t events) const;
    static void* runThread(void* driver);
    void serve();
    void pauseListening();
    int listenAgain();
    void serveEndpoint(Endpoint& endpoint, uint32_t events);
    void acceptClient(Device& device);
    bool makeRoom(pid_t newcomer);
    void greet(Endpoint& client);
    bool admit(Endpoint& client, uint32_t role);
    void takeEntries(Endpoint& writer);
    bool storeWaiting(Device& device);
    void deliver(Device& device);
    void sendEntries(Endpoint& reader);
    void hangUp(Endpoint& client);
    void removeGone();

    std::vector<std::unique_ptr<Device>> mDevices;
    std::vector<std::unique_ptr<Endpoint>> mClients;
    bool mSomeGone = false; ///< a client was hung up on and is still listed
    std::unique_ptr<Incoming> mIncoming; ///< of the writers that do not wait
    std::unique_ptr<Outgoing> mOutgoing;
    FileDescriptor mEvents;
    FileDescriptor mWakeUp;
    std::atomic<bool> mEnding{false};
    bool mPaused = false; ///< nobody is let in before mPauseEnd
    std::chrono::steady_clock::time_point mPauseEnd;
    bool mRunning = false; ///< mThread is to be joined
    pthread_t mThread{};
};

} // namespace vnlog::platform
