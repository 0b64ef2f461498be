#pragma once

#include "base/Handles.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/*
 * The stand-in for the logger driver: the devices main and system as sockets, served by one thread of the
 * process that embeds it. Each device holds entries up to its capacity and then drops the oldest; every
 * reader has a position of its own. Unlike the driver's, entries that are on their way to a reader already
 * survive a flush, and what the devices hold goes with the process.
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
     * made, EINVAL for a capacity that does not hold every entry or is no answer; none is left then. To be
     * called once.
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
    void serve();
    void serveEndpoint(Endpoint& endpoint, uint32_t events);
    void acceptClient(Device& device);
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
    std::thread mThread;
};

} // namespace vnlog::platform
