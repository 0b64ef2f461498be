// SPDX-License-Identifier: Apache-2.0
#include "platform/logger/LoggerDriver.h"

#include "base/Handles.h"
#include "platform/logger/LoggerDevice.h"
#include "platform/logger/Protocol.h"
#include "platform/unix/UnixSocket.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

namespace vnlog::platform {

namespace {

constexpr mode_t kDeviceMode = 0666; // as on the device: whoever may run may log
/** Keeps what is on its way to a reader small, with room for one packet of any size. */
constexpr int kReaderQueueBytes = 16384;
static_assert(kReaderQueueBytes >= static_cast<int>(kMaxLoggerBatch));

/** Connections at a time; the process has other uses for its descriptors. It has some more itself, so that
 * whoever else is there does not keep its own reader out. */
constexpr size_t kMaxClients = 128;
constexpr size_t kOwnClients = 8;
/** Packets that one call takes or sends; each is an entry, to a batch reader up to kMostBatched of them. */
constexpr size_t kMostPackets = 32;
/** Sockets that one round serves. */
constexpr int kRoundEvents = 32;

static_assert(offsetof(LoggerHeader, length) == 0 && sizeof(LoggerHeader::length) == 2);

/**
 * Entries one behind the other in a ring of bytes. The position of an entry is the number of bytes that were
 * stored before it; the length in its header tells where it ends.
 */
class EntryRing {
  public:
    explicit EntryRing(size_t capacity) : mBytes(new char[capacity]), mCapacity(capacity) {}

    size_t capacity() const { return mCapacity; }
    uint64_t first() const { return mFirst; } ///< position of the oldest entry
    uint64_t end() const { return mEnd; } ///< position that the next entry gets
    size_t held() const { return static_cast<size_t>(mEnd - mFirst); }
    uint64_t firstNumber() const { return mFirstNumber; } ///< entries that were stored before the oldest one
    uint64_t endNumber() const { return mEndNumber; } ///< entries that have been stored
    void clear() {
        mFirst = mEnd;
        mFirstNumber = mEndNumber;
    }
    /** The room for an entry when everything from `kept` on is to stay. */
    size_t room(uint64_t kept) const {
        return mCapacity - static_cast<size_t>(mEnd - std::max(kept, mFirst));
    }
    /** Stores an entry that is not larger than the capacity; drops the oldest until there is room. */
    void put(const iovec& entry) {
        for (; room(mFirst) < entry.iov_len; ++mFirstNumber)
            mFirst += lengthAt(offset(mFirst));
        size_t head = std::min(entry.iov_len, mCapacity - mEndOffset);
        auto bytes = static_cast<const char*>(entry.iov_base);
        std::memcpy(&mBytes[mEndOffset], bytes, head);
        std::memcpy(&mBytes[0], bytes + head, entry.iov_len - head);
        mEnd += entry.iov_len;
        ++mEndNumber;
        mEndOffset = (mEndOffset + entry.iov_len) % mCapacity;
    }
    struct Span {
        size_t bytes;
        uint32_t entries;
    };
    /** The entry at a position and those behind it that fit into a batch, but no more than `most`. */
    Span span(uint64_t position, uint32_t most) const {
        Span found{lengthAt(offset(position)), 1};
        for (; found.entries < most && position + found.bytes < mEnd; ++found.entries) {
            size_t more = lengthAt(offset(position + found.bytes));
            if (found.bytes + more > kMaxLoggerBatch)
                break;
            found.bytes += more;
        }
        return found;
    }
    /** Changes the padding in the header of the entry at a position. */
    void setPadding(uint64_t position, uint16_t padding) {
        char raw[sizeof padding];
        std::memcpy(raw, &padding, sizeof padding);
        for (size_t i = 0; i < sizeof raw; ++i)
            mBytes[offset(position + offsetof(LoggerHeader, padding) + i)] = raw[i];
    }
    /** Tells where so many bytes from a position on lie, the second piece being what is around the end. */
    void locate(uint64_t position, size_t length, iovec (&pieces)[2]) const {
        size_t begin = offset(position);
        size_t head = std::min(length, mCapacity - begin);
        pieces[0] = {&mBytes[begin], head};
        pieces[1] = {&mBytes[0], length - head};
    }

