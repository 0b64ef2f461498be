// SPDX-License-Identifier: Apache-2.0
#include "lines/LogLine.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace vnlog {

namespace {

constexpr std::string_view kOwnStart = "--------- ";
constexpr std::string_view kLostText = " lines lost here: ";
constexpr size_t kTagWidth = 8; ///< to which the Android forms fill a tag up
constexpr size_t kIdWidth = 5; ///< and the number of a process or thread
constexpr size_t kStampLength = 18; ///< "11-23 14:40:55.123"
constexpr size_t kLongestId = 10; ///< digits of one
constexpr size_t kLongestEntry = 5120; ///< bytes of text that the logger driver takes
constexpr size_t kLongestSeconds = 9; ///< digits of the kernel's seconds: their nanoseconds fit 64 bits

constexpr LogLine blankLine() {
    LogLine line;
    line.source = LineSource::Android;
    return line;
}
constexpr LogLine kNothingKnown = blankLine(); // to copy a constant is quick, to build it anew is not

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/** The priority of a form's letter; false for another character. */
bool takePriority(char letter, int8_t* priority) {
    switch (letter) {
    case 'V':
        *priority = 2;
        return true;
    case 'D':
        *priority = 3;
        return true;
    case 'I':
        *priority = 4;
        return true;
    case 'W':
        *priority = 5;
        return true;
    case 'E':
        *priority = 6;
        return true;
    case 'F':
    case 'S': // above all others: whoever asks for what is fatal asks for it as well
        *priority = 7;
        return true;
    case '?': // of an entry whose priority has no letter
        *priority = 0;
        return true;
    default:
        return false;
    }
}

/** Walks over a line. Each step either finds what it is for and goes behind it, or stays. */
class Scan {
  public:
    explicit Scan(std::string_view line) : mNext(line.data()), mEnd(line.data() + line.size()) {}

    size_t left() const { return static_cast<size_t>(mEnd - mNext); }
    std::string_view rest() const { return {mNext, left()}; }
    bool at(char c) const { return mNext != mEnd && *mNext == c; }

    bool take(char c) {
        if (!at(c))
            return false;
        ++mNext;
        return true;
    }

    bool takeLetter(int8_t* priority) {
        if (mNext == mEnd || !takePriority(*mNext, priority))
            return false;
        ++mNext;
        return true;
    }

    void skipBlanks() {
        while (at(' '))
            ++mNext;
    }

    /** Of 1 to `most` digits. */
    bool takeNumber(size_t most, int64_t* number) {
        const char* next = mNext;
        int64_t value = 0;
        for (; next != mEnd && isDigit(*next); ++next) {
            if (static_cast<size_t>(next - mNext) == most)
                return false;
            value = value * 10 + (*next - '0');
        }
        if (next == mNext)
            return false;
        mNext = next;
        *number = value;
        return true;
    }

    /** Of a process or thread, with the blanks in front that fill it up. */
    bool takeId(int32_t* id) {
        Scan ahead = *this;
        ahead.skipBlanks();
        int64_t number = 0;
        bool filled = ahead.mNext != mNext;
        if (!ahead.takeNumber(kLongestId, &number) || number > INT32_MAX)
            return false;
        auto width = static_cast<size_t>(ahead.mNext - mNext);
        if (width < kIdWidth || (filled && width > kIdWidth))
            return false;
        *id = static_cast<int32_t>(number);
        *this = ahead;
        return true;
    }

    /** A date and a time of day, and the blank behind them. */
    bool takeStamp(LocalStamp* stamp) {
        const char* at = mNext;
        if (left() <= kStampLength || at[2] != '-' || at[5] != ' ' || at[8] != ':' || at[11] != ':' ||
            at[14] != '.' || at[18] != ' ')
            return false;
        unsigned wrong = 0; // one branch for all the digits, which are hardly ever wrong
        auto digit = [&](int place) {
            const auto value = static_cast<unsigned>(at[place] - '0');
            wrong |= value > 9 ? 1U : 0U;
            return value;
        };
        auto two = [&](int place) { return digit(place) * 10 + digit(place + 1); };
        const unsigned month = two(0), day = two(3), hour = two(6), minute = two(9), second = two(12),
                       millisecond = two(15) * 10 + digit(17);
        if (wrong != 0 || month - 1 > 11 || day - 1 > 30 || hour > 23 || minute > 59 || second > 60)
            return false;
        stamp->month = static_cast<int8_t>(month);
        stamp->day = static_cast<int8_t>(day);
        stamp->hour = static_cast<int8_t>(hour);
        stamp->minute = static_cast<int8_t>(minute);
        stamp->second = static_cast<int8_t>(second);
        stamp->millisecond = static_cast<int16_t>(millisecond);
        mNext += kStampLength + 1;
        return true;
    }

