// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "buffer/RingState.h"
#include "config/SettingsState.h"
#include "sources/AndroidState.h"
#include "sources/FilterState.h"
#include "sources/KernelState.h"
#include "storage/StorageState.h"

namespace vnlog {

/** The state that the settings reach into, part by part. The parts work on it and keep no copy. */
struct ServiceState : RingState, StorageState, KernelState, AndroidState, FilterState, SettingsState {};

} // namespace vnlog
