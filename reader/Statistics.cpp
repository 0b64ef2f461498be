// SPDX-License-Identifier: Apache-2.0
#include "reader/Summaries.h"

#include "reader/Escape.h"
#include "reader/Figures.h"
#include "reader/LineWords.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <vector>

namespace vnlog {

namespace {

constexpr size_t kMostNames = 4096; ///< that are counted one by one
constexpr size_t kMostNameBytes = 128; ///< of a name; longer ones are cut
constexpr size_t kMostShown = 20; ///< of tags, and of places of each kind
constexpr size_t kMostBars = 60;
constexpr size_t kMostMinutes = 4096; ///< or groups of minutes that are counted one by one

struct Count {
    uint64_t lines = 0, bytes = 0;

    void add(const Record& record) {
        lines++;
        bytes += record.bytes.size() + (record.ended ? 1 : 0);
    }
};

struct Row {
    std::string name;
    Count count;
};

/** Prints the rows that have lines. */
void printTable(const char* title, const std::vector<Row>& rows, uint64_t ofLines, TextOut& out) {
    out.write(printed("\n%-42s %10s %7s %11s\n", title, "lines", "share", "size"));
    for (const Row& row : rows) {
        if (row.count.lines == 0)
            continue;
        double share = static_cast<double>(row.count.lines) * 100 / static_cast<double>(ofLines);
        out.write("  ");
        writeEscaped(row.name, out);
        out.write(std::string(row.name.size() < 40 ? 40 - row.name.size() : 0, ' '));
        out.write(printed(" %10llu %5.1f %% %11s\n", static_cast<unsigned long long>(row.count.lines), share,
                          printedSize(row.count.bytes).c_str()));
    }
}

/** Counts by name, in memory that is bounded. */
class NameCounts {
  public:
    void add(std::string_view name, const Record& record) {
        name = name.substr(0, kMostNameBytes);
        auto found = mCounts.find(name);
        if (found == mCounts.end() && mCounts.size() < kMostNames)
            found = mCounts.emplace(name, Count()).first;
        (found == mCounts.end() ? mOthers : found->second).add(record);
    }
    /** The names with the most lines, and what the others amount to. */
    void print(uint64_t ofLines, TextOut& out) const {
        std::vector<Row> rows;
        for (auto& [name, count] : mCounts)
            rows.push_back({name, count});
        std::stable_sort(rows.begin(), rows.end(), [](const Row& one, const Row& other) {
            return one.count.lines > other.count.lines;
        });
        Count rest = mOthers;
        for (; rows.size() > kMostShown; rows.pop_back()) {
            rest.lines += rows.back().count.lines;
            rest.bytes += rows.back().count.bytes;
        }
        rows.push_back({"(other tags)", rest});
        printTable("tags", rows, ofLines, out);
        if (mOthers.lines > 0)
            out.write(printed("  Only the first %zu tags were told apart.\n", kMostNames));
    }

  private:
    std::map<std::string, Count, std::less<>> mCounts;
    Count mOthers; ///< of names that came when there was no room
};

/** Lines per minute of the local time, in bars of so many minutes that there are few enough of them. */
class Minutes {
  public:
    void add(const LineTime& time) {
        if (time.basis == TimeBasis::None) {
            mUndated++;
            return;
        }
        int64_t minute = wholeParts(wholeParts(time.nanoseconds, 1000000000) + time.zone, 60);
        mBars[wholeParts(minute, kWidths[mWidth])]++;
        if (mBars.size() > kMostMinutes)
            widen();
    }
    void print(TextOut& out) {
        while (mBars.size() > kMostBars)
            widen();
        int64_t width = kWidths[mWidth];
        out.write("\nlines per minute" + (width == 1 ? std::string() : ", each bar for " + printedWidth()) +
                  "\n");
        uint64_t highest = 1;
        for (auto& [bar, lines] : mBars)
            highest = std::max(highest, lines);
        for (auto at = mBars.begin(); at != mBars.end(); ++at) {
            if (at != mBars.begin() && std::prev(at)->first + 1 != at->first)
                out.write("  :\n"); // no lines between the two
            out.write(printed("  %-16s %8.*f ", printedMinute(at->first * width).c_str(), width == 1 ? 0 : 1,
                              static_cast<double>(at->second) / static_cast<double>(width)));
            out.write(block(at->second, highest) + "\n");
        }
        if (mUndated > 0)
            out.write(printed("  without a time: %llu\n", static_cast<unsigned long long>(mUndated)));
    }