  private:
    const char* mNext;
    const char* mEnd;
};

std::string_view withoutFill(std::string_view tag) {
    size_t length = tag.size();
    while (length > 0 && tag[length - 1] == ' ')
        --length;
    return tag.substr(0, length);
}

/** Finds "(pid)" as the end of what stands before a ": ", behind a tag that is filled up. */
bool endsInPid(std::string_view head, size_t* tagLength, int32_t* pid) {
    if (head.empty() || head.back() != ')')
        return false;
    constexpr size_t kMost = kLongestId + 2; // with its parentheses: a line of many ends must not take long
    const std::string_view end = head.substr(head.size() - std::min(head.size(), kMost));
    const size_t length = end.size() - std::min(end.size(), end.rfind('('));
    if (length == 0 || head.size() - length < kTagWidth)
        return false;
    Scan scan(end.substr(end.size() - length + 1));
    int32_t number = -1;
    if (!scan.takeId(&number) || scan.left() != 1)
        return false;
    *pid = number;
    *tagLength = head.size() - length;
    return true;
}

/** The place of the next ": " from `from` on. */
size_t findColon(std::string_view line, size_t from) {
    while (from + 1 < line.size()) {
        const void* found = std::memchr(line.data() + from, ':', line.size() - 1 - from);
        if (found == nullptr)
            return std::string_view::npos;
        from = static_cast<size_t>(static_cast<const char*>(found) - line.data());
        if (line[from + 1] == ' ')
            return from;
        ++from;
    }
    return std::string_view::npos;
}

/** "Tag     : text", and where `pid` is told "Tag     ( 1234): text", to which `alone` prefers the former. */
bool takeTagAndText(std::string_view rest, LogLine* parsed, bool withPid, bool alone) {
    for (size_t colon = kTagWidth; (colon = findColon(rest, colon)) != std::string_view::npos; ++colon) {
        size_t tagLength = colon;
        bool pid = withPid && endsInPid(rest.substr(0, colon), &tagLength, &parsed->pid);
        if (!pid && !alone)
            continue;
        parsed->tag = withoutFill(rest.substr(0, tagLength));
        parsed->text = rest.substr(colon + 2);
        return true;
    }
    return false;
}

/** "text  (Tag)" */
bool takeTextAndTag(std::string_view rest, LogLine* parsed) {
    constexpr std::string_view kBetween = "  (";
    if (rest.empty() || rest.back() != ')')
        return false;
    size_t between = rest.rfind(kBetween);
    if (between == std::string_view::npos)
        return false;
    size_t tag = between + kBetween.size();
    parsed->text = rest.substr(0, between);
    parsed->tag = rest.substr(tag, rest.size() - 1 - tag);
    return true;
}

/** The forms without a time: a letter, then "/" or "(". */
bool parseUndated(std::string_view line, LogLine* parsed) {
    Scan scan(line);
    if (!scan.takeLetter(&parsed->priority))
        return false;
    if (scan.take('/')) {
        if (!takeTagAndText(scan.rest(), parsed, true, true))
            return false;
        parsed->form = parsed->pid >= 0 ? LineForm::Brief : LineForm::Tag;
        return true;
    }
    if (!scan.take('(') || !scan.takeId(&parsed->pid))
        return false;
    bool thread = scan.take(':');
    if ((thread && !scan.takeId(&parsed->tid)) || !scan.take(')') || !scan.take(' '))
        return false;
    parsed->form = thread ? LineForm::Thread : LineForm::Process;
    parsed->text = scan.rest();
    return thread || takeTextAndTag(scan.rest(), parsed);
}

/** The forms that begin with a time. */
bool parseDated(std::string_view line, LogLine* parsed) {
    Scan scan(line);
    if (!scan.takeStamp(&parsed->stamp))
        return false;
    if (scan.takeLetter(&parsed->priority)) {
        parsed->form = LineForm::Time;
        return scan.take('/') && takeTagAndText(scan.rest(), parsed, true, false);
    }
    parsed->form = LineForm::ThreadTime;
    return scan.takeId(&parsed->pid) && scan.take(' ') && scan.takeId(&parsed->tid) && scan.take(' ') &&
           scan.takeLetter(&parsed->priority) && scan.take(' ') &&
           takeTagAndText(scan.rest(), parsed, false, true);
}

bool parseHeading(std::string_view line, LogLine* parsed) {
    constexpr std::string_view kEnd = " ]";
    if (line.size() < kEnd.size() || line.substr(line.size() - kEnd.size()) != kEnd)
        return false;
    Scan scan(line.substr(0, line.size() - kEnd.size()));
    if (!scan.take('[') || !scan.take(' ') || !scan.takeStamp(&parsed->stamp) || !scan.takeId(&parsed->pid) ||
        !scan.take(':') || !scan.takeId(&parsed->tid) || !scan.take(' ') ||
        !scan.takeLetter(&parsed->priority) || !scan.take('/') || scan.left() < kTagWidth)
        return false;
    parsed->tag = withoutFill(scan.rest());
    parsed->form = LineForm::Long;
    parsed->heading = true;
    return true;
}

/** "[   12.345678] text" */
bool takeKernelTime(Scan* scan, LogLine* parsed) {
    constexpr size_t kFraction = 6;
    Scan ahead = *scan;
    int64_t seconds = 0, microseconds = 0;
    if (!ahead.take('['))
        return false;
    ahead.skipBlanks();
    if (!ahead.takeNumber(kLongestSeconds, &seconds) || !ahead.take('.'))
        return false;
    size_t before = ahead.left();
    if (!ahead.takeNumber(kFraction, &microseconds) || before - ahead.left() != kFraction || !ahead.take(']'))
        return false;
    (void)ahead.take(' '); // where the kernel says who printed it, a "[" follows
    parsed->kernelTime = seconds * 1000000 + microseconds;
    *scan = ahead;
    return true;
}

bool parseKernel(std::string_view line, LogLine* parsed) {
    constexpr size_t kLongestLevel = 9; // digits; they hold the facility as well
    Scan scan(line);
    int64_t number = 0;
    bool level = scan.take('<') && scan.takeNumber(kLongestLevel, &number) && scan.take('>');
    if (!level)
        scan = Scan(line);
    bool timed = takeKernelTime(&scan, parsed);
    if (!level && !timed)
        return false;
    parsed->source = LineSource::Kernel;
    parsed->form = level ? LineForm::KernelLevel : LineForm::Kernel;
    parsed->level = level ? static_cast<int8_t>(number & 7) : int8_t{-1};
    parsed->priority = level ? priorityOfLevel(parsed->level) : int8_t{0};
    parsed->text = scan.rest();
    return true;
}

bool parseOwn(std::string_view line, LogLine* parsed) {
    if (line.substr(0, kOwnStart.size()) != kOwnStart)
        return false;
    parsed->source = LineSource::Service;
    parsed->form = LineForm::Own;
    parsed->text = line.substr(kOwnStart.size());
    Scan scan(parsed->text);
    int64_t lost = 0;
    if (scan.takeNumber(kLongestId, &lost) && lost <= UINT32_MAX &&
        scan.rest().substr(0, kLostText.size()) == kLostText)
        parsed->lost = static_cast<uint32_t>(lost);
    return true;
}

/** Tells by its first character what a line can be. */
bool parseByStart(std::string_view line, LogLine* parsed) {
    switch (line.empty() ? '\0' : line.front()) {
    case '-':
        return parseOwn(line, parsed);
    case '[':
        if (parseHeading(line, parsed))
            return true;
        *parsed = kNothingKnown; // which a heading that is none may have filled in
        return parseKernel(line, parsed);
    case '<':
        return parseKernel(line, parsed);
    case '0':
    case '1':
        return parseDated(line, parsed);
    default:
        return parseUndated(line, parsed);
    }
}

/** Takes apart a line that belongs to no entry. */
void parseAlone(std::string_view line, LogLine* parsed) {
    *parsed = kNothingKnown;
    if (parseByStart(line, parsed))
        return;
    *parsed = kNothingKnown;
    parsed->text = line;
}

} // namespace