  private:
    size_t offset(uint64_t position) const {
        auto back = static_cast<size_t>(mEnd - position);
        return back <= mEndOffset ? mEndOffset - back : mEndOffset + mCapacity - back;
    }
    size_t lengthAt(size_t begin) const {
        const char raw[] = {mBytes[begin], mBytes[begin + 1 < mCapacity ? begin + 1 : 0]};
        uint16_t payload;
        std::memcpy(&payload, raw, sizeof payload);
        return sizeof(LoggerHeader) + payload;
    }

    std::unique_ptr<char[]> mBytes;
    size_t mCapacity;
    uint64_t mFirst = 0;
    uint64_t mEnd = 0;
    uint64_t mFirstNumber = 0;
    uint64_t mEndNumber = 0;
    size_t mEndOffset = 0; ///< where the byte at mEnd goes
};

/** What one call takes or sends. */
struct Batch {
    Batch() {
        for (size_t i = 0; i < kMostPackets; ++i)
            messages[i].msg_hdr.msg_iov = pieces[i];
    }
    mmsghdr messages[kMostPackets] = {};
    iovec pieces[kMostPackets][2] = {};
};

/** Fills in what is zero in the header of a packet. False when the packet is no whole entry, or too large. */
bool completeEntry(char* packet, size_t bytes, int32_t pid, const timespec& now) {
    LoggerHeader header;
    if (bytes < sizeof header || bytes > kMaxLoggerEntry)
        return false;
    std::memcpy(&header, packet, sizeof header);
    if (header.length != bytes - sizeof header)
        return false;
    if (header.pid == 0)
        header.pid = pid;
    if (header.tid == 0)
        header.tid = pid;
    if (header.seconds == 0 && header.nanoseconds == 0) {
        header.seconds = static_cast<int32_t>(now.tv_sec);
        header.nanoseconds = static_cast<int32_t>(now.tv_nsec);
    }
    header.padding = 0; // the driver's own
    std::memcpy(packet, &header, sizeof header);
    return true;
}

enum class Role { Listener, Stranger, Reader, Writer, LosslessWriter };

} // namespace

/** What serves the devices, and what it serves them with. */
class LoggerDriver::Server {
  public:
    Server() = default;
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    bool start(const std::vector<std::string>& paths, size_t capacity);

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

/** A socket that is watched: the one on which a device listens, or that of a client. */
struct LoggerDriver::Server::Endpoint {
    FileDescriptor socket;
    Device* device;
    Role role;
    int32_t pid = 0;
    bool trusted = false; ///< client: its user is this process's own or root
    std::chrono::steady_clock::time_point since{}; ///< client: when it connected
    uint64_t position = 0; ///< reader: of its next entry, or before the oldest one when it has missed some
    uint64_t number = 0; ///< reader: entries that were stored before that one
    uint64_t lost = 0; ///< reader: entries that it will never get and has not been told of
    bool batches = false; ///< reader: takes several entries in a packet, and is told what it has lost
    bool full = false; ///< reader: its connection takes nothing more for now, and is watched for room
    bool gone = false; ///< to be forgotten at the end of the round
};

/** Packets of one writer, of which those from `next` to `count` are whole entries and to be stored. */
struct LoggerDriver::Server::Incoming {
    Incoming() {
        for (size_t i = 0; i < kMostPackets; ++i) {
            batch.pieces[i][0] = {packets[i], kMaxLoggerEntry};
            batch.messages[i].msg_hdr.msg_iovlen = 1;
        }
    }
    bool empty() const { return next == count; }
    void receive(const Endpoint& writer);

