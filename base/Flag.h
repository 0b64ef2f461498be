// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>

namespace vnlog {

/** A switch that some threads read while others set it. */
using Flag = std::atomic<bool>;

} // namespace vnlog
