// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace vnlog::platform {

/** Longest system root in characters: with it every path that the service derives still fits. */
constexpr size_t kMaxSystemRoot = 83;

/** The environment variable that names the system root. */
constexpr char kSystemRootVariable[] = "VNLOG_SYSROOT";

/** The directory that stands before the service's fixed absolute paths; the empty text on a device. */
struct SystemRoot {
    char path[128] = {};

    /**
     * Takes the value of the variable without trailing slashes. Returns false when that is longer than
     * kMaxSystemRoot; `path` then holds its beginning and must not be used for files.
     */
    [[nodiscard]] bool read();
};

} // namespace vnlog::platform
