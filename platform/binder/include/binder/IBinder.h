// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

namespace android {

class BBinder;
class IInterface;
class Parcel;

/** An object that transactions can be sent to, in this process or (behind a proxy) in another. */
class IBinder : public virtual RefBase {
  public:
    enum : uint32_t {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,
        PING_TRANSACTION = 0x5f504e47, ///< '_PNG': answered with NO_ERROR
        INTERFACE_TRANSACTION = 0x5f4e5446, ///< '_NTF': answered with the descriptor
        FLAG_ONEWAY = 0x00000001,
    };

    /** The interface `descriptor` when the object itself implements it in this process, otherwise null. */
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);
    virtual const String16& getInterfaceDescriptor() const = 0;
    virtual bool isBinderAlive() const = 0;
    virtual status_t pingBinder() = 0;
    /** Sends one request and waits for its reply. `reply` may be null when no reply is wanted. */
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) = 0;
    /** This object as a local one, or null when it is a proxy. */
    virtual BBinder* localBinder();

  protected:
    ~IBinder() override;
};

} // namespace android
