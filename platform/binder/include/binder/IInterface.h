// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <binder/Binder.h>

namespace android {

/** Root of every interface that can be reached through a binder. */
class IInterface : public virtual RefBase {
  public:
    IInterface();
    /** The binder behind `iface`, null for null. */
    static sp<IBinder> asBinder(const IInterface* iface);
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

  protected:
    ~IInterface() override;
    virtual IBinder* onAsBinder() = 0;
};

/** Base of a service: the interface, received through a local binder. */
template <typename INTERFACE> class BnInterface : public INTERFACE, public BBinder {
  public:
    sp<IInterface> queryLocalInterface(const String16& name) override;
    const String16& getInterfaceDescriptor() const override;

  protected:
    IBinder* onAsBinder() override;
};

/** Base of a proxy: the interface, sent to a remote binder. */
template <typename INTERFACE> class BpInterface : public INTERFACE, public BpRefBase {
  public:
    explicit BpInterface(const sp<IBinder>& remote);

  protected:
    IBinder* onAsBinder() override;
};

template <typename INTERFACE>
sp<IInterface> BnInterface<INTERFACE>::queryLocalInterface(const String16& name) {
    return name == INTERFACE::descriptor ? sp<IInterface>(this) : sp<IInterface>();
}

template <typename INTERFACE> const String16& BnInterface<INTERFACE>::getInterfaceDescriptor() const {
    return INTERFACE::getInterfaceDescriptor();
}

template <typename INTERFACE> IBinder* BnInterface<INTERFACE>::onAsBinder() {
    return this;
}

template <typename INTERFACE>
BpInterface<INTERFACE>::BpInterface(const sp<IBinder>& remote) : BpRefBase(remote) {}

template <typename INTERFACE> IBinder* BpInterface<INTERFACE>::onAsBinder() {
    return remote();
}

} // namespace android
