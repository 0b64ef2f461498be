#include "platform/binder/Host.h"

#include "platform/binder/BinderServer.h"
#include "platform/binder/Transport.h"

namespace vnlog::platform {

void withdrawServices() {
    android::BinderServer::instance().shutDown();
}

std::string servicePlace(const char* name) {
    return android::transport::socketPath(name);
}

} // namespace vnlog::platform
