#include "platform/logger/LoggerDriver.h"

#include "platform/logger/LoggerDevice.h"
#include "platform/logger/Protocol.h"
#include "platform/unix/UnixSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vnlog::platform {

namespace {

constexpr mode_t kDeviceMode = 0666; // as on the device: whoever may run may log
/** Keeps what is on its way to a reader small, with room for one entry of any size. */
constexpr int kReaderQueueBytes = 8192;

/** Connections at a time; the process has other uses for its descriptors. */
constexpr size_t kMaxClients = 128;

using Entry = std::vector<char>;

} // namespace

struct LoggerDriver::Device {
    std::string path;
    FileDescriptor listener;
    size_t capacity;
    std::deque<Entry> entries;
    size_t held = 0; ///< bytes of all entries
    uint64_t first = 0; ///< number of the oldest entry held

    uint64_t end() const { return first + entries.size(); }
};

struct LoggerDriver::Client {
    FileDescriptor socket;
    Device* device;
    uint32_t role = 0; ///< 0 until it has said
    uint64_t position = 0; ///< reader: number of its next entry
    int32_t pid = 0;
    Entry waiting; ///< lossless writer: an entry for which there is no room yet
};

LoggerDriver::LoggerDriver() = default;

LoggerDriver::~LoggerDriver() {
    mEnding = true;
    uint64_t one = 1;
    if (mWakeUp.valid())
        (void)!write(mWakeUp.get(), &one, sizeof one);
    if (mThread.joinable())
        mThread.join();
    for (auto& device : mDevices)
        unlink(device->path.c_str());
}

bool LoggerDriver::start(const std::vector<std::string>& paths, size_t capacity) {
    for (const std::string& path : paths) {
        auto device = std::make_unique<Device>();
        device->path = path;
        device->capacity = capacity;
        device->listener = listenPacketSocket(path.c_str(), kDeviceMode);
        if (!device->listener.valid())
            break;
        mDevices.push_back(std::move(device));
    }
    if (mDevices.size() == paths.size())
        mWakeUp = FileDescriptor(eventfd(0, EFD_CLOEXEC));
    if (!mWakeUp.valid()) {
        int error = errno;
        for (auto& device : mDevices)
            unlink(device->path.c_str());
        mDevices.clear();
        errno = error;
        return false;
    }
    mThread = std::thread([this] { serve(); });
    pthread_setname_np(mThread.native_handle(), "loggerDriver");
    return true;
}

void LoggerDriver::serve() {
    while (!mEnding) {
        std::vector<pollfd> watched{{mWakeUp.get(), POLLIN, 0}};
        for (auto& device : mDevices)
            watched.push_back({device->listener.get(), POLLIN, 0});
        for (auto& client : mClients) {
            bool wantsMore = client->role == LoggerHello::Reader && client->position < client->device->end();
            auto events = static_cast<short>(POLLIN | (wantsMore ? POLLOUT : 0));
            // A writer that waits for room is left alone, also when it has hung up meanwhile.
            watched.push_back({client->waiting.empty() ? client->socket.get() : -1, events, 0});
        }
        if (poll(watched.data(), watched.size(), -1) < 0)
            continue; // a signal
        size_t firstClient = 1 + mDevices.size();
        size_t known = mClients.size(); // those accepted below were not watched yet
        for (size_t i = 0; i < mDevices.size(); ++i) {
            if (watched[1 + i].revents != 0)
                acceptClients(*mDevices[i]);
        }
        for (size_t i = 0; i < known; ++i) {
            short events = watched[firstClient + i].revents;
            if (events != 0 && !serveClient(*mClients[i], events))
                mClients[i]->device = nullptr;
        }
        auto gone = [](const std::unique_ptr<Client>& client) { return client->device == nullptr; };
        mClients.erase(std::remove_if(mClients.begin(), mClients.end(), gone), mClients.end());
        for (auto& client : mClients) // a reader has gone on or away
            if (!client->waiting.empty())
                storeWaiting(*client);
    }
    mClients.clear();
}

void LoggerDriver::acceptClients(Device& device) {
    int fd = accept4(device.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    FileDescriptor socket(fd);
    if (fd < 0 || mClients.size() >= kMaxClients)
        return; // one too many is hung up on: its descriptor belongs to the host
    auto client = std::make_unique<Client>();
    client->socket = std::move(socket);
    client->device = &device;
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0)
        client->pid = peer.pid;
    mClients.push_back(std::move(client));
}

