#pragma once

#include <binder/IBinder.h>
#include <string>

/* What a host process does with binder, whichever it is built for. */
namespace vnlog::platform {

/** The name under which the log service is published. */
constexpr char kServiceName[] = "vnlog.logservice";

/** Publishes the service under `name` and starts to serve it. NO_ERROR or a negative error number. */
android::status_t publishService(const char* name, const android::sp<android::IBinder>& service);

/**
 * Ends serving: no request runs any more and none comes when this returns. The device's binder ends with the
 * process instead.
 */
void withdrawServices();

/** Where clients find the service, for a message. */
std::string servicePlace(const char* name);

} // namespace vnlog::platform
