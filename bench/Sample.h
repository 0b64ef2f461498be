// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace vnlog::bench {

/** What one run of one thing cost, and what came of it. Times are seconds. */
struct Sample {
    double wall = 0;
    double processor = 0; ///< with that of the children which it waited for
    double children = 0; ///< of those alone
    std::map<std::string, double> threads; ///< processor time before the stop, by name
    double voluntary = 0, involuntary = 0; ///< context switches
    double readCalls = 0, writtenCalls = 0; ///< bytes that passed read and write calls
    double readMedium = 0, writtenMedium = 0; ///< bytes from and to the medium
    double calls = -1; ///< system calls per line, negative when not measured
    uint32_t idleKib = 0, peakKib = 0; ///< of its own memory: after one line, and the most; 0: not measured
    double bytes = 0; ///< of the stored files
    size_t lost = 0; ///< lines that are missing, torn, at another place or nobody's
    std::string failure; ///< why there are no numbers; empty when there are
};

} // namespace vnlog::bench
