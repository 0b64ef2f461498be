// SPDX-License-Identifier: Apache-2.0
#include "reader/Summaries.h"

#include "base/Handles.h"
#include "reader/Figures.h"
#include "storage/Archive.h"
#include "storage/Layout.h"
#include "storage/RootLock.h"
#include "storage/RunList.h"
#include "storage/SectionFacts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace vnlog {

namespace {

constexpr int64_t kSecond = 1000000000; ///< nanoseconds
constexpr uint32_t kMemberBytes = kMemberText + 2048; ///< and most bytes that such a member takes
constexpr uint32_t kBestRatio = 1032; ///< deflate makes no more text than that of a byte
constexpr std::string_view kMemberBegin = "\x1F\x8B\x08";

/** What a run amounts to. */
struct RunSum {
    uint32_t sections = 0;
    uint64_t lines = 0;
    uint64_t stored = 0, plain = 0; ///< bytes
    int64_t first = 0, last = 0; ///< seconds since the epoch, with dated
    bool dated = false;
    int32_t zone = 0;

    void date(int64_t begin, int64_t end) {
        first = dated ? std::min(first, begin) : begin;
        last = dated ? std::max(last, end) : end;
        dated = true;
    }
    /** Whether no line can be within the times of a scope. */
    bool outside(const Scope& scope) const {
        return dated && (last < wholeParts(scope.since, kSecond) || first > wholeParts(scope.until, kSecond));
    }
};

/** Adds up the sections of one run after the other. */
class RunAdder {
  public:
    RunAdder(const StoreFolder& folder, const RunHistory& history)
        : mFolder(folder), mStream(folder, history) {}

    /** False with errno set when the run cannot be listed. */
    bool add(uint32_t run, RunSum* sum);
    bool damaged() const { return mDamaged; }

  private:
    bool takeTold(const std::string& run, const StoredSection& section, bool follows, RunSum* sum);
    bool textSize(int archive, uint64_t size, uint32_t* text);
    void readSections(uint32_t run, uint32_t first, uint32_t last, RunSum* sum);

