#pragma once

#include "base/Handles.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/*
 * The stand-in for the logger driver: the devices main and system as sockets, served by one thread of the
 * process that embeds it. Each device holds entries up to its capacity and then drops the oldest; every
 * reader has a position of its own. What it does not promise: a few entries are on their way to a reader
 * already and survive a flush, and what the devices hold goes with the process.
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
     * made; none is left then. To be called once.
     */
    [[nodiscard]] bool start(const std::vector<std::string>& paths, size_t capacity = kCapacity);

  private:
    struct Device;
    struct Client;

    void serve();
    void acceptClients(Device& device);
    bool serveClient(Client& client, short events);
    bool greet(Client& client);
    bool takeEntry(Client& client);
    bool sendEntries(Client& client);
    void storeWaiting(Client& client);
    bool isUnread(const Device& device, uint64_t number) const;

    std::vector<std::unique_ptr<Device>> mDevices;
    std::vector<std::unique_ptr<Client>> mClients;
    FileDescriptor mWakeUp;
    std::atomic<bool> mEnding{false};
    std::thread mThread;
};

} // namespace vnlog::platform
