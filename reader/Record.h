// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "lines/LineClock.h"
#include "lines/LogLine.h"

#include <cstdint>
#include <memory>
#include <string_view>

/* What the parts of the reader hand on to each other: one line, and whoever takes lines. */
namespace vnlog {

struct RunStory;

/** Stands for the run that is under way. */
constexpr uint32_t kCurrentRun = 0;

/// How remarks of the reader begin.
constexpr char kReaderStart[] = "--------- logview: ";

/** Where a line is stored. */
struct LinePlace {
    uint32_t run = kCurrentRun; ///< M of last_M
    uint32_t section = 0; ///< 0 is a log of the form before there were sections
    uint32_t line = 0; ///< from 1 in each section; a line belongs to the section in which it begins
};

/** One line. What the views point to is valid until the next one is asked for. */
struct Record {
    std::string_view bytes; ///< without the newline
    LinePlace place;
    bool ended = true; ///< its newline is stored, too; without it more may come, or was lost
    bool context = false; ///< shown only for its neighbour
    LogLine line;
    LineTime time;
    /** What is told of its run, where that may not be the one that has the place's name by now: while a store
     * is followed. Null: what the list of runs tells of that name. */
    std::shared_ptr<const RunStory> story = nullptr;
};

/** Takes the lines that were asked for, in the order in which they are to be shown. */
class RecordSink {
  public:
    virtual ~RecordSink() = default;
    virtual void put(const Record& record) = 0;
    /** Lines were left out between the last one and the next, which are both in a group with context. */
    virtual void separate() {}
    /** Whether it looks at more of a record than its bytes, place and end. */
    virtual bool wantsFields() const { return true; }
    /** Whether it has anything to show of a record, which otherwise need not be put. */
    virtual bool shows(const Record&) const { return true; }
    /** No line comes for a while: what is gathered is handed out. */
    virtual void pause() {}
    /** No more lines come. */
    virtual void finish() {}
};

} // namespace vnlog
