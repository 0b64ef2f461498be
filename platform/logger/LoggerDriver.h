// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <string>
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
 * Every user may write. Only the user of the process and root may read and flush: a log holds what its users
 * do, and a flush throws away what nobody has read yet.
 *
 * There is room for 128 clients. When all is taken, one that has not said within kPatience what it wants to
 * be gives way. Without descriptors for more the devices pause; who waits is served later.
 */
namespace vnlog::platform {

/** The devices of one process: made by start, served until the destructor. The host's, on any one thread. */
class LoggerDriver {
  public:
    /** Bytes that each device holds unless stated otherwise. */
    static constexpr size_t kCapacity = 262144;

    /** Makes nothing yet. */
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
    class Server;

    std::unique_ptr<Server> mServer;
};

} // namespace vnlog::platform
