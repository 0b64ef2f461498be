// SPDX-License-Identifier: Apache-2.0
#include "reader/StreamParts.h"

#include "base/Text.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace vnlog {

namespace {

constexpr char kOwnStart[] = "--------- ";
constexpr size_t kLookBack = 4; ///< sections in which an entry may have begun that goes on
constexpr size_t kMostEmpty = 8; ///< sections that are passed on the way to those

constexpr uint32_t bitOf(LineForm form) {
    return 1U << static_cast<unsigned>(form);
}
constexpr uint32_t kLongForm = bitOf(LineForm::Long);
/// With a line of these no entry in the long form goes on.
constexpr uint32_t kSettlingForms = bitOf(LineForm::Time) | bitOf(LineForm::ThreadTime) |
                                    bitOf(LineForm::Kernel) | bitOf(LineForm::KernelLevel) |
                                    bitOf(LineForm::Own);

/** Prefers the points of the section before, which are to the millisecond, but for the steps that came later.
 */
void takePoints(const std::vector<ClockPoint>& exact, std::vector<ClockPoint>* listed) {
    constexpr int64_t kRounding = 2000; ///< ms: both clocks of the list are in whole seconds
    std::vector<ClockPoint> points = exact;
    for (const ClockPoint& point : *listed) {
        const bool step = !points.empty() && point.since > points.back().since &&
                          std::abs(point.offset - points.back().offset) > kRounding;
        if (points.empty() || step)
            points.push_back(point);
    }
    *listed = std::move(points);
}

} // namespace

bool countState(TextState state, StreamCounts* counts) {
    switch (state) {
    case TextState::Whole:
        return false;
    case TextState::Damaged:
        ++counts->damaged;
        break;
    case TextState::Vanished:
        ++counts->vanished;
        break;
    case TextState::Unreadable:
        ++counts->unreadable;
        break;
    }
    return true;
}

ClockFacts clockFacts(const RunStory* story, int64_t modified, int64_t before) {
    constexpr int64_t kHalfYear = int64_t{183} * 86400 * 1000;
    ClockFacts facts;
    if (before == 0 && story != nullptr)
        before = story->start * 1000;
    facts.reference = before > 0 && std::abs(modified - before) > kHalfYear ? before : modified;
    facts.begin = before;
    if (story == nullptr)
        return facts;
    facts.points = story->points;
    facts.zoneKnown = story->zoneKnown;
    facts.zone = story->zone;
    return facts;
}

void StreamParts::begin(const Scope& asked) {
    scope = asked;
    counts = {};
    fragments.close();
    sections.close();
    parser.reset();
    if (mCurrent.valid() || std::find(scope.runs.begin(), scope.runs.end(), kCurrentRun) == scope.runs.end())
        return;
    mCurrent = mFolder.openRun(kCurrentRun);
    mCurrentError = mCurrent.valid() ? 0 : errno;
}

bool StreamParts::openRun(uint32_t run, std::string* remark) {
    fragments.close();
    errno = mCurrentError;
    FileDescriptor folder = run != kCurrentRun ? mFolder.openRun(run)
                            : mCurrent.valid() ? FileDescriptor(dup(mCurrent.get()))
                                               : FileDescriptor();
    if (folder.valid() ? sections.open(run, std::move(folder)) : (sections.close(), false))
        return true;
    if (errno == ENOENT)
        return false;
    const Path name = runFolder(kRunName, run);
    *remark = std::string(kReaderStart) + (run == kCurrentRun ? kCurrentFolder : name.text) +
              " cannot be read: " + errorText(errno);
    ++counts.unreadable;
    sections.close();
    return false;
}

bool StreamParts::openSection(size_t index) {
    mIndex = index;
    const bool open = fragments.open(sections.folder(), sections.run(), sections.sections()[index]);
    counts.opened += open ? 1 : 0;
    return open;
}

bool StreamParts::reopenSection(size_t index) {
    const StoredSection& section = sections.sections()[index];
    return fragments.text().number() == section.number
               ? fragments.rewind()
               : fragments.open(sections.folder(), sections.run(), section);
}

std::string StreamParts::countFinding() {
    const SectionText& text = fragments.text();
    return countState(text.state(), &counts) ? kReaderStart + text.finding() : std::string();
}

bool StreamParts::beginsWithin(size_t index, std::string* cutLine) {
    parser.reset();
    cutLine->clear();
    if (!sections.follows(index))
        return false;
    const RunSections::Start start = sections.start(index);
    if (start != RunSections::Start::Unknown && !mayBeInEntry(index) &&
        (start == RunSections::Start::Line || !mayBeEmpty(index - 1)))
        return start == RunSections::Start::Rest;
    bool open = false, settled = false;
    for (size_t back = 1, most = kLookBack; back <= most && !settled; ++back) {
        bool nothing = true; // as a service leaves a section that is killed before the first batch
        open = parseBefore(index - back, index, cutLine, &settled, &nothing);
        settled = settled || (!scope.fields && !nothing) || !sections.follows(index - back);
        most += nothing && most < kLookBack + kMostEmpty ? 1 : 0;
    }
    return open;
}

