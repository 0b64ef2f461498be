// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/* What a stored line says of itself. Used by whoever reads stored text, and by the writer when it sums a
 * section up. */
namespace vnlog {

enum class LineSource : uint8_t {
    Android,
    Kernel,
    Service, ///< the log service's own: lines that begin with "--------- "
    Unknown, ///< the rest of a line whose beginning is not there
    Reader, ///< no stored line: a remark of whoever reads, about damage for example
};
constexpr uint32_t kLineSources = 5;

enum class LineForm : uint8_t {
    Brief, ///< "I/Tag     ( 1234): text"
    Process, ///< "I( 1234) text  (Tag)"
    Tag, ///< "I/Tag     : text"
    Thread, ///< "I( 1234: 5678) text"
    Raw, ///< "text": whatever nothing else explains
    Time, ///< "11-23 14:40:55.123 I/Tag     ( 1234): text"
    ThreadTime, ///< "11-23 14:40:55.123  1234  5678 I Tag     : text"
    Long, ///< "[ 11-23 14:40:55.123  1234: 5678 I/Tag     ]", then lines of text, then an empty line
    Kernel, ///< "[   12.345678] text"
    KernelLevel, ///< "<6>[   12.345678] text", or "<6>text"
    Own, ///< of the service or the reader
};
constexpr uint32_t kLineForms = 11;

/** A time without year and zone, as the Android forms have it. */
struct LocalStamp {
    int8_t month = 0; ///< 1 to 12, 0 for no time
    int8_t day = 0;
    int8_t hour = 0;
    int8_t minute = 0;
    int8_t second = 0;
    int16_t millisecond = 0;
};

/** A line taken apart. The views lie in the line, or, for lines of an entry in the long form, in the parser.
 */
struct LogLine {
    LineSource source = LineSource::Unknown;
    LineForm form = LineForm::Raw;
    int8_t priority = 0; ///< as Android's: 2 verbose to 7 fatal (and "S"); 0 where the line does not tell
    int8_t level = -1; ///< kernel: 0 to 7; -1 where the line does not tell
    bool heading = false; ///< the first line of an entry in the long form, which has no text
    bool inside = false; ///< another line of such an entry: it has the fields of the heading
    int32_t pid = -1; ///< -1 where the line does not tell
    int32_t tid = -1;
    LocalStamp stamp;
    int64_t kernelTime = -1; ///< microseconds of the kernel's clock, -1 for none
    std::string_view tag; ///< without the blanks that fill it up
    std::string_view text; ///< behind what the form puts in front of it, and before what it puts behind
    uint32_t lost = 0; ///< the service's: lines that this one tells to be lost; 0 where it gives no number
};

/** The priority that corresponds to a level of the kernel: 7 fatal (levels 0 to 2), 6 error, 5 warning, 4
 * information (levels 5 and 6), 3 debug. */
int8_t priorityOfLevel(int level);

/**
 * Takes lines apart, one after the other as they are stored: those of an entry in the long form depend on the
 * ones before. One thread at a time; never fails, whatever the bytes are.
 *
 * A tag may hold whatever the forms put around it. A line that two readings explain is decided by these
 * rules: a tag ends at the first ": " behind its first 8 characters, in the form Time at the first "(pid): ";
 * an end of "(pid)" there is the form Brief and not Tag; a tag in the form Process begins behind the last "
 * (". Blanks at the end of a tag are taken for what fills it up. Whatever is written like a line of the
 * kernel or the service is one. An entry in the long form goes from its heading to its first empty line,
 * whatever is in between; behind that, to the next line that has a form of its own; it has no
 * more than 5,120 bytes, so that what only looks like a heading does not take in what follows.
 * The lines below a heading have 256 characters of its tag at most.
 */
class LineParser {
  public:
    /** Takes a line, without its newline, apart. */
    void parse(std::string_view line, LogLine* parsed);
    /** What follows does not follow what was parsed last. */
    void reset() { mOpen = Entry::None; }

  private:
    /** Where an entry in the long form stands. */
    enum class Entry : uint8_t { None, Open, AfterEmptyLine };

    void openEntry(const LogLine& heading);

    Entry mOpen = Entry::None;
    LogLine mHeading; ///< of the entry, without the tag, for a copy has its own
    char mTag[256] = {};
    size_t mTagLength = 0;
    size_t mEntryBytes = 0; ///< of its text so far
};

} // namespace vnlog
