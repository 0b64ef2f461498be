#pragma once

#include <cstdint>

namespace vnlog {

/** Where the readers put the lines that are to be stored. On the reader's thread, which may be cancelled
 * inside. */
class LineSink {
  public:
    /** Whether lines are taken at all. */
    virtual bool inService() const = 0;
    /** Takes one line with its newline, whole or not at all; may wait for space. False when it is not taken,
     * which the caller reports. */
    virtual bool put(const char* line, uint32_t length) = 0;

  protected:
    ~LineSink() = default;
};

} // namespace vnlog
