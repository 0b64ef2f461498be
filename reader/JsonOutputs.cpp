// SPDX-License-Identifier: Apache-2.0
#include "reader/Escape.h"
#include "reader/LineWords.h"
#include "reader/OutputForms.h"

namespace vnlog {

namespace {

/** The number that OpenTelemetry gives a priority: the first of its range. 0 for none. */
int severityNumber(int priority) {
    return priority >= 2 && priority <= 7 ? (priority - 2) * 4 + 1 : 0;
}

std::string_view basisWord(TimeBasis basis) {
    switch (basis) {
    case TimeBasis::Line:
        return "line";
    case TimeBasis::Kernel:
        return "kernel";
    case TimeBasis::Near:
        return "near";
    case TimeBasis::None:
        break;
    }
    return "";
}

/** Whether a line is nothing but the frame of an entry in the long form. */
bool isFrame(const LogLine& line) {
    return line.form == LineForm::Long && (line.heading || line.text.empty());
}

/** Times before the epoch cannot be told: the data model has none. */
bool hasTime(const Record& record) {
    return record.time.basis != TimeBasis::None && record.time.nanoseconds >= 0;
}

/** Writes named values one after the other: as members of an object, or as OTLP has them. */
class Attributes {
  public:
    enum class Style { Members, Otlp };

    Attributes(Style style, TextOut& out) : mOtlp(style == Style::Otlp), mOut(out) {}

    /** Whether the text was UTF-8; an empty one is left out. */
    bool text(std::string_view name, std::string_view value) {
        if (value.empty())
            return true;
        begin(name, mOtlp ? "\"stringValue\":\"" : "\"");
        bool whole = writeJsonText(value, mOut);
        mOut.write(mOtlp ? "\"}}" : "\"");
        return whole;
    }
    void number(std::string_view name, int64_t value) {
        begin(name, mOtlp ? "\"intValue\":\"" : "");
        writeNumber(value, mOut);
        mOut.write(mOtlp ? "\"}}" : "");
    }
    void bytes(std::string_view name, std::string_view value) {
        begin(name, mOtlp ? "\"bytesValue\":\"" : "\"");
        writeBase64(value, mOut);
        mOut.write(mOtlp ? "\"}}" : "\"");
    }

  private:
    void begin(std::string_view name, std::string_view value) {
        mOut.write(mFirst ? "" : ",");
        mFirst = false;
        mOut.write(mOtlp ? "{\"key\":\"" : "\"");
        mOut.write(name);
        mOut.write(mOtlp ? "\",\"value\":{" : "\":");
        mOut.write(value);
    }

    const bool mOtlp;
    bool mFirst = true;
    TextOut& mOut;
};

const RunStory* storyOf(const Record& record, const RunHistory& history) {
    return record.story != nullptr ? record.story.get() : history.find(record.place.run);
}

/** What is known of whoever wrote a line, in the sense of the data model. */
void writeResource(const RunStory* story, Attributes attributes) {
    (void)attributes.text("service.name", "vnlog");
    if (story == nullptr)
        return;
    (void)attributes.text("service.version", story->version);
    (void)attributes.text("vnlog.build", story->build);
    (void)attributes.text("vnlog.boot_id", story->boot);
    if (story->number > 0)
        attributes.number("vnlog.run_number", story->number);
}

/** `whole`: the line's text is UTF-8. Otherwise, or when its tag is none, the line comes as stored, too. */
void writeAttributes(const Record& record, bool whole, Attributes attributes) {
    const LogLine& line = record.line;
    (void)attributes.text("vnlog.source", sourceWord(line.source));
    whole = attributes.text("vnlog.tag", line.tag) && whole;
    if (line.pid >= 0)
        attributes.number("process.pid", line.pid);
    if (line.tid >= 0)
        attributes.number("thread.id", line.tid);
    if (line.level >= 0)
        attributes.number("vnlog.kernel_level", line.level);
    if (line.lost > 0)
        attributes.number("vnlog.lost_lines", line.lost);
    if (hasTime(record))
        (void)attributes.text("vnlog.time_basis", basisWord(record.time.basis));
    (void)attributes.text("vnlog.run", runName(record.place.run));
    attributes.number("vnlog.section", record.place.section);
    if (record.place.line > 0)
        attributes.number("vnlog.line", record.place.line);
    if (!whole)
        attributes.bytes("log.record.original", record.bytes);
}

class JsonOutput : public RecordSink {
  public:
    JsonOutput(const RunHistory& history, TextOut& out) : mHistory(history), mOut(out) {}

