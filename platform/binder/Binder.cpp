// SPDX-License-Identifier: Apache-2.0
#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16&) {
    return nullptr;
}

BBinder* IBinder::localBinder() {
    return nullptr;
}

BBinder::BBinder() = default;
BBinder::~BBinder() = default;

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16 empty;
    return empty;
}

bool BBinder::isBinderAlive() const {
    return true;
}

status_t BBinder::pingBinder() {
    return NO_ERROR;
}

BBinder* BBinder::localBinder() {
    return this;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    Parcel unwanted; // lets receivers write a reply without asking whether anybody wants it
    Parcel* answer = reply != nullptr ? reply : &unwanted;
    status_t status = code == PING_TRANSACTION ? pingBinder() : onTransact(code, data, answer, flags);
    answer->setDataPosition(0);
    return status;
}

status_t BBinder::onTransact(uint32_t code, const Parcel&, Parcel* reply, uint32_t) {
    if (code != INTERFACE_TRANSACTION)
        return UNKNOWN_TRANSACTION;
    return reply->writeString16(getInterfaceDescriptor());
}

BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o) {}
BpRefBase::~BpRefBase() = default;

IInterface::IInterface() = default;
IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    if (iface == nullptr)
        return nullptr;
    return sp<IBinder>(const_cast<IInterface*>(iface)->onAsBinder());
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    return asBinder(iface.get());
}

} // namespace android