/** False when the connection is over. */
bool LoggerDriver::serveClient(Client& client, short events) {
    if (client.role == 0)
        return greet(client);
    if (client.role == LoggerHello::Reader) {
        if ((events & (POLLIN | POLLHUP | POLLERR)) != 0)
            return false; // a reader says nothing more; it can only have gone
        return sendEntries(client);
    }
    return takeEntry(client);
}

/** Takes the first packet of a connection; answers a request at once. */
bool LoggerDriver::greet(Client& client) {
    LoggerHello hello{};
    ssize_t length = recv(client.socket.get(), &hello, sizeof hello, MSG_TRUNC);
    if (length != sizeof hello || hello.magic != kLoggerMagic)
        return false;
    Device& device = *client.device;
    int32_t answer = -1;
    switch (hello.role) {
    case LoggerHello::Reader:
        client.position = device.first;
        setsockopt(client.socket.get(), SOL_SOCKET, SO_SNDBUF, &kReaderQueueBytes, sizeof kReaderQueueBytes);
        break;
    case LoggerHello::Writer:
    case LoggerHello::LosslessWriter:
        break;
    case LoggerHello::Control:
        if (hello.request == kRequestSize)
            answer = static_cast<int32_t>(device.capacity);
        else if (hello.request == kRequestReadable)
            answer = static_cast<int32_t>(device.held);
        else if (hello.request == kRequestFlush) {
            device.first = device.end();
            device.entries.clear();
            device.held = 0;
            for (auto& reader : mClients)
                if (reader->device == &device)
                    reader->position = device.first;
            answer = 0;
        }
        send(client.socket.get(), &answer, sizeof answer, MSG_NOSIGNAL);
        return false;
    default:
        return false;
    }
    client.role = hello.role;
    return true;
}

/** Takes one entry from a writer. One that is no whole entry is dropped; it harms nobody else. */
bool LoggerDriver::takeEntry(Client& client) {
    char packet[kMaxLoggerEntry];
    ssize_t length = recv(client.socket.get(), packet, sizeof packet, MSG_TRUNC);
    if (length <= 0)
        return length < 0 && (errno == EAGAIN || errno == EINTR);
    LoggerHeader header;
    auto bytes = static_cast<size_t>(length);
    if (bytes < sizeof header || bytes > kMaxLoggerEntry)
        return true;
    std::memcpy(&header, packet, sizeof header);
    if (header.length != bytes - sizeof header)
        return true;
    if (header.pid == 0)
        header.pid = client.pid;
    if (header.tid == 0)
        header.tid = client.pid;
    if (header.seconds == 0 && header.nanoseconds == 0) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        header.seconds = static_cast<int32_t>(now.tv_sec);
        header.nanoseconds = static_cast<int32_t>(now.tv_nsec);
    }
    std::memcpy(packet, &header, sizeof header);
    client.waiting.assign(packet, packet + bytes);
    storeWaiting(client);
    return true;
}

/** Moves a writer's entry into its device, unless it is to wait until no reader loses one by it. */
void LoggerDriver::storeWaiting(Client& client) {
    Device& device = *client.device;
    while (device.held + client.waiting.size() > device.capacity && !device.entries.empty()) {
        if (client.role == LoggerHello::LosslessWriter && isUnread(device, device.first))
            return;
        device.held -= device.entries.front().size();
        device.entries.pop_front();
        ++device.first;
    }
    for (auto& reader : mClients)
        if (reader->device == &device)
            reader->position = std::max(reader->position, device.first);
    device.held += client.waiting.size();
    device.entries.emplace_back(client.waiting.begin(), client.waiting.end()); // of its own, exact size
    client.waiting.clear();
}

/** Whether a reader still has to be given this entry. */
bool LoggerDriver::isUnread(const Device& device, uint64_t number) const {
    return std::any_of(mClients.begin(), mClients.end(), [&](const std::unique_ptr<Client>& client) {
        return client->device == &device && client->role == LoggerHello::Reader && client->position <= number;
    });
}

/** Gives a reader what its connection takes. False when the connection is over. */
bool LoggerDriver::sendEntries(Client& client) {
    Device& device = *client.device;
    while (client.position < device.end()) {
        const Entry& entry = device.entries[client.position - device.first];
        if (send(client.socket.get(), entry.data(), entry.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            if (errno != EAGAIN && errno != EINTR)
                return false;
            break;
        }
        ++client.position;
    }
    return true;
}

} // namespace vnlog::platform
