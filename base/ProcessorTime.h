// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>

namespace vnlog {

/** Processor time of the process since construction. */
class ProcessorTime {
  public:
    ProcessorTime() : mStart(clock()) {}
    double milliseconds() const {
        constexpr double kClocksPerSecond = 1000000.0;
        return static_cast<int32_t>(clock() - mStart) / kClocksPerSecond * 1000.0;
    }

  private:
    clock_t mStart;
};

} // namespace vnlog
