#pragma once

#include "sources/AndroidState.h"
#include "sources/Filter.h"
#include "sources/LineSink.h"
#include "sources/LogDevice.h"

#include <cstddef>

namespace vnlog {

/**
 * Makes a line of each entry that the filter lets through, and passes it to the console and the sink as the
 * switches say. On the Android reader's thread.
 */
class AndroidLine {
  public:
    /** All must outlive the object. */
    AndroidLine(const AndroidState& state, const FilterState& filterState, Filter& filter, LineSink& sink)
        : mState(state), mFilterState(filterState), mFilter(filter), mSink(sink) {}

    /** Parses, filters and outputs an entry that lies in a log_entry_node_t; its header is used up by that.
     */
    void process(const log_device_t* device, logger_entry* entry);
    /**
     * Formats an entry and passes the line to the console `fd` and the sink. -1 when the line cannot be made
     * or is refused, 0 or the bytes written otherwise.
     */
    int print(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry);

  private:
    /** What came of one line. */
    struct LineResult {
        bool formatted;
        int result; ///< as of print
    };

    LineResult route(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry);
    bool isForFile(const char* line, size_t length, const AndroidLogEntry& entry);
    int showLine(int fd, const char* line, size_t length, const AndroidLogEntry& entry);
    int storeLine(const char* line, size_t length, const AndroidLogEntry& entry, int result);

    const AndroidState& mState;
    const FilterState& mFilterState;
    Filter& mFilter;
    LineSink& mSink;
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
