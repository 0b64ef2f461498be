// SPDX-License-Identifier: Apache-2.0
#include "binder/ILogService.h"

#include <algorithm>
#include <android/log.h>
#include <fcntl.h>

namespace vnlog {

using android::BBinder;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;

const String16 ILogService::descriptor("com.velnora.ILogService");

ILogService::ILogService() = default;
ILogService::~ILogService() = default;

const String16& ILogService::getInterfaceDescriptor() const {
    return descriptor;
}

int ILogService::logQuery(int, const char*, std::string* answer) {
    answer->clear();
    return android::UNKNOWN_TRANSACTION;
}

sp<ILogService> ILogService::asInterface(const sp<IBinder>& obj) {
    if (obj == nullptr)
        return nullptr;
    sp<android::IInterface> local = obj->queryLocalInterface(descriptor);
    if (local != nullptr)
        return sp<ILogService>(static_cast<ILogService*>(local.get()));
    return sp<ILogService>(new BpLogService(obj));
}

namespace {

/** The number first: older clients read no further. */
void replyWithFile(int fd, Parcel* reply) {
    reply->writeInt32(fd);
    if (fd >= 0) // a number that is no descriptor stays a number
        (void)reply->writeFileDescriptor(fd, true);
}

} // namespace

status_t BnLogService::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    constexpr status_t kForeignToken = -1;
    constexpr int kUnknownCodePlace = 92; // part of the message's fixed text
    switch (code) {
    case FLUSH_LOG_BUF_ALL:
        if (!data.checkInterface(this))
            return kForeignToken;
        reply->writeInt32(flushLogBufAll());
        return android::NO_ERROR;
    case GET_LOG_FD:
        if (!data.checkInterface(this))
            return kForeignToken;
        replyWithFile(getLogFd(), reply);
        return android::NO_ERROR;
    case LOG_CMD:
    case QUERY: {
        if (!data.checkInterface(this))
            return kForeignToken;
        int32_t cmd = 0;
        status_t status = data.readInt32(&cmd);
        if (status != android::NO_ERROR)
            return status;
        const char* param = data.readCString();
        if (code == LOG_CMD) {
            reply->writeInt32(logCMD(cmd, param));
            return android::NO_ERROR;
        }
        std::string answer;
        reply->writeInt32(logQuery(cmd, param, &answer));
        return reply->writeCString(answer.c_str());
    }
    default:
        __android_log_print(ANDROID_LOG_ERROR, "ILogService", "[%s:%d] Unknown code: 0x%x\n", "onTransact",
                            kUnknownCodePlace, code);
        return BBinder::onTransact(code, data, reply, flags);
    }
}

} // namespace vnlog

namespace {

int callWithoutArguments(android::IBinder& binder, uint32_t code, android::Parcel* reply) {
    android::Parcel data;
    data.writeInterfaceToken(vnlog::ILogService::descriptor);
    binder.transact(code, data, reply, 0);
    return reply->readInt32();
}

android::status_t packCommand(int cmd, const char* param, android::Parcel* data) {
    data->writeInterfaceToken(vnlog::ILogService::descriptor);
    data->writeInt32(cmd);
    // Not every binder's writeCString looks for null itself.
    return param != nullptr ? data->writeCString(param) : android::BAD_VALUE;
}

} // namespace

BpLogService::BpLogService(const android::sp<android::IBinder>& remote)
    : android::BpInterface<vnlog::ILogService>(remote) {}

BpLogService::~BpLogService() = default;

int BpLogService::flushLogBufAll() {
    android::Parcel reply;
    return callWithoutArguments(*remote(), FLUSH_LOG_BUF_ALL, &reply);
}

int BpLogService::getLogFd() {
    android::Parcel reply;
    int number = callWithoutArguments(*remote(), GET_LOG_FD, &reply);
    if (number < 0 || reply.dataPosition() == reply.dataSize())
        return number; // nothing is handed over
    int handedOver = reply.readFileDescriptor(); // the reply's, and closed with it
    return handedOver >= 0 ? fcntl(handedOver, F_DUPFD_CLOEXEC, 0) : -1;
}

int BpLogService::logCMD(int cmd, const char* param) {
    android::Parcel data, reply;
    android::status_t status = packCommand(cmd, param, &data);
    if (status != android::NO_ERROR)
        return status;
    remote()->transact(LOG_CMD, data, &reply, 0);
    return reply.readInt32();
}

int BpLogService::logQuery(int cmd, const char* param, std::string* answer) {
    answer->clear();
    android::Parcel data, reply;
    android::status_t status = packCommand(cmd, param, &data);
    if (status == android::NO_ERROR)
        status = remote()->transact(QUERY, data, &reply, 0);
    if (status != android::NO_ERROR)
        return std::min<int>(status, -2);
    int result = reply.readInt32();
    const char* text = reply.readCString();
    *answer = text != nullptr ? text : "";
    return result;
}