    char packets[kMostPackets][kMaxLoggerEntry];
    Batch batch;
    iovec entries[kMostPackets];
    size_t next = 0;
    size_t count = 0;
    uint32_t refused = 0; ///< packets beside them that are no entries
    bool last = false; ///< nothing comes behind them: the connection is over
};

/** Takes what there is; to be called when nothing is left. */
void LoggerDriver::Server::Incoming::receive(const Endpoint& writer) {
    next = count = refused = 0;
    int got = recvmmsg(writer.socket.get(), batch.messages, kMostPackets, MSG_TRUNC | MSG_DONTWAIT, nullptr);
    last = got < 0 && errno != EAGAIN && errno != EINTR;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    for (int i = 0; i < got && !last; ++i) {
        size_t bytes = batch.messages[i].msg_len;
        last = bytes == 0;
        if (completeEntry(packets[i], bytes, writer.pid, now))
            entries[count++] = {packets[i], bytes};
        else if (!last)
            ++refused;
    }
}

struct LoggerDriver::Server::Outgoing : Batch {
    unsigned gather(const Endpoint& reader);

    uint32_t entries[kMostPackets]; ///< in each packet
};

struct LoggerDriver::Server::Device {
    Device(std::string where, size_t capacity) : path(std::move(where)), ring(capacity) {}
    int32_t answer(uint32_t request, bool trusted);
    uint64_t oldestUnread() const;
    void receive(Incoming& from, const Endpoint& writer);
    void flush();
    void catchUp(Endpoint& reader) const;

