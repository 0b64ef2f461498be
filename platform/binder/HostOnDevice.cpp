// SPDX-License-Identifier: Apache-2.0
#include "platform/binder/Host.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <cerrno>

namespace vnlog::platform {

android::status_t publishService(const char* name, const android::sp<android::IBinder>& service) {
    android::status_t status = android::defaultServiceManager()->addService(android::String16(name), service);
    if (status == android::NO_ERROR)
        android::ProcessState::self()->startThreadPool();
    return status;
}

void withdrawServices() {} // the driver lets go of them when the process ends

std::string servicePlace(const char*) {
    return "the service manager";
}

int reachService(const char* name) {
    bool known = android::defaultServiceManager()->checkService(android::String16(name)) != nullptr;
    return known ? 0 : ENOENT;
}

} // namespace vnlog::platform