/** Whether the facts leave it open that a section begins within an entry in the long form. They do not tell
 * of a heading that is cut at a section's end, where the section has no other. */
bool StreamParts::mayBeInEntry(size_t index) {
    if (!scope.fields)
        return false;
    size_t most = kLookBack;
    for (size_t back = 1; back <= most && sections.follows(index - back + 1); ++back) {
        const SectionFacts* before = sections.facts(index - back);
        if (before == nullptr || (before->forms & kLongForm) != 0)
            return true;
        if ((before->forms & kSettlingForms) != 0)
            return false;
        most += before->lines == 0 && most < kLookBack + kMostEmpty ? 1 : 0;
    }
    return false;
}

/** Whether the facts leave it open that a section holds nothing, so that the line is not its own within
 * which it ends. */
bool StreamParts::mayBeEmpty(size_t index) {
    const SectionFacts* told = sections.facts(index);
    return told == nullptr || (told->lines == 0 && told->continues);
}

/**
 * Parses the sections from `first` up to `end` and tells whether the last ends within a line, `cutLine`.
 * `settled` becomes whether the first one holds a line with which no entry from before goes on, `nothing`
 * whether all are empty.
 */
bool StreamParts::parseBefore(size_t first, size_t end, std::string* cutLine, bool* settled, bool* nothing) {
    bool rest = sections.start(first) == RunSections::Start::Rest;
    parser.reset();
    cutLine->clear();
    for (size_t index = first; index < end; ++index) {
        Fragment fragment;
        LogLine line;
        const bool open = fragments.open(sections.folder(), sections.run(), sections.sections()[index]);
        while (open && fragments.next(&fragment)) {
            *nothing = false;
            if (cutLine->size() < Fragments::kLongest)
                cutLine->append(fragment.bytes);
            if (!fragment.ended && !fragment.cut)
                break;
            if (!rest && scope.fields)
                parser.parse(*cutLine, &line);
            const bool settles = line.heading || line.stamp.month != 0 || line.source == LineSource::Kernel ||
                                 line.source == LineSource::Service;
            *settled = *settled || (index == first && !rest && settles);
            rest = false;
            cutLine->clear();
        }
        if (!open || fragments.text().state() != TextState::Whole) {
            parser.reset();
            cutLine->clear();
            rest = index + 1 < end && sections.start(index + 1) == RunSections::Start::Rest;
        }
    }
    return !cutLine->empty();
}

void StreamParts::beginClock() {
    if (!scope.fields)
        return;
    SectionFacts told;
    const SectionText& text = fragments.text();
    if (text.archive() >= 0 && readFacts(text.archive(), &told)) {
        mClock.beginSection(told.clock());
        return;
    }
    const SectionFacts* before = sections.follows(mIndex) ? sections.facts(mIndex - 1) : nullptr;
    ClockFacts facts =
        clockFacts(mHistory.find(sections.run()), text.modified(), before != nullptr ? before->lastTime : 0);
    if (before != nullptr)
        takePoints(before->origin.points, &facts.points);
    mClock.beginSection(facts);
}

void StreamParts::plain(std::string_view bytes, const LinePlace& place, bool ended, Record* record) const {
    record->bytes = bytes;
    record->place = place;
    record->ended = ended;
    record->context = false;
    if (!scope.fields && record->line.source != LineSource::Unknown) {
        record->line = LogLine();
        record->time = LineTime();
    }
}

void StreamParts::describe(LineParser& by, std::string_view bytes, const LinePlace& place, bool ended,
                           Record* record) {
    plain(bytes, place, ended, record);
    if (!scope.fields)
        return;
    by.parse(bytes, &record->line);
    record->time = mClock.timeOf(record->line);
}

void StreamParts::describeRest(std::string_view bytes, const LinePlace& place, bool ended, Record* record) {
    plain(bytes, place, ended, record);
    record->line = LogLine();
    record->line.text = bytes;
    if (scope.fields)
        record->time = mClock.timeOf(record->line);
}

void StreamParts::describeRemark(const std::string& remark, const LinePlace& place, Record* record) {
    *record = Record();
    record->bytes = remark;
    record->place = place;
    record->line.source = LineSource::Reader;
    record->line.form = LineForm::Own;
    record->line.text = record->bytes.substr(sizeof kOwnStart - 1);
}

} // namespace vnlog
