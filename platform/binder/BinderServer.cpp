#include "platform/binder/BinderServer.h"

#include "platform/binder/Transport.h"
#include "platform/sysroot/SystemRoot.h"
#include "platform/unix/UnixSocket.h"

#include <binder/Parcel.h>
#include <cerrno>
#include <cstring>
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

constexpr int kThreads = 4;
constexpr size_t kMaxEndpoints = 64; ///< sockets at a time; the process has other uses for its descriptors
constexpr mode_t kSocketMode = 0600;

/** Sends a reply without waiting: a client that does not take it loses its connection. */
bool sendReply(int fd, status_t status, const Parcel& reply) {
    ReplyHeader header{status, static_cast<uint32_t>(reply.dataSize())};
    std::vector<uint8_t> packet = transport::makePacket(header, reply);
    return send(fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

} // namespace

std::string transport::socketPath(const std::string& name) {
    vnlog::platform::SystemRoot root;
    (void)root.read(); // of a root that is too long there is no such socket
    return root.path + ("/dev/" + name);
}

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
    event.data.fd = mEnd.get();
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

void BinderServer::startThreads() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!prepare() || !mThreads.empty())
        return;
    for (int i = 0; i < kThreads; ++i) {
        mThreads.emplace_back([this] { serve(); });
        pthread_setname_np(mThreads.back().native_handle(), "binder");
    }
}

sp<IBinder> BinderServer::find(const std::string& name) {
    std::lock_guard<std::mutex> lock(mMutex);
    auto found = mServices.find(name);
    return found != mServices.end() ? found->second : nullptr;
}

void BinderServer::shutDown() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        uint64_t one = 1;
        if (mEnd.valid())
            (void)!write(mEnd.get(), &one, sizeof one);
        threads.swap(mThreads);
    }
    for (std::thread& thread : threads)
        thread.join();
    std::map<std::string, sp<IBinder>> services; // let go of outside the lock: this may end a service
    std::map<int, Endpoint> endpoints;
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
        int fd = event.data.fd;
        if (fd == mEnd.get())
            return;
        Endpoint* endpoint;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            auto found = mEndpoints.find(fd);
            // It stays where it is until this thread drops it.
            endpoint = found != mEndpoints.end() ? &found->second : nullptr;
        }
        if (endpoint == nullptr)
            continue;
        bool goesOn = true;
        if (endpoint->connected)
            goesOn = serveRequest(*endpoint);
        else
            accept(*endpoint);
        std::lock_guard<std::mutex> lock(mMutex);
        if (goesOn)
            watch(fd, false);
        else
            drop(fd);
    }
}

void BinderServer::accept(Endpoint& endpoint) {
    int fd = accept4(endpoint.socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    FileDescriptor socket(fd);
    std::lock_guard<std::mutex> lock(mMutex);
    if (fd >= 0 && mEndpoints.size() < kMaxEndpoints) // one too many is hung up on
        add(std::move(socket), endpoint.service, true);
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
    return sendReply(fd, status, reply);
}

void BinderServer::add(FileDescriptor socket, const sp<IBinder>& service, bool connected) {
    int fd = socket.get();
    mEndpoints[fd] = Endpoint{std::move(socket), service, connected};
    watch(fd, true);
}

void BinderServer::watch(int fd, bool isNew) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.fd = fd;
    if (epoll_ctl(mPoll.get(), isNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event) != 0)
        drop(fd);
}

void BinderServer::drop(int fd) {
    mEndpoints.erase(fd);
}

} // namespace android
