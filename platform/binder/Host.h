// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <binder/IBinder.h>
#include <string>

/* What a host process does with binder, whichever it is built for. */
namespace vnlog::platform {

/** The name under which the log service is published. */
constexpr char kServiceName[] = "vnlog.logservice";

/**
 * Publishes the service under `name` and starts to serve it. NO_ERROR or a negative error number; this
 * service is not served then. Without threads to serve them none of this process is.
 */
android::status_t publishService(const char* name, const android::sp<android::IBinder>& service);

/**
 * Ends serving: no request runs any more and none comes when this returns. The device's binder ends with the
 * process instead.
 */
void withdrawServices();

/** Where clients find the service, for a message. */
std::string servicePlace(const char* name);

/**
 * Tries to reach the service as a client does, without waiting. 0 when somebody listens at its place, else
 * the error number: EACCES without the permission, ENOENT or ECONNREFUSED when nobody is there, EAGAIN when
 * whoever listens takes nobody in. The device's service manager tells only 0 and ENOENT.
 */
[[nodiscard]] int reachService(const char* name);

} // namespace vnlog::platform