    bool shows(const Record& record) const override { return !isFrame(record.line); }
    void put(const Record& record) override {
        if (!shows(record))
            return;
        mOut.write('{');
        writeTimeAndSeverity(record);
        mOut.write("\"Body\":\"");
        bool whole = writeJsonText(record.line.text, mOut);
        mOut.write("\",\"Resource\":{");
        writeResource(storyOf(record, mHistory), {Attributes::Style::Members, mOut});
        mOut.write("},\"Attributes\":{");
        writeAttributes(record, whole, {Attributes::Style::Members, mOut});
        mOut.write("}}\n");
    }

  private:
    void writeTimeAndSeverity(const Record& record) {
        if (hasTime(record)) {
            mOut.write("\"Timestamp\":\"");
            writeNumber(record.time.nanoseconds, mOut);
            mOut.write("\",");
        }
        int severity = severityNumber(record.line.priority);
        if (severity == 0)
            return;
        mOut.write("\"SeverityText\":\"");
        mOut.write(priorityWord(record.line.priority));
        mOut.write("\",\"SeverityNumber\":");
        writeNumber(severity, mOut);
        mOut.write(',');
    }

    const RunHistory& mHistory;
    TextOut& mOut;
};

class OtlpOutput : public RecordSink {
  public:
    OtlpOutput(const RunHistory& history, TextOut& out) : mHistory(history), mOut(out) {}

    bool shows(const Record& record) const override { return !isFrame(record.line); }
    void put(const Record& record) override {
        if (!shows(record))
            return;
        if (mRecords == kMostRecords || mBytes > kManyBytes || record.place.run != mRun ||
            record.story != mStory)
            pause();
        if (mRecords == 0)
            begin(record);
        mOut.write(mRecords > 0 ? "," : "");
        writeRecord(record);
        ++mRecords;
        mBytes += record.bytes.size();
    }
    void pause() override {
        if (mRecords > 0)
            mOut.write("]}]}]}\n");
        mRecords = 0;
        mBytes = 0;
    }
    void finish() override { pause(); }

  private:
    static constexpr uint32_t kMostRecords = 256;
    static constexpr size_t kManyBytes = 262144; ///< of stored lines; receivers limit the size of a request

    void begin(const Record& record) {
        mRun = record.place.run;
        mStory = record.story;
        mOut.write("{\"resourceLogs\":[{\"resource\":{\"attributes\":[");
        writeResource(storyOf(record, mHistory), {Attributes::Style::Otlp, mOut});
        mOut.write("]},\"scopeLogs\":[{\"scope\":{\"name\":\"logview\"},\"logRecords\":[");
    }
    void writeRecord(const Record& record) {
        mOut.write('{');
        if (hasTime(record)) {
            mOut.write("\"timeUnixNano\":\"");
            writeNumber(record.time.nanoseconds, mOut);
            mOut.write("\",");
        }
        if (int severity = severityNumber(record.line.priority); severity > 0) {
            mOut.write("\"severityNumber\":");
            writeNumber(severity, mOut);
            mOut.write(",\"severityText\":\"");
            mOut.write(priorityWord(record.line.priority));
            mOut.write("\",");
        }
        mOut.write("\"body\":{\"stringValue\":\"");
        bool whole = writeJsonText(record.line.text, mOut);
        mOut.write("\"},\"attributes\":[");
        writeAttributes(record, whole, {Attributes::Style::Otlp, mOut});
        mOut.write("]}");
    }

    const RunHistory& mHistory;
    TextOut& mOut;
    uint32_t mRun = kCurrentRun; ///< of the request that is open
    std::shared_ptr<const RunStory> mStory; ///< of that
    uint32_t mRecords = 0; ///< in it; 0 for none open
    size_t mBytes = 0;
};

} // namespace

std::unique_ptr<RecordSink> makeJsonOutput(const RunHistory& history, TextOut& out) {
    return std::make_unique<JsonOutput>(history, out);
}

std::unique_ptr<RecordSink> makeOtlpOutput(const RunHistory& history, TextOut& out) {
    return std::make_unique<OtlpOutput>(history, out);
}

} // namespace vnlog
