// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <binder/IBinder.h>

namespace android {

/** The receiving side of transactions: an object that lives in this process. */
class BBinder : public IBinder {
  public:
    BBinder();

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    /** Rewinds `data`, answers a ping itself, hands everything else to onTransact, rewinds `reply`. */
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;
    BBinder* localBinder() override;

  protected:
    ~BBinder() override;
    /** Answers the standard requests; UNKNOWN_TRANSACTION for any other code. */
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0);
};

/** Holds one strong reference to a remote object for its own lifetime. */
class BpRefBase : public virtual RefBase {
  protected:
    explicit BpRefBase(const sp<IBinder>& o);
    ~BpRefBase() override;
    IBinder* remote() const { return mRemote.get(); }

  private:
    const sp<IBinder> mRemote;
};

} // namespace android
