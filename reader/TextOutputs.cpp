// SPDX-License-Identifier: Apache-2.0
#include "reader/Escape.h"
#include "reader/LineWords.h"
#include "reader/OutputForms.h"

namespace vnlog {

namespace {

constexpr std::string_view kRedBold = "\x1b[1;31m", kYellow = "\x1b[33m", kDim = "\x1b[2m",
                           kCyan = "\x1b[36m", kReset = "\x1b[0m";

std::string_view colourOf(const LogLine& line) {
    if (line.source == LineSource::Service)
        return kCyan;
    if (line.source == LineSource::Reader)
        return kYellow;
    if (line.priority >= 6)
        return kRedBold;
    if (line.priority == 5)
        return kYellow;
    return line.priority == 2 || line.priority == 3 ? kDim : "";
}

/** What the forms for people have in common. */
class TextOutput : public RecordSink {
  public:
    TextOutput(const OutputStyle& style, TextOut& out) : mStyle(style), mOut(out) {}

    void separate() override { mOut.write("--\n"); }

  protected:
    /** Writes a line: whatever `content` writes, coloured as a whole. */
    template <typename Content> void writeLine(const Record& record, Content content) {
        std::string_view colour = mStyle.colour ? colourOf(record.line) : "";
        mOut.write(colour);
        content();
        if (!colour.empty())
            mOut.write(kReset);
        mOut.write('\n');
    }
    void writeStored(std::string_view bytes) {
        if (mStyle.escape)
            writeEscaped(bytes, mOut);
        else
            mOut.write(bytes);
    }

    const OutputStyle mStyle;
    TextOut& mOut;
};

class ShortOutput : public TextOutput {
  public:
    using TextOutput::TextOutput;

    bool wantsFields() const override { return mStyle.colour; }
    void put(const Record& record) override {
        writeLine(record, [&] { writeStored(record.bytes); });
    }
};

class IsoOutput : public TextOutput {
  public:
    using TextOutput::TextOutput;

    void put(const Record& record) override {
        writeLine(record, [&] {
            writeTime(record.time);
            writeStored(record.bytes);
        });
    }

  private:
    void writeTime(const LineTime& time) {
        static const std::string kNone = "-" + std::string(WallClock::kWidth, ' ');
        if (time.basis == TimeBasis::None) {
            mOut.write(kNone);
            return;
        }
        mOut.write(mClock.print(time));
        mOut.write(time.basis == TimeBasis::Near ? '~' : ' ');
    }

    WallClock mClock;
};

class LongOutput : public TextOutput {
  public:
    using TextOutput::TextOutput;

    void put(const Record& record) override {
        if (!goesOn(record))
            writeLine(record, [&] { writeHeading(record); });
        if (!record.line.heading)
            writeLine(record, [&] { writeText(record.line.text); });
        mLast = record.place;
        mInEntry = record.line.heading || record.line.inside;
    }
    void separate() override {
        TextOutput::separate();
        mInEntry = false;
    }

  private:
    /** Whether a line has the heading that was written last. */
    bool goesOn(const Record& record) const {
        return mInEntry && record.line.inside && record.place.run == mLast.run &&
               record.place.section == mLast.section && record.place.line == mLast.line + 1;
    }
    void writeHeading(const Record& record) {
        const LogLine& line = record.line;
        mOut.write(record.time.basis == TimeBasis::None ? "-" : mClock.print(record.time));
        mOut.write(record.time.basis == TimeBasis::Near ? "~" : " ");
        mOut.write(sourceWord(line.source));
        writeWord(priorityWord(line.priority));
        writeWord(line.tag);
        if (line.pid >= 0)
            writeWord(std::to_string(line.pid) + (line.tid >= 0 ? ":" + std::to_string(line.tid) : ""));
        writeWord(placeName(record.place));
    }
    void writeWord(std::string_view word) {
        if (word.empty())
            return;
        mOut.write(' ');
        writeStored(word);
    }
    void writeText(std::string_view text) {
        if (text.empty())
            return;
        mOut.write("    ");
        writeStored(text);
    }

    WallClock mClock;
    LinePlace mLast;
    bool mInEntry = false; ///< the last line was one of an entry in the long form
};

} // namespace

std::unique_ptr<RecordSink> makeShortOutput(const OutputStyle& style, TextOut& out) {
    return std::make_unique<ShortOutput>(style, out);
}

std::unique_ptr<RecordSink> makeLongOutput(const OutputStyle& style, TextOut& out) {
    return std::make_unique<LongOutput>(style, out);
}

std::unique_ptr<RecordSink> makeIsoOutput(const OutputStyle& style, TextOut& out) {
    return std::make_unique<IsoOutput>(style, out);
}

} // namespace vnlog