  private:
    /** In minutes; each is a multiple of the one before, and the last makes few bars of any times. */
    static constexpr std::array<int64_t, 12> kWidths = {1,   2,    10,    30,    60,     180,
                                                        360, 1440, 10080, 40320, 524160, 5241600};

    void widen() {
        int64_t factor = kWidths[mWidth + 1] / kWidths[mWidth];
        std::map<int64_t, uint64_t> wider;
        for (auto& [bar, lines] : mBars)
            wider[wholeParts(bar, factor)] += lines;
        mBars.swap(wider);
        mWidth++;
    }
    std::string printedWidth() const {
        long long width = kWidths[mWidth];
        if (width < 60)
            return printed("%lld minutes", width);
        return width < 1440 ? printed("%lld h", width / 60) : printed("%lld days", width / 1440);
    }
    /** A bar of eighths of a column. */
    static std::string block(uint64_t lines, uint64_t highest) {
        constexpr double kEighths = 40 * 8;
        constexpr const char* kPartial[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
        double share = static_cast<double>(lines) / static_cast<double>(highest);
        auto eighths = static_cast<uint32_t>(std::max(1.0, share * kEighths));
        std::string text;
        for (uint32_t column = 0; column < eighths / 8; column++)
            text += "█";
        return text + kPartial[eighths % 8];
    }

    std::map<int64_t, uint64_t> mBars; ///< lines by number of the bar from the epoch on
    size_t mWidth = 0;
    uint64_t mUndated = 0;
};

/** A few texts, and how many there were. */
class Examples {
  public:
    void add(const std::string& text) {
        if (mCount++ < kMostShown)
            mTexts.push_back(text);
    }
    void print(TextOut& out) const {
        for (const std::string& text : mTexts) {
            out.write("  ");
            writeEscaped(text, out);
            out.write('\n');
        }
        if (mCount > mTexts.size())
            out.write(printed("  and %zu more\n", mCount - mTexts.size()));
    }
    bool empty() const { return mCount == 0; }

  private:
    std::vector<std::string> mTexts;
    size_t mCount = 0;
};

class Statistics final : public RecordSink {
  public:
    Statistics(const StoreFolder& folder, const RunHistory& history, TextOut& out)
        : mFolder(folder), mHistory(history), mOut(out) {}

    void put(const Record& record) override {
        if (record.context)
            return;
        if (record.line.source == LineSource::Reader) {
            mRemarks.add(std::string(record.bytes.substr(0, kMostNameBytes * 2)));
            return;
        }
        mTotal.add(record);
        countRun(record);
        mSources[static_cast<size_t>(record.line.source)].add(record);
        mPriorities[static_cast<size_t>(record.line.priority & 7)].add(record);
        if (!record.line.tag.empty())
            mTags.add(record.line.tag, record);
        mMinutes.add(record.time);
        if (record.line.lost > 0)
            noteLoss(record);
    }
    void finish() override {
        mOut.write(printed("%llu lines, %s\n", static_cast<unsigned long long>(mTotal.lines),
                           printedSize(mTotal.bytes).c_str()));
        printTables();
        mMinutes.print(mOut);
        printGaps();
    }

