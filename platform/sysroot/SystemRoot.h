#pragma once

#include <cstddef>

namespace vnlog::platform {

/** Longest system root in characters: with it every path that the service derives still fits. */
constexpr size_t kMaxSystemRoot = 83;

/**
 * Copies the directory that stands before the service's fixed absolute paths into `out`: the value of
 * VNLOG_SYSROOT without trailing slashes, the empty text on a device. Returns false when the value is longer
 * than kMaxSystemRoot; `out` then holds its beginning and must not be used for files.
 */
[[nodiscard]] bool readSystemRoot(char* out, size_t size);

} // namespace vnlog::platform
