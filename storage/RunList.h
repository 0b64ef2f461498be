// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/sysroot/SystemRoot.h"
#include "storage/SectionFacts.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

/* log_service/runs.txt: when the service ran, and what became of what it stored. docs/on-disk-format.md shows
 * it. */
namespace vnlog {

enum class RunKey { Run, Event, Time, Uptime, Boot, Version, Build, From, Step, How, Archived };
constexpr size_t kRunKeys = 11;

// The events.
constexpr char kRunStart[] = "start";
constexpr char kRunStep[] = "step"; ///< the wall clock was set
constexpr char kRunEnd[] = "end";
constexpr char kRunArchived[] = "archived"; ///< found by the next start
// How a run ended.
constexpr char kRunStopped[] = "stopped";
constexpr char kRunMoved[] = "moved"; ///< it went on under another root
constexpr char kRunNoEnd[] = "no_end"; ///< a crash or a power cut

/** A line of the list: values without blanks and control characters, empty where the line has none. */
struct RunLine {
    std::array<std::string, kRunKeys> values;

    std::string& operator[](RunKey key) { return values[static_cast<size_t>(key)]; }
    const std::string& operator[](RunKey key) const { return values[static_cast<size_t>(key)]; }
    /** A value as a number, 0 where it is none. */
    uint32_t number(RunKey key) const;
};

/** The line as key=value pairs, without a line end. */
std::string printRunLine(const RunLine& line);
/** The inverse. False for what is no whole line of ours. */
[[nodiscard]] bool parseRunLine(std::string_view text, RunLine* line);

/** Calls visit(text, line) for each line of a list, and for what is behind the last: `line` is what it says,
 * null for what is no whole line of ours. */
template <typename Visit> void forEachRunLine(std::string_view list, Visit visit) {
    for (size_t at = 0; at < list.size();) {
        size_t end = std::min(list.find('\n', at), list.size());
        std::string_view text = list.substr(at, end - at);
        RunLine line;
        bool ours = end < list.size() && parseRunLine(text, &line);
        visit(text, ours ? &line : nullptr);
        at = end + 1;
    }
}

/**
 * What the list tells of the run in a folder, current or last_M, of a service that is not there any more: its
 * clock to the second. Empty when it tells nothing. Any thread.
 */
SectionOrigin recordedOrigin(const char* logs, const char* run);

/**
 * Writes the list. It is never needed: what is missing, damaged or cannot be written is reported once at most
 * and changes nothing else. `logs` is the log folder. Any thread, one at a time; keeps errno.
 */
class RunList {
  public:
    explicit RunList(const platform::SystemRoot& systemRoot) : mSystemRoot(systemRoot) {}

    /**
     * Begins a run, or goes on with it where `from`, another root, is given. `archived` is the run that has
     * just been made of the one before, 0 when that left nothing, and `newest` the newest one. Lines of runs
     * that are gone are trimmed.
     */
    void begin(const char* logs, uint32_t newest, uint32_t archived, const char* from = nullptr);
    /** Writes how the run ended here, if one has begun; `how` kRunMoved lets it go on elsewhere. */
    void end(const char* logs, const char* how);
    /** Notes a step of the wall clock by more than a minute since the last look. */
    void watchClock(const char* logs);
    /** Removes the lines of runs that are gone. */
    void trim(const char* logs);
    /** What is known of the present run, its clock to the millisecond as of now. Empty without one. */
    SectionOrigin origin();
    /** The newest lines of the list. `whole` tells whether that is all. False when it cannot be read. */
    [[nodiscard]] static bool load(const char* logs, std::string* text, bool* whole);
    bool begun() const { return mStart.number(RunKey::Run) > 0; }
    /** Forgets the run: it ended unseen. */
    void forget() { mStart = {}; }

  private:
    struct Found;
    template <typename Work> void attempt(Work work);
    void writeStart(const char* logs, uint32_t newest, uint32_t archived, const char* from);
    Found read(const char* logs);
    RunLine lineNow(const char* event) const;
    void describeStart();
    void watchKernelClock();
    void append(const char* logs, const std::string& text);
    void replace(const char* logs, const std::string& text);
    void report(const char* path, bool done);

    const platform::SystemRoot& mSystemRoot;
    RunLine mStart; ///< of the present run, empty without one
    int64_t mOffset = 0; ///< of the wall clock from the time since boot, in seconds
    std::vector<ClockPoint> mPoints; ///< of the run, the newest
    bool mReported = false;
};

} // namespace vnlog