  private:
    void countRun(const Record& record) {
        uint32_t run = record.place.run;
        bool known = !mRuns.empty() && mRuns.back().first == run; // a run's lines come together
        if (!known && mRuns.size() < kMostNames)
            mRuns.emplace_back(run, Count());
        if (known || mRuns.back().first == run)
            mRuns.back().second.add(record);
        else
            mOtherRuns.add(record);
    }
    void noteLoss(const Record& record) {
        mLost += record.line.lost;
        mLosses.add(printed("%s, section %u, line %u: %u lines", runName(record.place.run).c_str(),
                            record.place.section, record.place.line, record.line.lost));
    }
    void printTables() {
        std::vector<Row> runs, sources, priorities;
        for (auto& [run, count] : mRuns)
            runs.push_back({runName(run), count});
        runs.push_back({"(other runs)", mOtherRuns});
        for (size_t source = 0; source < kLineSources; source++)
            sources.push_back({std::string(sourceWord(static_cast<LineSource>(source))), mSources[source]});
        for (int priority = 7; priority > 0; priority--)
            priorities.push_back(
                {std::string(priorityWord(priority)), mPriorities[static_cast<size_t>(priority)]});
        priorities.push_back({"none", mPriorities[0]});
        printTable("runs", runs, mTotal.lines, mOut);
        printTable("sources", sources, mTotal.lines, mOut);
        printTable("priorities", priorities, mTotal.lines, mOut);
        mTags.print(mTotal.lines, mOut);
    }
    void printGaps() {
        Examples sections, clocks, ends;
        for (auto& [run, count] : mRuns) {
            findMissing(run, &sections);
            const RunStory* story = mHistory.find(run);
            if (story != nullptr && story->steps > 0)
                clocks.add(printed("%s: %u time%s", runName(run).c_str(), story->steps,
                                   story->steps == 1 ? "" : "s"));
            if (story != nullptr && story->how == "no_end")
                ends.add(runName(run));
        }
        mOut.write("\ngaps\n");
        bool none = mLosses.empty() && mRemarks.empty();
        if (none && sections.empty() && clocks.empty() && ends.empty())
            mOut.write("  none that is known of\n");
        printList(printed("%llu lines lost, as told at:", static_cast<unsigned long long>(mLost)), mLosses);
        printList("sections that are not there:", sections);
        printList("the wall clock was set by more than a minute:", clocks);
        printList("runs that a crash or a power cut ended:", ends);
        printList("could not be read:", mRemarks);
    }
    void printList(const std::string& title, const Examples& examples) {
        if (examples.empty())
            return;
        mOut.write(title + "\n");
        examples.print(mOut);
    }
    /** Numbers without a section, below and between those that are there. */
    void findMissing(uint32_t run, Examples* missing) {
        std::vector<StoredSection> sections;
        if (!mFolder.listSections(run, &sections))
            return; // deleted meanwhile, or the remarks of the reader tell
        uint32_t next = 1;
        for (const StoredSection& section : sections) {
            if (section.number > next) {
                std::string last = section.number - 1 > next ? printed(" to %u", section.number - 1) : "";
                missing->add(printed("%s: %u%s%s", runName(run).c_str(), next, last.c_str(),
                                     next == 1 ? ", deleted, or under another root" : ""));
            }
            next = section.number + 1;
        }
    }

    const StoreFolder& mFolder;
    const RunHistory& mHistory;
    TextOut& mOut;
    Count mTotal, mOtherRuns;
    std::vector<std::pair<uint32_t, Count>> mRuns; ///< in the order in which they came
    std::array<Count, kLineSources> mSources;
    std::array<Count, 8> mPriorities;
    NameCounts mTags;
    Minutes mMinutes;
    uint64_t mLost = 0;
    Examples mLosses, mRemarks;
};

} // namespace

std::unique_ptr<RecordSink> makeStatistics(const StoreFolder& folder, const RunHistory& history,
                                           TextOut& out) {
    return std::make_unique<Statistics>(folder, history, out);
}

} // namespace vnlog
