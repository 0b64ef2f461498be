#include "platform/binder/Host.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

namespace vnlog::platform {

android::status_t publishService(const char* name, const android::sp<android::IBinder>& service) {
    android::status_t status = android::defaultServiceManager()->addService(android::String16(name), service);
    if (status == android::NO_ERROR)
        android::ProcessState::self()->startThreadPool();
    return status;
}

} // namespace vnlog::platform