int8_t priorityOfLevel(int level) {
    constexpr int8_t kPriorities[] = {7, 7, 7, 6, 5, 4, 4, 3};
    return kPriorities[level & 7];
}

void LineParser::parse(std::string_view line, LogLine* parsed) {
    mEntryBytes += line.size() + 1;
    if (mEntryBytes > kLongestEntry)
        mOpen = Entry::None;
    if (mOpen != Entry::Open) {
        parseAlone(line, parsed);
        if (parsed->heading) {
            openEntry(*parsed);
            return;
        }
        if (mOpen == Entry::None || parsed->form != LineForm::Raw) {
            mOpen = Entry::None;
            return;
        }
    }
    *parsed = mHeading;
    parsed->tag = std::string_view(mTag, mTagLength);
    parsed->text = line;
    if (line.empty())
        mOpen = Entry::AfterEmptyLine;
}

/** Keeps the fields of a heading for the lines below it. */
void LineParser::openEntry(const LogLine& heading) {
    mTagLength = std::min(heading.tag.size(), sizeof mTag);
    std::copy_n(heading.tag.data(), mTagLength, mTag);
    mHeading = heading;
    mHeading.tag = {};
    mHeading.heading = false;
    mHeading.inside = true;
    mOpen = Entry::Open;
    mEntryBytes = 0;
}

} // namespace vnlog
