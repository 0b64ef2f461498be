// SPDX-License-Identifier: Apache-2.0
#include "platform/binder/Host.h"

#include "platform/binder/BinderServer.h"
#include "platform/binder/Transport.h"
#include "platform/sysroot/SystemRoot.h"
#include "platform/unix/UnixSocket.h"

#include <cerrno>

namespace vnlog::platform {

static_assert(kMaxSystemRoot + sizeof kRunFolder + sizeof kServiceName - 1 <= kMaxSocketPath,
              "the service's socket fits behind every system root");

android::status_t publishService(const char* name, const android::sp<android::IBinder>& service) {
    android::BinderServer& server = android::BinderServer::instance();
    if (android::status_t status = server.publish(name, service); status != android::NO_ERROR)
        return status;
    android::status_t status = server.startThreads();
    if (status != android::NO_ERROR)
        server.shutDown();
    return status;
}

void withdrawServices() {
    android::BinderServer::instance().shutDown();
}

std::string servicePlace(const char* name) {
    return android::transport::socketPath(name);
}

int reachService(const char* name) {
    return connectPacketSocket(servicePlace(name).c_str(), SOCK_NONBLOCK).valid() ? 0 : errno;
}

} // namespace vnlog::platform
