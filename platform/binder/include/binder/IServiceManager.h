// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <binder/IBinder.h>
#include <utils/StrongPointer.h>

namespace android {

/** Where services are published and found by name. */
class IServiceManager : public virtual RefBase {
  public:
    /** Publishes `service`; it is reachable once the process has started its thread pool. */
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false) = 0;
    /** The service of this name, or null when it cannot be reached now. */
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    /** The same, after waiting a few seconds for it to come. */
    virtual sp<IBinder> getService(const String16& name) const = 0;
};

sp<IServiceManager> defaultServiceManager();

} // namespace android