    const StoreFolder& mFolder;
    LineStream mStream;
    std::string mArchive; ///< the bytes of one
    std::vector<uint32_t> mMeasured; ///< sections of the run whose plain size is in the sum, ascending
    bool mDamaged = false;
};

uint64_t sizeOf(const Path& file) {
    struct stat info {};
    return lstat(file.text, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

bool RunAdder::add(uint32_t run, RunSum* sum) {
    std::vector<StoredSection> sections;
    if (!mFolder.listSections(run, &sections))
        return false;
    std::string path = mFolder.runPath(run);
    sum->sections = static_cast<uint32_t>(sections.size());
    mMeasured.clear();
    for (size_t at = 0, first = 0; at <= sections.size(); at++) {
        bool follows = at > 0 && at < sections.size() && sections[at - 1].number + 1 == sections[at].number;
        if (at < sections.size() && !takeTold(path, sections[at], follows, sum))
            continue;
        if (at > first)
            readSections(run, sections[first].number, sections[at - 1].number, sum);
        first = at + 1;
    }
    return true;
}

/** Adds what a section's files and facts tell. False when its text must be read. */
bool RunAdder::takeTold(const std::string& run, const StoredSection& section, bool follows, RunSum* sum) {
    Path text = section.number == 0 ? olderText(run.c_str()) : sectionText(run.c_str(), section.number);
    Path packed = archiveOf(text.text);
    uint64_t textBytes = section.text ? sizeOf(text) : 0, archiveBytes = section.archive ? sizeOf(packed) : 0;
    sum->stored += textBytes + archiveBytes;
    SectionFacts facts;
    FileDescriptor archive;
    uint32_t size = 0;
    if (section.archive && !section.text)
        archive = openFile(packed.text, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (section.archive && !(archive.valid() && textSize(archive.get(), archiveBytes, &size)))
        return false;
    mMeasured.push_back(section.number);
    sum->plain += section.archive ? size : textBytes;
    if (!section.archive || !readFacts(archive.get(), &facts) || !facts.continuesKnown || size < facts.lines)
        return false;
    // A line counts where it begins; what is left of one whose beginning was deleted begins here.
    sum->lines += facts.lines + (facts.openEnd ? 1U : 0U) - (facts.continues && follows ? 1U : 0U);
    if (facts.firstTime != 0)
        sum->date(wholeParts(facts.firstTime, 1000), wholeParts(facts.lastTime, 1000));
    if (facts.origin.zoneKnown)
        sum->zone = facts.origin.zone;
    return true;
}

/** Bytes of text in an archive of one member, as its end tells. False for any other, and for a damaged end.
 */
bool RunAdder::textSize(int archive, uint64_t size, uint32_t* text) {
    if (size < 18 || size > kMemberBytes)
        return false;
    mArchive.resize(static_cast<size_t>(size));
    if (pread(archive, mArchive.data(), mArchive.size(), 0) != static_cast<ssize_t>(mArchive.size()) ||
        mArchive.find(kMemberBegin, 1) != std::string::npos)
        return false;
    *text = 0;
    for (size_t byte = 1; byte <= 4; byte++)
        *text = *text << 8 | static_cast<unsigned char>(mArchive[mArchive.size() - byte]);
    return *text <= kMemberText && *text / kBestRatio <= size;
}

/** Adds the lines that begin in these sections. */
void RunAdder::readSections(uint32_t run, uint32_t first, uint32_t last, RunSum* sum) {
    Scope scope;
    scope.runs = {run};
    mStream.beginAt(scope, {run, first, 1});
    for (Record record; mStream.next(&record) && record.place.section <= last;) {
        if (record.line.source == LineSource::Reader)
            continue;
        sum->lines++;
        if (!std::binary_search(mMeasured.begin(), mMeasured.end(), record.place.section))
            sum->plain += record.bytes.size() + (record.ended ? 1 : 0);
        if (record.time.basis == TimeBasis::None)
            continue;
        int64_t second = wholeParts(record.time.nanoseconds, kSecond);
        sum->date(second, second);
        sum->zone = record.time.zone;
    }
    const StreamCounts& counts = mStream.counts();
    mDamaged = mDamaged || counts.damaged > 0 || counts.unreadable > 0;
}

/** `used` tells whether a service is at work on the store. */
std::string endOf(uint32_t run, const RunStory* story, bool used) {
    if (run == kCurrentRun && used)
        return "under way";
    const std::string how = story != nullptr ? story->how : "";
    if (how == kRunMoved)
        return "moved to another root";
    if (how == kRunStopped)
        return "stopped";
    if (how == kRunNoEnd)
        return "crash or power cut";
    return run == kCurrentRun ? "no end is told" : "unknown";
}

/** A time of the lines, or else of the list of runs; "-" without either. */
std::string timeOf(const RunSum& sum, int64_t second, int64_t listed, int32_t zone) {
    return !sum.dated && listed == 0 ? "-" : printedDate(sum.dated ? second : listed, zone);
}

std::string rowOf(uint32_t run, const RunStory* story, const RunSum& sum, bool used) {
    bool listed = story != nullptr && story->zoneKnown;
    int32_t zone = listed ? story->zone : sum.zone;
    std::string first = timeOf(sum, sum.first, story == nullptr ? 0 : story->start, zone);
    std::string last = timeOf(sum, sum.last, story == nullptr ? 0 : story->end, zone);
    return printed("%9u  %-25s  %-25s %9llu %8u %11s %11s  %s\n", run, first.c_str(), last.c_str(),
                   static_cast<unsigned long long>(sum.lines), sum.sections, printedSize(sum.stored).c_str(),
                   printedSize(sum.plain).c_str(), endOf(run, story, used).c_str());
}

} // namespace

bool printRuns(const StoreFolder& folder, const RunHistory& history, const Scope& scope, TextOut& out) {
    out.write(printed("%9s  %-25s  %-25s %9s %8s %11s %11s  %s\n", "run", "first", "last", "lines",
                      "sections", "stored", "plain", "end"));
    RunAdder adder(folder, history);
    const bool used = RootLock::holderAt(folder.root().c_str()) != 0;
    bool whole = true;
    for (uint32_t run : scope.runs) {
        RunSum sum;
        if (adder.add(run, &sum)) {
            if (!sum.outside(scope))
                out.write(rowOf(run, history.find(run), sum, used));
        } else if (errno != ENOENT) { // one that is gone is none
            out.write(printed("%9u  cannot be read: %s\n", run, std::strerror(errno)));
            whole = false;
        }
    }
    return whole && !adder.damaged();
}

} // namespace vnlog