    std::string path;
    Endpoint listener{FileDescriptor(), this, Role::Listener};
    EntryRing ring;
    uint64_t offered = 0; ///< the readers were given everything before, as far as their connections took it
    std::vector<Endpoint*> readers;
    std::vector<Endpoint*>
        waiting; ///< lossless writers that have sent something, in the order of their turns
    Incoming incoming; ///< of the first of them
};

int32_t LoggerDriver::Server::Device::answer(uint32_t request, bool trusted) {
    if (request == kRequestSize)
        return static_cast<int32_t>(ring.capacity());
    if (request == kRequestReadable)
        return static_cast<int32_t>(ring.held());
    if (request != kRequestFlush || !trusted) // which throws entries away that nobody has read
        return -1;
    flush();
    return 0;
}

/** Empties the ring. What readers have lost before stays lost, the rest they never miss. */
void LoggerDriver::Server::Device::flush() {
    for (Endpoint* reader : readers)
        catchUp(*reader);
    ring.clear();
    for (Endpoint* reader : readers) {
        reader->position = ring.end();
        reader->number = ring.endNumber();
    }
}

/** Moves a reader to the oldest entry when its next one was dropped, and counts those that it has lost. */
void LoggerDriver::Server::Device::catchUp(Endpoint& reader) const {
    if (reader.position >= ring.first())
        return;
    reader.lost += ring.firstNumber() - reader.number;
    reader.position = ring.first();
    reader.number = ring.firstNumber();
}

/** Takes what a writer has sent; every reader has lost what is refused of it. */
void LoggerDriver::Server::Device::receive(Incoming& from, const Endpoint& writer) {
    from.receive(writer);
    for (Endpoint* reader : readers)
        reader->lost += from.refused;
}

/** Position of the oldest entry that some reader has still to be given. */
uint64_t LoggerDriver::Server::Device::oldestUnread() const {
    uint64_t oldest = ring.end();
    for (const Endpoint* reader : readers)
        if (!reader->gone)
            oldest = std::min(oldest, reader->position);
    return oldest;
}

LoggerDriver::LoggerDriver() : mServer(std::make_unique<Server>()) {}

LoggerDriver::~LoggerDriver() = default;

bool LoggerDriver::start(const std::vector<std::string>& paths, size_t capacity) {
    return mServer->start(paths, capacity);
}

LoggerDriver::Server::~Server() {
    mEnding = true;
    uint64_t one = 1;
    if (mWakeUp.valid())
        (void)!write(mWakeUp.get(), &one, sizeof one);
    if (mRunning)
        pthread_join(mThread, nullptr);
    removeDevices();
}

bool LoggerDriver::Server::start(const std::vector<std::string>& paths, size_t capacity) {
    errno = EINVAL;
    if (capacity < kMaxLoggerEntry || capacity > INT32_MAX || !makeDevices(paths, capacity)) {
        int error = errno;
        removeDevices();
        errno = error;
        return false;
    }
    mIncoming = std::make_unique<Incoming>();
    mOutgoing = std::make_unique<Outgoing>();
    int error = pthread_create(&mThread, nullptr, runThread, this);
    mRunning = error == 0;
    if (!mRunning) {
        removeDevices();
        errno = error;
        return false;
    }
    (void)pthread_setname_np(mThread, "loggerDriver"); // a nameless thread works as well
    return true;
}

void* LoggerDriver::Server::runThread(void* driver) {
    static_cast<Server*>(driver)->serve();
    return nullptr;
}

bool LoggerDriver::Server::makeDevices(const std::vector<std::string>& paths, size_t capacity) {
    mEvents = FileDescriptor(epoll_create1(EPOLL_CLOEXEC));
    mWakeUp = FileDescriptor(eventfd(0, EFD_CLOEXEC));
    epoll_event ending{EPOLLIN, {nullptr}};
    if (!mEvents.valid() || !mWakeUp.valid() ||
        epoll_ctl(mEvents.get(), EPOLL_CTL_ADD, mWakeUp.get(), &ending) != 0)
        return false;
    for (const std::string& path : paths) {
        FileDescriptor listener = listenPacketSocket(path.c_str(), kDeviceMode);
        if (!listener.valid())
            return false;
        mDevices.push_back(std::make_unique<Device>(path, capacity));
        mDevices.back()->listener.socket = std::move(listener);
        if (!watch(EPOLL_CTL_ADD, mDevices.back()->listener, EPOLLIN))
            return false;
    }
    return true;
}

void LoggerDriver::Server::removeDevices() {
    for (auto& device : mDevices)
        unlink(device->path.c_str());
    mDevices.clear();
}

/** Changes what an endpoint is watched for. */
bool LoggerDriver::Server::watch(int operation, Endpoint& endpoint, uint32_t events) const {
    epoll_event event{events, {&endpoint}};
    return epoll_ctl(mEvents.get(), operation, endpoint.socket.get(), &event) == 0;
}

/** One round after the other: takes what has arrived, then gives the readers all that they have room for. */
void LoggerDriver::Server::serve() {
    epoll_event events[kRoundEvents];
    while (!mEnding) {
        int count = epoll_wait(mEvents.get(), events, kRoundEvents, listenAgain());
        for (int i = 0; i < count; ++i)
            if (auto* endpoint = static_cast<Endpoint*>(events[i].data.ptr))
                serveEndpoint(*endpoint, events[i].events);
        for (auto& device : mDevices) {
            do // what a reader takes can make room for a writer that waits
                deliver(*device);
            while (storeWaiting(*device));
        }
        removeGone();
    }
    mClients.clear();
}

/** Keeps a connection that cannot be accepted from waking the thread again and again. */
void LoggerDriver::Server::pauseListening() {
    mPaused = true;
    mPauseEnd = std::chrono::steady_clock::now() + kAcceptPause;
    for (auto& device : mDevices)
        watch(EPOLL_CTL_MOD, device->listener, 0);
}

/** Ends a pause that is over. The milliseconds that are left of one that is not, else -1. */
int LoggerDriver::Server::listenAgain() {
    if (!mPaused)
        return -1;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(mPauseEnd - std::chrono::steady_clock::now());
    if (left.count() > 0)
        return static_cast<int>(left.count());
    mPaused = false;
    for (auto& device : mDevices)
        watch(EPOLL_CTL_MOD, device->listener, EPOLLIN);
    return -1;
}

void LoggerDriver::Server::serveEndpoint(Endpoint& endpoint, uint32_t events) {
    if (endpoint.gone)
        return;
    switch (endpoint.role) {
    case Role::Listener:
        return acceptClient(*endpoint.device);
    case Role::Stranger:
        return greet(endpoint);
    case Role::Reader:
        if ((events & ~static_cast<uint32_t>(EPOLLOUT)) != 0)
            return hangUp(endpoint); // a reader says nothing more; it can only have gone
        return sendEntries(endpoint);
    case Role::Writer:
        return takeEntries(endpoint);
    case Role::LosslessWriter:
        endpoint.device->waiting.push_back(&endpoint);
    }
}

void LoggerDriver::Server::acceptClient(Device& device) {
    FileDescriptor socket(
        accept4(device.listener.socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.valid() && lacksResources(errno))
        return pauseListening();
    ucred peer{};
    socklen_t length = sizeof peer;
    if (!socket.valid() || getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return;
    if (!makeRoom(peer.pid))
        return; // one too many is hung up on: its descriptor belongs to the host
    const bool trusted = peer.uid == 0 || peer.uid == geteuid();
    mClients.push_back(std::make_unique<Endpoint>(Endpoint{
        std::move(socket), &device, Role::Stranger, peer.pid, trusted, std::chrono::steady_clock::now()}));
    if (!watch(EPOLL_CTL_ADD, *mClients.back(), EPOLLIN))
        mClients.pop_back();
}

/** Whether there is room for a client of this process, where need be that of one which keeps silent. */
bool LoggerDriver::Server::makeRoom(pid_t newcomer) {
    size_t most = kMaxClients + (newcomer == getpid() ? kOwnClients : 0);
    auto here = [](const auto& client) { return !client->gone; };
    auto silent = [](const auto& client) { return client->role == Role::Stranger && !client->gone; };
    while (static_cast<size_t>(std::count_if(mClients.begin(), mClients.end(), here)) >= most) {
        auto first = std::find_if(mClients.begin(), mClients.end(), silent); // the longest time, too
        if (first == mClients.end() || std::chrono::steady_clock::now() - (*first)->since < kPatience)
            return false;
        hangUp(**first);
    }
    return true;
}

/** Takes the first packet of a connection; answers a request at once. */
void LoggerDriver::Server::greet(Endpoint& client) {
    LoggerHello hello{};
    ssize_t length = recv(client.socket.get(), &hello, sizeof hello, MSG_TRUNC);
    bool understood = length == sizeof hello && hello.magic == kLoggerMagic;
    if (understood && hello.role == LoggerHello::Control) {
        int32_t answer = client.device->answer(hello.request, client.trusted);
        send(client.socket.get(), &answer, sizeof answer, MSG_NOSIGNAL);
    }
    if (!understood || !admit(client, hello.role))
        hangUp(client);
}

/** Lets a client be what it wants to be. False when that is nothing that lasts. */
bool LoggerDriver::Server::admit(Endpoint& client, uint32_t role) {
    switch (role) {
    case LoggerHello::Reader:
    case LoggerHello::BatchReader:
        if (!client.trusted)
            return false; // a log holds what its users do
        client.role = Role::Reader;
        client.batches = role == LoggerHello::BatchReader;
        client.position = client.device->ring.first();
        client.number = client.device->ring.firstNumber();
        setsockopt(client.socket.get(), SOL_SOCKET, SO_SNDBUF, &kReaderQueueBytes, sizeof kReaderQueueBytes);
        client.device->readers.push_back(&client);
        sendEntries(client);
        return true;
    case LoggerHello::Writer:
        client.role = Role::Writer;
        return true;
    case LoggerHello::LosslessWriter:
        client.role = Role::LosslessWriter;
        return watch(EPOLL_CTL_MOD, client, EPOLLIN | EPOLLONESHOT);
    default:
        return false;
    }
}

/** Stores what a writer has sent that waits for nobody. */
void LoggerDriver::Server::takeEntries(Endpoint& writer) {
    Device& device = *writer.device;
    device.receive(*mIncoming, writer);
    if (mIncoming->last)
        hangUp(writer);
    for (; !mIncoming->empty(); ++mIncoming->next) {
        const iovec& entry = mIncoming->entries[mIncoming->next];
        if (entry.iov_len > device.ring.room(device.offered))
            deliver(device); // nothing is dropped that a reader had no chance to be given
        device.ring.put(entry);
    }
}

/**
 * Stores what waiting writers have sent, in the order of their turns and as far as no reader loses an entry.
 * A writer is watched again once everything that was taken from it is stored. Whether anything was stored.
 */
bool LoggerDriver::Server::storeWaiting(Device& device) {
    Incoming& incoming = device.incoming;
    uint64_t unread = device.oldestUnread();
    bool stored = false;
    while (!device.waiting.empty()) {
        Endpoint& writer = *device.waiting.front();
        if (incoming.empty())
            device.receive(incoming, writer);
        for (; !incoming.empty(); ++incoming.next) {
            const iovec& entry = incoming.entries[incoming.next];
            if (entry.iov_len > device.ring.room(unread))
                return stored;
            device.ring.put(entry);
            stored = true;
        }
        device.waiting.erase(device.waiting.begin());
        if (incoming.last || !watch(EPOLL_CTL_MOD, writer, EPOLLIN | EPOLLONESHOT))
            hangUp(writer);
    }
    return stored;
}

/** Gives every reader what has come since the last time, except those that have no room. */
void LoggerDriver::Server::deliver(Device& device) {
    if (device.offered == device.ring.end())
        return;
    for (Endpoint* reader : device.readers)
        if (!reader->full && !reader->gone)
            sendEntries(*reader);
    device.offered = device.ring.end();
}

/** Makes packets of what comes next for a reader: of one entry when it has lost more than that can tell. */
unsigned LoggerDriver::Server::Outgoing::gather(const Endpoint& reader) {
    const EntryRing& ring = reader.device->ring;
    bool alone = reader.batches && reader.lost > UINT16_MAX;
    uint64_t next = reader.position;
    unsigned count = 0;
    for (; count < (alone ? 1 : kMostPackets) && next < ring.end(); ++count) {
        EntryRing::Span span = ring.span(next, reader.batches && !alone ? kMostBatched : 1);
        ring.locate(next, span.bytes, pieces[count]);
        messages[count].msg_hdr.msg_iovlen = pieces[count][1].iov_len > 0 ? 2 : 1;
        entries[count] = span.entries;
        next += span.bytes;
    }
    return count;
}

/** Gives a reader what its connection takes. */
void LoggerDriver::Server::sendEntries(Endpoint& reader) {
    EntryRing& ring = reader.device->ring;
    bool full = false;
    reader.device->catchUp(reader);
    while (!full && reader.position < ring.end()) {
        unsigned count = mOutgoing->gather(reader);
        uint64_t first = reader.position;
        auto told = static_cast<uint16_t>(reader.batches ? std::min<uint64_t>(reader.lost, UINT16_MAX) : 0);
        ring.setPadding(first, told);
        int sent = sendmmsg(reader.socket.get(), mOutgoing->messages, count, MSG_NOSIGNAL | MSG_DONTWAIT);
        ring.setPadding(first, 0); // other readers have losses of their own
        if (sent < 0 && errno != EAGAIN && errno != EINTR)
            return hangUp(reader);
        for (int i = 0; i < sent; ++i) {
            reader.position += mOutgoing->messages[i].msg_len;
            reader.number += mOutgoing->entries[i];
        }
        reader.lost -= sent > 0 ? told : 0;
        full = sent < static_cast<int>(count); // or gone, which its next event tells
    }
    if (full != reader.full)
        watch(EPOLL_CTL_MOD, reader, full ? EPOLLIN | EPOLLOUT : EPOLLIN);
    reader.full = full;
}

/** Ends a connection. The client itself stays until the end of the round, whose events may name it. */
void LoggerDriver::Server::hangUp(Endpoint& client) {
    // Not left to the closing: a process that is being forked holds the connection for a moment longer.
    watch(EPOLL_CTL_DEL, client, 0);
    client.socket = FileDescriptor();
    client.gone = mSomeGone = true;
}

void LoggerDriver::Server::removeGone() {
    if (!mSomeGone)
        return;
    mSomeGone = false;
    for (auto& device : mDevices) {
        auto& readers = device->readers;
        auto gone = [](const Endpoint* reader) { return reader->gone; };
        readers.erase(std::remove_if(readers.begin(), readers.end(), gone), readers.end());
    }
    auto gone = [](const std::unique_ptr<Endpoint>& client) { return client->gone; };
    mClients.erase(std::remove_if(mClients.begin(), mClients.end(), gone), mClients.end());
}

} // namespace vnlog::platform
