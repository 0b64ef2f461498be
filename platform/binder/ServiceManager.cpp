// SPDX-License-Identifier: Apache-2.0
#include "platform/binder/BinderServer.h"
#include "platform/binder/Transport.h"
#include "platform/unix/UnixSocket.h"

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <utils/String8.h>

namespace android {

using transport::kMagic;
using transport::kMaxParcel;
using transport::ReplyHeader;
using transport::RequestHeader;
using vnlog::FileDescriptor;

namespace {

/** A service in another process; its requests share one connection, one at a time. */
class RemoteBinder : public IBinder {
  public:
    explicit RemoteBinder(FileDescriptor socket) : mSocket(std::move(socket)) {}

    const String16& getInterfaceDescriptor() const override {
        Parcel data, reply;
        std::lock_guard<std::mutex> lock(mDescriptorMutex);
        if (mDescriptor.size() == 0 && exchange(INTERFACE_TRANSACTION, data, &reply, 0) == NO_ERROR)
            mDescriptor = reply.readString16();
        return mDescriptor;
    }

    bool isBinderAlive() const override {
        Parcel data, reply;
        return exchange(PING_TRANSACTION, data, &reply, 0) == NO_ERROR;
    }

    status_t pingBinder() override { return isBinderAlive() ? NO_ERROR : DEAD_OBJECT; }

    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) override {
        Parcel unwanted;
        return exchange(code, data, reply != nullptr ? reply : &unwanted, flags);
    }

  private:
    /** DEAD_OBJECT when the service does not answer any more. */
    status_t exchange(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) const {
        if (data.dataSize() > kMaxParcel || !data.descriptors().empty())
            return BAD_VALUE;
        std::vector<uint8_t> packet(sizeof(ReplyHeader) + kMaxParcel);
        ReplyHeader header{};
        std::lock_guard<std::mutex> lock(mMutex);
        transport::Message message(packet.data(), packet.size());
        ssize_t length = sendRequest(code, data, flags) ? receive(message) : -1;
        bool answered = length >= static_cast<ssize_t>(sizeof header);
        std::memcpy(&header, packet.data(), sizeof header);
        bool whole = answered && header.size == static_cast<size_t>(length) - sizeof header;
        reply->setData(packet.data() + sizeof header, whole ? header.size : 0);
        reply->adopt(message.attached()); // also those of a reply that is of no use: to be closed
        if (!answered)
            return DEAD_OBJECT;
        return whole ? header.status : BAD_VALUE;
    }

    bool sendRequest(uint32_t code, const Parcel& data, uint32_t flags) const {
        RequestHeader header{kMagic, code, flags, static_cast<uint32_t>(data.dataSize())};
        std::vector<uint8_t> packet = transport::makePacket(header, data);
        return send(mSocket.get(), packet.data(), packet.size(), MSG_NOSIGNAL) >= 0;
    }

    ssize_t receive(transport::Message& message) const {
        ssize_t length;
        do
            length = recvmsg(mSocket.get(), &message.header, MSG_CMSG_CLOEXEC);
        while (length < 0 && errno == EINTR);
        return length;
    }

    mutable std::mutex mMutex; ///< one request with its reply at a time
    FileDescriptor mSocket;
    mutable std::mutex mDescriptorMutex;
    mutable String16 mDescriptor;
};

class ServiceManager : public IServiceManager {
  public:
    status_t addService(const String16& name, const sp<IBinder>& service, bool) override {
        return BinderServer::instance().publish(String8(name).string(), service);
    }

    sp<IBinder> checkService(const String16& name) const override {
        std::string text = String8(name).string();
        if (sp<IBinder> local = BinderServer::instance().find(text))
            return local;
        FileDescriptor socket = vnlog::platform::connectPacketSocket(transport::socketPath(text).c_str());
        return socket.valid() ? sp<IBinder>(new RemoteBinder(std::move(socket))) : nullptr;
    }

    sp<IBinder> getService(const String16& name) const override {
        constexpr int kTries = 50;
        constexpr long kPauseNs = 100000000;
        for (int left = kTries; left > 0; --left) {
            if (sp<IBinder> service = checkService(name))
                return service;
            timespec pause{0, kPauseNs};
            nanosleep(&pause, nullptr);
        }
        return nullptr;
    }
};

} // namespace

sp<IServiceManager> defaultServiceManager() {
    static sp<IServiceManager> manager = new ServiceManager();
    return manager;
}

ProcessState::ProcessState() = default;

sp<ProcessState> ProcessState::self() {
    static sp<ProcessState> process = new ProcessState();
    return process;
}

void ProcessState::startThreadPool() {
    (void)BinderServer::instance().startThreads(); // reported there
}

} // namespace android
