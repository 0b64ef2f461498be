// SPDX-License-Identifier: Apache-2.0
#include "platform/binder/BinderServer.h"

#include "base/Diagnostics.h"
#include "platform/binder/Transport.h"
#include "platform/unix/UnixSocket.h"

#include <binder/Parcel.h>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace android {

using transport::kMagic;
using transport::kMaxParcel;
using transport::ReplyHeader;
using transport::RequestHeader;
using vnlog::FileDescriptor;

namespace {

constexpr size_t kThreads = 4;
constexpr size_t kMaxEndpoints = 64; ///< sockets at a time; the process has other uses for its descriptors
constexpr mode_t kSocketMode = 0600;
constexpr uint64_t kEndId = 0; ///< in the place of an endpoint's number: the threads are to end

/** Sends a reply without waiting: a client that does not take it loses its connection. */
bool sendReply(int fd, status_t status, const Parcel& reply) {
    ReplyHeader header{status, static_cast<uint32_t>(reply.dataSize())};
    std::vector<uint8_t> packet = transport::makePacket(header, reply);
    transport::Message message(packet.data(), packet.size());
    message.attach(reply.descriptors());
    return sendmsg(fd, &message.header, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

} // namespace

BinderServer& BinderServer::instance() {
    static BinderServer server;
    return server;
}

BinderServer::~BinderServer() {
    shutDown();
}

bool BinderServer::prepare() {
    if (mPoll.valid())
        return true;
    mEnd = FileDescriptor(eventfd(0, EFD_CLOEXEC));
    mPoll = FileDescriptor(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN; // level-triggered: every thread sees the end
    event.data.u64 = kEndId;
    return mEnd.valid() && mPoll.valid() && epoll_ctl(mPoll.get(), EPOLL_CTL_ADD, mEnd.get(), &event) == 0;
}

status_t BinderServer::publish(const std::string& name, const sp<IBinder>& service) {
    std::lock_guard<std::mutex> lock(mMutex);
    std::string path = transport::socketPath(name);
    FileDescriptor socket = vnlog::platform::listenPacketSocket(path.c_str(), kSocketMode);
    if (!socket.valid() || !prepare())
        return -errno;
    mServices[name] = service;
    mPaths.push_back(path);
    add(std::move(socket), service, false);
    return NO_ERROR;
}

status_t BinderServer::startThreads() {
    std::lock_guard<std::mutex> lock(mMutex);
    int error = prepare() ? 0 : errno;
    while (error == 0 && mThreads.size() < kThreads) {
        pthread_t thread;
        error = pthread_create(&thread, nullptr, runThread, this);
        if (error == 0) {
            (void)pthread_setname_np(thread, "binder"); // a nameless thread works as well
            mThreads.push_back(thread);
        }
    }
    if (error != 0)
        vnlog::logError("binder: %zu of %zu threads run: %s", mThreads.size(), kThreads,
                        std::strerror(error));
    return -error;
}

void* BinderServer::runThread(void* server) {
    static_cast<BinderServer*>(server)->serve();
    return nullptr;
}

sp<IBinder> BinderServer::find(const std::string& name) {
    std::lock_guard<std::mutex> lock(mMutex);
    auto found = mServices.find(name);
    return found != mServices.end() ? found->second : nullptr;
}

void BinderServer::shutDown() {
    std::vector<pthread_t> threads;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        uint64_t one = 1;
        if (mEnd.valid())
            (void)!write(mEnd.get(), &one, sizeof one);
        threads.swap(mThreads);
    }
    for (pthread_t thread : threads)
        pthread_join(thread, nullptr);
    std::map<std::string, sp<IBinder>> services; // let go of outside the lock: this may end a service
    std::map<uint64_t, Endpoint> endpoints;
    std::lock_guard<std::mutex> lock(mMutex);
    for (const std::string& path : mPaths)
        unlink(path.c_str());
    mPaths.clear();
    services.swap(mServices);
    endpoints.swap(mEndpoints);
    mPoll = FileDescriptor();
    mEnd = FileDescriptor();
}

/** One thread: each socket is handed to one thread at a time and waited for again when that has done with it.
 */
void BinderServer::serve() {
    for (;;) {
        epoll_event event{};
        if (epoll_wait(mPoll.get(), &event, 1, -1) != 1)
            continue; // a signal
        uint64_t id = event.data.u64;
        if (id == kEndId)
            return;
        Endpoint* endpoint = take(id);
        if (endpoint == nullptr)
            continue; // it gave way in the meantime
        bool goesOn = true;
        if (endpoint->connected)
            goesOn = serveRequest(*endpoint);
        else
            accept(*endpoint);
        giveBack(id, goesOn);
    }
}

/** The endpoint, which stays until this thread gives it back; null when it is gone. */
BinderServer::Endpoint* BinderServer::take(uint64_t id) {
    std::lock_guard<std::mutex> lock(mMutex);
    auto found = mEndpoints.find(id);
    if (found == mEndpoints.end())
        return nullptr;
    found->second.busy = true;
    return &found->second;
}

void BinderServer::giveBack(uint64_t id, bool goesOn) {
    std::lock_guard<std::mutex> lock(mMutex);
    Endpoint& endpoint = mEndpoints.at(id);
    endpoint.busy = false;
    endpoint.quietSince = std::chrono::steady_clock::now();
    if (goesOn)
        watch(id, false);
    else
        mEndpoints.erase(id);
}

/** Takes a connection in; hangs up on one too many. */
void BinderServer::accept(const Endpoint& listener) {
    FileDescriptor socket(accept4(listener.socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.valid()) {
        pollfd end{mEnd.get(), POLLIN, 0};
        if (vnlog::platform::lacksResources(errno)) // nobody looks at the listener until it is given back
            (void)poll(&end, 1, static_cast<int>(vnlog::platform::kAcceptPause.count()));
        return;
    }
    std::lock_guard<std::mutex> lock(mMutex);
    if (mEndpoints.size() < kMaxEndpoints || makeRoom())
        add(std::move(socket), listener.service, true);
}

/** Drops the connection that has been quiet for the longest time, if that is long enough. */
bool BinderServer::makeRoom() {
    auto quietest = mEndpoints.end();
    for (auto place = mEndpoints.begin(); place != mEndpoints.end(); ++place) {
        const Endpoint& endpoint = place->second;
        char request; // one that has been sent and waits for a thread
        bool canGo = endpoint.connected && !endpoint.busy &&
                     recv(endpoint.socket.get(), &request, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
        if (canGo && (quietest == mEndpoints.end() || endpoint.quietSince < quietest->second.quietSince))
            quietest = place;
    }
    if (quietest == mEndpoints.end() ||
        std::chrono::steady_clock::now() - quietest->second.quietSince < vnlog::platform::kPatience)
        return false;
    mEndpoints.erase(quietest);
    return true;
}

/** Runs one request. False when the connection is over. */
bool BinderServer::serveRequest(const Endpoint& endpoint) {
    std::vector<uint8_t> packet(sizeof(RequestHeader) + kMaxParcel);
    int fd = endpoint.socket.get();
    ssize_t length = recv(fd, packet.data(), packet.size(), MSG_TRUNC);
    if (length <= 0)
        return length < 0 && (errno == EAGAIN || errno == EINTR);
    Parcel reply;
    RequestHeader header{};
    auto bytes = static_cast<size_t>(length);
    if (bytes < sizeof header || bytes > packet.size())
        return sendReply(fd, BAD_VALUE, reply);
    std::memcpy(&header, packet.data(), sizeof header);
    if (header.magic != kMagic || header.size != bytes - sizeof header)
        return sendReply(fd, BAD_VALUE, reply);
    Parcel data;
    data.setData(packet.data() + sizeof header, header.size);
    status_t status = endpoint.service->transact(header.code, data, &reply, header.flags);
    if (reply.dataSize() > kMaxParcel)
        return sendReply(fd, FAILED_TRANSACTION, Parcel()); // what there is to tell does not fit
    return sendReply(fd, status, reply);
}

void BinderServer::add(FileDescriptor socket, const sp<IBinder>& service, bool connected) {
    mEndpoints.emplace(++mLastId, Endpoint{std::move(socket), service, connected});
    watch(mLastId, true);
}

void BinderServer::watch(uint64_t id, bool isNew) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.u64 = id;
    int fd = mEndpoints.at(id).socket.get();
    if (epoll_ctl(mPoll.get(), isNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event) != 0)
        mEndpoints.erase(id);
}

} // namespace android
