// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Console.h"
#include "sources/AndroidState.h"
#include "sources/Filter.h"
#include "sources/LineSink.h"
#include "sources/LogDevice.h"
#include "sources/SourceCounts.h"

#include <cstddef>

namespace vnlog {

/**
 * Makes a line of each entry that the filter lets through, and passes it to the console and the sink as the
 * switches say. On the Android reader's thread.
 */
class AndroidLine {
  public:
    /** All must outlive the object. */
    AndroidLine(const AndroidState& state, const FilterState& filterState, Filter& filter, LineSink& sink,
                Console& console)
        : mState(state), mFilterState(filterState), mFilter(filter), mSink(sink), mConsole(console) {}

    /** The lines that follow may keep their caller waiting for the console for 10 ms in all. */
    void beginCycle() { mPatience = Patience(); }
    /** No lines follow for now. */
    void endCycle() { mConsole.release(); }
    /** Parses, filters and outputs an entry that lies in a log_entry_node_t; its header is used up by that.
     * Tells what the store has of it.
     */
    Fate process(const log_device_t* device, logger_entry* entry);
    /**
     * Formats an entry and passes the line to the console `fd` and the sink. -1 when the line cannot be made
     * or is refused, 0 or the bytes written otherwise.
     */
    int print(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry);
    /** Announces a device on the console, which ends the process when it fails, reported. */
    void announce(const char* device);
    /** The driver has dropped entries before the one that is processed next. */
    void lost(uint32_t entries);
    /** What has become of the entries; the reader counts them as well. Any thread. */
    SourceCounts& counts() { return mCounts; }

  private:
    /** What came of one line. */
    struct LineResult {
        bool formatted;
        int result; ///< as of print
        Fate fate;
    };

    LineResult route(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry);
    LineResult store(const char* line, uint32_t length, const AndroidLogEntry& entry, int shown);
    LineResult put(const char* line, uint32_t length, const AndroidLogEntry& entry);
    static LineResult skip(const AndroidLogEntry& entry, Fate fate);
    bool showLine(int fd, const char* line, size_t length);

    const AndroidState& mState;
    const FilterState& mFilterState;
    Filter& mFilter;
    LineSink& mSink;
    Console& mConsole;
    Patience mPatience;
    SourceCounts mCounts;
    ReportLimit mReports;
};

constexpr int kExitReadError = 1;
constexpr int kExitOutputError = -1;

/**
 * Ends the host process: what the driver or the console does can no longer be made sense of, or there is no
 * memory for a line. Without running the process's exit handlers, beneath which its other threads would go
 * on.
 */
[[noreturn]] void endProcess(int status);

} // namespace vnlog
