// SPDX-License-Identifier: Apache-2.0
#include "reader/Summaries.h"

#include "base/Clock.h"
#include "reader/Escape.h"
#include "reader/Figures.h"
#include "reader/ReportPage.h"

#include <ctime>
#include <map>
#include <vector>

namespace vnlog {

namespace {

constexpr uint32_t kBlockLines = 1000;
constexpr size_t kBlockBytes = 262144; ///< of text, after which a block ends early
constexpr size_t kMostTags = 65536; ///< that are told apart
constexpr size_t kMostTagBytes = 128; ///< of a tag; longer ones are cut
/** Writes a text as a JSON string. Nothing in it can end the element of HTML in which it stands. */
void writeJson(std::string_view text, TextOut& out) {
    out.write('"');
    for (size_t next = 0; next != text.npos;) {
        next = text.find('<');
        (void)writeJsonText(text.substr(0, next), out); // what is no UTF-8 is seen to be none
        if (next != text.npos) {
            out.write("\\u003C");
            text.remove_prefix(next + 1);
        }
    }
    out.write('"');
}

void addNumber(int64_t number, std::string* out) {
    out->append(std::to_string(number)).push_back(',');
}

/** The columns of lines that are written together. Each is an array of JSON, with a comma behind each item.
 */
struct Block {
    uint32_t lines = 0;
    size_t bytes = 0; ///< of their texts
    std::string places; ///< from which line of the block on: run, section, zone
    std::string numbers; ///< of the lines in their sections, as differences
    std::string times; ///< ms since the epoch, as differences; null for none
    std::string names; ///< of the tags, by number
    std::string marks; ///< source, priority and whether time is near or line context, as bits
    std::vector<std::string> tags; ///< those that are new
    std::vector<uint32_t> runs; ///< likewise
    LinePlace lastPlace;
    int64_t lastTime = 0;
    int32_t lastZone = 0;
};

class HtmlReport final : public RecordSink {
  public:
    HtmlReport(const std::string& title, const RunHistory& history, TextOut& out,
               const std::string& selection)
        : mHistory(history), mOut(out) {
        size_t data = kReportPage.find(kReportData);
        mOut.write(kReportPage.substr(0, data));
        mRest = kReportPage.substr(data + kReportData.size());
        beginElement("id=\"head\">{\"title\":");
        writeJson(title, mOut);
        mOut.write(",\"made\":");
        writeJson(localDate(std::time(nullptr)), mOut);
        mOut.write(",\"selection\":");
        writeJson(selection, mOut);
        mOut.write("}");
        endElement();
    }

    /** Texts are written at once, the other columns behind the last of the block. */
    void put(const Record& record) override {
        if (mBlock.lines == 0)
            beginElement("class=\"texts\">[");
        else
            mOut.write(',');
        writeJson(record.bytes, mOut);
        addPlace(record.place, record.time.zone);
        addTime(record.time);
        addNumber(numberOfTag(record.line.tag), &mBlock.names);
        bool near = record.time.basis == TimeBasis::Near;
        addNumber(static_cast<int>(record.line.source) | (record.line.priority & 7) << 3 | (near ? 64 : 0) |
                      (record.context ? 128 : 0),
                  &mBlock.marks);
        mBlock.bytes += record.bytes.size();
        if (++mBlock.lines == kBlockLines || mBlock.bytes > kBlockBytes)
            endBlock();
    }
    void finish() override {
        if (mBlock.lines > 0)
            endBlock();
        beginElement("id=\"end\">");
        mOut.write(printed("{\"lines\":%llu}", static_cast<unsigned long long>(mLines)));
        endElement();
        mOut.write(mRest);
    }

  private:
    void beginElement(const char* start) {
        mOut.write("<script type=\"application/json\" ");
        mOut.write(start);
    }
    void endElement() { mOut.write("</script>\n"); }
    void endBlock() {
        mOut.write("]");
        endElement();
        beginElement("class=\"lines\">{");
        writeColumn("places", mBlock.places);
        writeColumn("numbers", mBlock.numbers);
        writeColumn("times", mBlock.times);
        writeColumn("names", mBlock.names);
        writeColumn("marks", mBlock.marks);
        mOut.write("\"tags\":[");
        for (size_t at = 0; at < mBlock.tags.size(); at++) {
            mOut.write(at == 0 ? "" : ",");
            writeJson(mBlock.tags[at], mOut);
        }
        mOut.write("],\"runs\":[");
        for (size_t at = 0; at < mBlock.runs.size(); at++) {
            const RunStory* story = mHistory.find(mBlock.runs[at]);
            mOut.write(printed("%s[%u,", at == 0 ? "" : ",", mBlock.runs[at]));
            writeJson(story == nullptr ? "" : story->how, mOut);
            mOut.write("]");
        }
        mOut.write("]}");
        endElement();
        mLines += mBlock.lines;
        mBlock = Block();
    }
    void writeColumn(const char* name, std::string& items) {
        items.pop_back();
        mOut.write(printed("\"%s\":[", name));
        mOut.write(items);
        mOut.write("],");
    }
    void addPlace(const LinePlace& place, int32_t zone) {
        LinePlace& last = mBlock.lastPlace;
        if (mBlock.lines == 0 || place.run != last.run || place.section != last.section ||
            zone != mBlock.lastZone) {
            mBlock.places += printed("[%u,%u,%u,%d],", mBlock.lines, place.run, place.section, zone);
            last.line = 0;
        }
        if (mLines + mBlock.lines == 0 || place.run != mRun)
            mBlock.runs.push_back(mRun = place.run);
        addNumber(int64_t{place.line} - last.line, &mBlock.numbers);
        last = place;
        mBlock.lastZone = zone;
    }
    void addTime(const LineTime& time) {
        if (time.basis == TimeBasis::None) {
            mBlock.times += "null,";
            return;
        }
        int64_t milliseconds = wholeParts(time.nanoseconds, 1000000);
        addNumber(milliseconds - mBlock.lastTime, &mBlock.times);
        mBlock.lastTime = milliseconds;
    }
    /** 0 for no tag, else counted from 1 on in the order in which they come. */
    uint32_t numberOfTag(std::string_view tag) {
        if (tag.empty())
            return 0;
        if (tag == mTag)
            return mTagNumber; // as the line before
        mTag = tag.substr(0, kMostTagBytes);
        auto found = mTags.find(mTag);
        if (found == mTags.end() && mTags.size() >= kMostTags)
            found = mTags.find("(other tags)");
        if (found == mTags.end()) {
            const std::string& name = mTags.size() + 1 < kMostTags ? mTag : "(other tags)";
            found = mTags.emplace(name, static_cast<uint32_t>(mTags.size() + 1)).first;
            mBlock.tags.push_back(name);
        }
        return mTagNumber = found->second;
    }

    const RunHistory& mHistory;
    TextOut& mOut;
    std::string_view mRest; ///< of the page, behind the lines
    Block mBlock;
    uint64_t mLines = 0; ///< that are written
    uint32_t mRun = kCurrentRun; ///< of the last line
    std::map<std::string, uint32_t, std::less<>> mTags;
    std::string mTag; ///< the last one
    uint32_t mTagNumber = 0;
};

} // namespace

std::unique_ptr<RecordSink> makeReport(const std::string& title, const RunHistory& history, TextOut& out,
                                       const std::string& selection) {
    return std::make_unique<HtmlReport>(title, history, out, selection);
}

} // namespace vnlog
