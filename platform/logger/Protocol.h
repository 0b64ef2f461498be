// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace vnlog::platform {

/**
 * First message on every connection to the stand-in driver; one message is one packet. Each packet that
 * follows is a whole entry, to a batch reader one entry or several, whose headers tell it in `padding` how
 * many it has lost (LoggerDevice.h). A writer's padding is not kept.
 */
struct LoggerHello {
    enum Role : uint32_t { Reader = 1, Writer = 2, LosslessWriter = 3, Control = 4, BatchReader = 5 };
    uint32_t magic; ///< kLoggerMagic
    uint32_t role;
    uint32_t request; ///< with Control: the driver request; its answer is one int32
};
constexpr uint32_t kLoggerMagic = 0x4c4f4731; // "LOG1"

} // namespace vnlog::platform
