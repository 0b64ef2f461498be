// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"
#include "reader/Outputs.h"
#include "reader/RunHistory.h"
#include "reader/TimeExpression.h"

#include <nlohmann/json.hpp>
#include <sys/mman.h>

namespace vnlog {
namespace {

TEST(RunHistoryTest, TellsWhatTheListDoes) {
    const std::string first =
        "run=7 event=start time=2026-11-23T14:40:55+01:00 uptime=12 boot=0a1e version=0.1.0 build=rc4\n"
        "run=7 event=step time=2026-11-23T16:02:10+01:00 uptime=1287 step=3600\n"
        "run=7 event=end time=2026-11-23T18:00:00+01:00 uptime=8357 how=stopped\n";
    const std::string archived = "run=7 event=archived how=stopped archived=3\n";
    const std::string next =
        "run=8 event=start time=2026-11-23T18:01:00+01:00 uptime=9 boot=- version=1 build=-\n";
    auto told = [](const std::string& list, uint32_t run) {
        RunHistory history;
        history.parse(list);
        const RunStory none, *found = history.find(run), &story = found != nullptr ? *found : none;
        std::ostringstream text;
        text << story.number << ' ' << story.start << ' ' << story.end << ' ' << story.steps;
        for (const ClockPoint& point : story.points)
            text << ' ' << point.since << ':' << point.offset;
        text << ' ' << story.how << ' ' << story.boot << ' ' << story.version << ' ' << story.build;
        return text.str();
    };
    const std::string whole = "7 1795441255 1795453200 1 12000:1795441243000 1287000:1795444843000 "
                              "8357000:1795444843000 stopped 0a1e 0.1.0 rc4";
    const std::string last = "8 1795453260 0 0 9000:1795453251000   1 ";
    EXPECT_EQ(told(first, kCurrentRun), whole) << "ended, and not archived yet";
    EXPECT_EQ(told(first + archived + next, 3), whole);
    EXPECT_EQ(told(first + archived + next, kCurrentRun), last);
    EXPECT_EQ(told(first + archived, kCurrentRun), "0 0 0 0    ");
    EXPECT_EQ(told(first + "run=7 event=archived how=no_end archived=0\n" + next, kCurrentRun), last);
    EXPECT_EQ(told("run=6 event=archived archived=3\n" + first + archived, 3), whole) << "the newest of two";
    EXPECT_EQ(told("n=8 event=start\n" + first + "\xff\n" + archived + "run=9 event=sta", 3), whole);
    EXPECT_EQ(told(first.substr(first.find("run=7 event=end")) + archived, 3),
              "7 0 1795453200 0 8357000:1795444843000 stopped   ");
}

TEST(TimeExpressionTest, ReadsTheTimesOfUsers) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    constexpr int64_t kNow = 1795441255; // 2026-11-23 14:40:55 +01:00
    std::istringstream good( // each with what it is ahead of now, in ns
        "2026-11-23 14:40:55=0;2026-11-23 14:40:55.5=500000000;2026-11-23 14:40=-55000000000;"
        "2026-11-23=-52855000000000;2026-07-01=-12584455000000000;2026-11-23T14:40:55+01:00=0;"
        "2026-11-23T13:40:55Z=0;2026-11-23T08:10:55.123456789-0530=123456789;"
        "2261-12-31T00:00Z=7419118745000000000;11-23 14:40:55.123=123000000;11-24 14:40=86345000000000;"
        "11-24 14:41=-31449595000000000;12-31=-28305655000000000;14:40:55=0;14:40=-55000000000;"
        "14:40:55.25=250000000;-90s=-90000000000;-90m=-5400000000000;-2h=-7200000000000;"
        "-3d=-259200000000000;-1w=-604800000000000;now=0;today=-52855000000000;yesterday=-139255000000000;"
        "@1763908855=-31532400000000000;@1763908855.123=-31532399877000000");
    int64_t time = 0;
    for (std::string text, ahead; std::getline(good, text, '=') && std::getline(good, ahead, ';');)
        EXPECT_EQ(ahead, parseTime(text, kNow, &time) ? std::to_string(time - kNow * 1000000000) : text);
    std::istringstream refused(
        "; ;-;@;90m;-90;-m;-9x;-1w ; -1w;--1w;+1h;-1000000000s;-999999999w;@-5;@1.;@1.1234567890;"
        "@9223372036;@1234567890123456789;@1 ;Now;tomorrow;todayx;1:40;14:4;24:00;14:60;14:40:60;14:40:5;"
        "14:40.5;14:40:55.;14:40Z;14;2026;2026-11;2026-1-1;2026-13-01;2026-00-01;2026-11-00;2026-11-31;"
        "2026-02-29;1969-12-31;2262-01-01;02026-11-23;2026-11-23 ;2026-11-23T;2026-11-23Z;2026-11-23 14;"
        "2026-11-23  14:40;2026-11-23 14:40:55,5;2026-11-23 14:40 Z;2026-11-23T14:40+24:00;"
        "2026-11-23T14:40+01:60;2026-11-23T14:40+1;2026/11/23;02-29;11-23T14:40;11-23 14:40Z;11-23 ;11-2;"
        "13-01;11-31;\xff");
    for (std::string text; std::getline(refused, text, ';');)
        EXPECT_FALSE(parseTime(text, kNow, &time)) << text;
    unsetenv("TZ");
    tzset();
}

using nlohmann::json;
/** Shows lines, as stored from last_3/log_2:17 on, which were written at one time. */
std::string shown(OutputForm form, const OutputStyle& style, const std::string& stored,
                  LineTime time = {1795441255123456789, 3600, TimeBasis::Line}) {
    FileDescriptor file(memfd_create("shown", MFD_CLOEXEC));
    RunHistory history;
    history.parse("run=7 event=start boot=b version=1 build=rc\nrun=7 event=archived archived=3\n");
    TextOut out(file.get());
    auto sink = makeOutput(form, style, history, out);
    std::istringstream lines(stored);
    LineParser parser;
    Record record{{}, {3, 2, 16}, true, false, {}, time};
    for (std::string line; std::getline(lines, line); sink->put(record)) {
        record.bytes = line;
        ++record.place.line;
        parser.parse(line, &record.line);
    }
    sink->finish();
    EXPECT_TRUE(out.flush());
    return readFile("/proc/self/fd/" + std::to_string(file.get()));
}

TEST(OutputTest, ShowsLinesInEachForm) {
    const std::string time = "2026-11-23T14:40:55.123+01:00";
    auto object = [&](const std::string& severity, const std::string& body, const std::string& attributes,
                      int line = 17) {
        return R"({"Timestamp":"1795441255123456789",)" + severity + R"("Body":")" + body +
               R"(","Resource":{"service.name":"vnlog","service.version":"1","vnlog.build":"rc",)" +
               R"("vnlog.boot_id":"b","vnlog.run_number":7},"Attributes":{"vnlog.source":")" + attributes +
               R"("vnlog.time_basis":"line","vnlog.run":"last_3","vnlog.section":2,"vnlog.line":)" +
               std::to_string(line) + "}}\n";
    };
    const std::string error = R"("SeverityText":"error","SeverityNumber":17,)";
    const struct {
        std::string colour, stored, longForm, jsonForm;
    } rows[] = {
        {"\x1b[1;31m", "E/Cam era ( 1234): a \"b\"\t\xc3\xbc",
         time + " android error Cam era 1234 last_3/log_2:17\n    a \"b\"\t\xc3\xbc\n",
         object(error, "a \\\"b\\\"\\t\xc3\xbc", R"(android","vnlog.tag":"Cam era","process.pid":1234,)")},
        {"\x1b[33m", "<4>[    1.000000] x", time + " kernel warning last_3/log_2:17\n    x\n",
         object(R"("SeverityText":"warning","SeverityNumber":13,)", "x",
                R"(kernel","vnlog.kernel_level":4,)")},
        {"\x1b[36m", "--------- 12 lines lost here: full",
         time + " service last_3/log_2:17\n    12 lines lost here: full\n",
         object("", "12 lines lost here: full", R"(service","vnlog.lost_lines":12,)")},
        {"\x1b[2m", "V( 1234: 5678) \x1b[2J\x7f\xc2\x9b",
         time + " android verbose 1234:5678 last_3/log_2:17\n    \\x1b[2J\\x7f\\xc2\\x9b\n",
         object(R"("SeverityText":"verbose","SeverityNumber":1,)", "\\u001b[2J\\u007f\\u009b",
                R"(android","process.pid":1234,"thread.id":5678,)")},
        {"\x1b[1;31m", "[ 11-23 14:40:55.123  1234: 5678 E/Tag      ]\na\n",
         time + " android error Tag 1234:5678 last_3/log_2:17\n    a\n\n",
         object(error, "a", R"(android","vnlog.tag":"Tag","process.pid":1234,"thread.id":5678,)", 18)},
    };
    for (const auto& row : rows) {
        const std::string line = row.stored.substr(0, row.stored.find('\n'));
        EXPECT_EQ(shown(OutputForm::Long, {false, true}, row.stored + "\n"), row.longForm);
        EXPECT_EQ(shown(OutputForm::Json, {}, row.stored + "\n"), row.jsonForm);
        EXPECT_EQ(shown(OutputForm::Short, {}, row.stored + "\n"), row.stored + "\n");
        EXPECT_EQ(shown(OutputForm::Short, {true, false}, line), row.colour + line + "\x1b[0m\n");
        EXPECT_EQ(shown(OutputForm::Iso, {}, line), time + " " + line + "\n");
    }
    const LineTime near = {-1, -34200, TimeBasis::Near};
    EXPECT_EQ(shown(OutputForm::Iso, {}, "x", near), "1969-12-31T14:29:59.999-09:30~x\n");
    EXPECT_EQ(shown(OutputForm::Iso, {}, "x", {}), "-" + std::string(time.size(), ' ') + "x\n");
}

std::string decodeBase64(const std::string& text) {
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    uint32_t bits = 0, count = 0;
    for (char c : text.substr(0, text.find('='))) {
        bits = bits << 6 | static_cast<uint32_t>(kDigits.find(c));
        if ((count += 6) >= 8)
            bytes += static_cast<char>(bits >> (count -= 8) & 0xff);
    }
    return bytes;
}

/** Whatever the bytes are: a terminal is not driven by them, and programs get them back. */
TEST(OutputTest, TakesAnyBytes) {
    std::minstd_rand random(1);
    const std::string pieces[] = {"\xc3\xbc",         "\xf0\x9f\x98\x80", "\xed\xa0\x80", "\xc2\x85",
                                  "\xf4\x90\x80\x80", "\xe0\x80\x80",     "\"",           "\\"};
    for (int i = 0; i < 1000; ++i) {
        std::string line = i % 3 == 0 ? "" : "E/Tag\xc3     ( 1234): ";
        for (size_t left = random() % 12; left > 0; --left)
            line += random() % 3 > 0 ? pieces[random() % std::size(pieces)]
                                     : std::string(1, static_cast<char>(random()));
        std::replace(line.begin(), line.end(), '\n', '.');
        for (const char* word : {"short", "iso", "long", "json", "otlp"}) {
            OutputForm form = OutputForm::Short;
            ASSERT_TRUE(findOutputForm(word, &form));
            const std::string text = shown(form, {false, true}, line + "\n");
            for (size_t at = 0; at < text.size(); ++at)
                ASSERT_FALSE(
                    (iscntrl(static_cast<unsigned char>(text[at])) && text[at] != '\t' && text[at] != '\n') ||
                    (text[at] == '\xc2' && text[at + 1] < '\xa0'))
                    << i;
            ASSERT_NO_THROW(json(text).dump()) << "no UTF-8: " << i;
        }
        json object = json::parse(shown(OutputForm::Json, {}, line + '\n'));
        const json original = object["Attributes"]["log.record.original"];
        LogLine parsed;
        LineParser().parse(line, &parsed);
        if (original.is_null())
            ASSERT_EQ(object["Body"].get<std::string>(), parsed.text) << i;
        else
            ASSERT_EQ(decodeBase64(original), line) << i;
    }
}

TEST(OutputTest, GathersLinesIntoRequests) {
    std::string lines;
    for (int i = 0; i < 600; ++i)
        lines += "<3>[    1.000000] \xff\n";
    std::istringstream requests(shown(OutputForm::Otlp, {}, lines));
    std::vector<size_t> counts;
    for (std::string line; std::getline(requests, line);) {
        const json request = json::parse(line)["resourceLogs"][0],
                   records = request["scopeLogs"][0]["logRecords"];
        counts.push_back(records.size());
        EXPECT_EQ(request["resource"]["attributes"][4]["value"]["intValue"], "7");
        EXPECT_EQ(records[0]["body"]["stringValue"], "\xef\xbf\xbd");
        EXPECT_EQ(records[0]["attributes"].back()["value"]["bytesValue"], "PDM+WyAgICAxLjAwMDAwMF0g/w==");
    }
    EXPECT_EQ(counts, (std::vector<size_t>{256, 256, 88}));
}

} // namespace
} // namespace vnlog
