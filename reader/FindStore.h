// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vnlog {

/**
 * The storage root that a service would use that is started now under the system root of the environment: as
 * its log.cfg says, read as the service reads it, whoever that belongs to; or the default root, where none is
 * configured or the configured one is not there. It may hold no store. Empty with `error` set when the system
 * root cannot be used.
 */
std::string storeOfSystem(std::string* error);

/** Where log.cfg lies under that system root, whether it is there or not. Empty with `error` set. */
std::string configurationOfSystem(std::string* error);

} // namespace vnlog
