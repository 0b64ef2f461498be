// SPDX-License-Identifier: Apache-2.0
#include "StoreParts.h"

#include "base/Clock.h"
#include "lines/LineClock.h"
#include "storage/ProcessFileWork.h"
#include "storage/SectionFacts.h"

#include <log/logprint.h>
#include <zlib.h>

using namespace vnlog;
using namespace std::string_literals;

namespace {

using Random = std::minstd_rand;

int rounds(int usual) {
    return std::getenv("VNLOG_LONG_TESTS") != nullptr ? 50 * usual : usual;
}

std::string randomText(Random& random, size_t most, std::string_view from) {
    std::string text(random() % (most + 1), '\0');
    std::generate(text.begin(), text.end(), [&] { return from[random() % from.size()]; });
    return text;
}

std::vector<std::string> linesOf(std::string text) {
    std::vector<std::string> lines;
    for (std::istringstream stream(text); std::getline(stream, text);)
        lines.push_back(text);
    return lines;
}

LocalStamp stampOf(time_t time, int64_t milliseconds) {
    tm date{};
    localtime_r(&time, &date);
    return {int8_t(date.tm_mon + 1), int8_t(date.tm_mday), int8_t(date.tm_hour),
            int8_t(date.tm_min),     int8_t(date.tm_sec),  int16_t(milliseconds)};
}

/** All that a line tells. */
std::string fieldsOf(const LogLine& l) {
    char text[200];
    const LocalStamp& s = l.stamp;
    std::snprintf(text, sizeof text, "%d %d p%d l%d%s%s %d %d %d %d %d %d %d.%d %lld %u [", int(l.source),
                  int(l.form), l.priority, l.level, l.heading ? "h" : "", l.inside ? "i" : "", l.pid, l.tid,
                  s.month, s.day, s.hour, s.minute, s.second, s.millisecond,
                  static_cast<long long>(l.kernelTime), l.lost);
    return text + std::string(l.tag) + "] [" + std::string(l.text) + "]";
}

struct LineTest : FolderTest {};

} // namespace

/** What the log library makes of an entry gives its fields back, in each form. */
TEST(LineParser, GivesBackWhatTheLogLibraryHasPrinted) {
    const char* tags[] = {"",      "Tag",  "a b", "x: y", "p(12): q", "p( 1234)", "averylongtagname",
                          " lead", "a/b ]"};
    AndroidLogFormat_t* format = android_log_format_new();
    Random random(1);
    for (int i = 0; i < rounds(20000); ++i) {
        LogLine line;
        line.source = LineSource::Android;
        line.form = LineForm(random() % (1 + int(LineForm::Long)));
        const bool ofLines = line.form == LineForm::Long, raw = line.form == LineForm::Raw;
        const char* odd = tags[random() % std::size(tags)];
        const std::string tag = random() % 2 == 0 ? odd : randomText(random, 12, "aB.()/]:-");
        std::string message = "m" + randomText(random, 30, raw ? "ab :()[]/>-12" : "ab :()[]/>-12\n");
        message.erase(0, ofLines || raw ? 0 : random() % 2); // at times an empty first line, or nothing
        auto id = [&] { return int32_t(random() >> random() % 31); };
        AndroidLogEntry entry{0, 0,      android_LogPriority(random() % 9), -1, id(), id(), tag.c_str(), 0,
                              0, nullptr};
        entry.tv_sec = time_t(1000000000 + random() % 1000000000),
        entry.tv_nsec = long(random() % 1000) * 1000000;
        entry.tagLen = tag.size() + 1, entry.messageLen = message.size(), entry.message = message.c_str();
        android_log_setPrintFormat(format, AndroidLogPrintFormat(FORMAT_BRIEF + int(line.form)));
        char printed[4096]; // holds the whole of it
        size_t length = 0;
        ASSERT_EQ(android_log_formatLogLine(format, printed, sizeof printed, &entry, &length), printed);
        const bool dated = line.form >= LineForm::Time, thread = line.form == LineForm::Thread;
        line.tag = raw || thread ? "" : std::string_view(tag);
        line.pid = raw || line.form == LineForm::Tag ? -1 : entry.pid;
        line.tid = thread || line.form > LineForm::Time ? entry.tid : -1;
        const int priority = std::min<int>(entry.priority, ANDROID_LOG_FATAL);
        line.priority = int8_t(raw || priority < ANDROID_LOG_VERBOSE ? 0 : priority);
        line.stamp = dated ? stampOf(entry.tv_sec, entry.tv_nsec / 1000000) : LocalStamp();
        const std::vector<std::string> lines = linesOf(printed);
        std::vector<std::string> texts = linesOf(message);
        texts.insert(texts.begin(), ofLines || texts.empty() ? 1 : 0, "");
        texts.resize(ofLines ? lines.size() : texts.size());
        ASSERT_EQ(lines.size(), texts.size());
        LineParser parser;
        for (size_t at = 0; at < lines.size(); ++at) {
            LogLine found;
            parser.parse(lines[at], &found);
            line.text = texts[at];
            line.heading = ofLines && at == 0, line.inside = ofLines && at > 0;
            ASSERT_EQ(fieldsOf(found), fieldsOf(line)) << printed;
        }
    }
    android_log_format_free(format);
}

TEST(LineParser, OtherLinesAndBytesOfAnyKind) {
    const std::pair<const char*, const char*> table[] = {
        {"[    1.000002] text", "1 8 p0 l-1 $ 1000002 0 [] [text]"},
        {"<4>[12345.678901][  T7] x", "1 9 p5 l4 $ 12345678901 0 [] [[  T7] x]"},
        {"<30>no time", "1 9 p4 l6 $ -1 0 [] [no time]"},
        {"--------- 12 lines lost here: x", "2 10 p0 l-1 $ -1 12 [] [12 lines lost here: x]"},
        {"--------- lines lost here: x", "2 10 p0 l-1 $ -1 0 [] [lines lost here: x]"},
        {"I/Tagtagta( 123): text", "0 2 p4 l-1 $ -1 0 [Tagtagta( 123)] [text]"},
        {"I/Tag     : one: two( 1234): x", "0 2 p4 l-1 $ -1 0 [Tag] [one: two( 1234): x]"},
    };
    const std::string raw =
        "\nI\nI/\nI/Tag: x\nX/Tag     : x\n--------\nI(1) x  (T)\nI( 1234) x (T)\n[ 1.5] x\n<>x\n"
        "[1234567890.000000] x\n13-01 00:00:00.000 I/Tag     (    1): x\n"
        "12-01 00:00:00.000 I/Tag     : x\nI(99999999999:    1) x\n";
    const std::string entry = "[ 01-02 03:04:05.006     7:    8 I/Tag      ]\nI/Other   (    1): x\n<3>x\n\n"
                              "I/Other   (    1): x\n<3>x\nraw\n"; // and what ends it
    std::vector<std::string> lines = linesOf(raw + entry);
    LineParser parser;
    LogLine found;
    std::string seen;
    for (auto& line : lines) {
        parser.parse(line, &found);
        EXPECT_TRUE(found.text == line || found.form != LineForm::Raw);
        seen += std::to_string(int(found.form)) + (found.inside ? "i " : " ");
    }
    EXPECT_EQ(seen, "4 4 4 4 4 4 4 4 4 4 4 4 4 4 7 7i 7i 7i 0 9 4 ");
    parser.parse("[ 01-02 03:04:05.006     7:    8 I/Tag      ]", &found); // in the text of another form
    for (size_t bytes = 0; bytes < 5120; bytes += 512)
        parser.parse(std::string(511, 'x'), &found);
    for (auto& [line, fields] : table) {
        parser.parse(lines.emplace_back(line), &found);
        EXPECT_EQ(fieldsOf(found), std::regex_replace(fields, std::regex("\\$"), "-1 -1 0 0 0 0 0.0"));
    }
    Random random(4);
    LineClock clock;
    for (int i = 0; i < rounds(30000); ++i) {
        std::string text = lines[random() % lines.size()];
        for (uint32_t hits = random() % 4; hits > 0 && !text.empty(); --hits)
            text[random() % text.size()] = random() % 2 == 0 ? char(random()) : "0 :)(9"[random() % 6];
        text.insert(random() % (text.size() + 1), randomText(random, random() % 3 * 9, "(): 19\xff]"));
        const std::unique_ptr<char[]> exact(new char[text.size()]); // whoever reads beyond is caught
        parser.parse({exact.get(), text.copy(exact.get(), text.size())}, &found);
        ASSERT_TRUE(found.priority >= 0 && found.priority < 8 && found.text.size() <= text.size()) << text;
        const int64_t wild = int64_t(random()) << random() % 33;
        if (i % 100 == 0)
            clock.beginSection({{{0, wild}, {wild, -wild}}, i % 200 == 0, INT32_MIN, wild, 0});
        (void)clock.timeOf(found);
    }
}

TEST_F(LineTest, LinesAreDatedByWhatIsKnown) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    Random random(2);
    LineClock clock;
    LogLine stamp, kernel;
    for (int i = 0; i < rounds(5000); ++i) {
        const time_t time = 1600000000 + time_t(random() % 400000000);
        tm date{};
        localtime_r(&time, &date);
        ClockFacts facts{{}, random() % 2 == 0, int32_t(date.tm_gmtoff)};
        (i % 2 == 0 ? facts.reference : facts.begin) =
            (int64_t{time} + random() % 20000000 - 10000000) * 1000;
        clock.beginSection(facts);
        stamp.stamp = stampOf(time, 7);
        const LineTime found = clock.timeOf(stamp), after = clock.timeOf(kernel);
        const int64_t away = found.nanoseconds - int64_t{time} * 1000000000 - 7000000;
        const bool twice = date.tm_mon == 9 && date.tm_hour == 2 && !facts.zoneKnown; // clocks are put back
        ASSERT_TRUE(away == 0 ? found.zone == date.tm_gmtoff : twice && std::abs(away) == 3600000000000)
            << time;
        ASSERT_TRUE(after.basis == TimeBasis::Near && after.nanoseconds == found.nanoseconds);
    }
    stamp.stamp = {2, 29, 0, 0, 0, 0};
    clock.beginSection({});
    EXPECT_EQ(clock.timeOf(stamp).basis, TimeBasis::None);
    clock.beginSection({{{10, 1000}, {20, 5000}}, true, 0, 1767225600000, 0}); // 2026 has no leap day
    EXPECT_EQ(clock.timeOf(stamp).nanoseconds, 1709164800000000000);
    for (int64_t at : {1, 10000, 19999, 20000}) {
        kernel.kernelTime = at;
        EXPECT_EQ(clock.timeOf(kernel).nanoseconds, at * 1000 + (at < 20000 ? 1000000000 : 5000000000));
    }
    unsetenv("TZ");
    tzset();
}

/** The example of docs/on-disk-format.md, and whatever else is written. */
TEST_F(LineTest, FactsAreReadAsTheyAreWrittenAndDamagedOnesCostNothing) {
    const std::string example(
        "VL\x89\0\x01\x69\xfb\x83\x75"
        "\x01\x04\x07\0\0\0\x02\x24"
        "0a1e5d7c-33cb-4f0e-9a51-6d3e1c7f2b90"
        "\x03\x10\0\0\0\0\0\0\0\0\x72\x34\xa3\x08\xa2\x01\0\0\x04\x04\x10\x0e\0\0"
        "\x05\x18\x20\x12\xa4\x08\xa2\x01\0\0\xd3\x62\xa3\x08\xa2\x01\0\0\x2c\x10\xa4\x08\xa2\x01\0\0"
        "\x06\x09\x04\0\0\0\x20\x05\0\0\x0d\x07\x0f\x04\x02\0\0\0\x08\x01\0\0\0\x10\x01\0\0\0"
        "\x08\x08\0\0\0\0\x0c\0\0\0",
        141);
    SectionFacts told, read;
    ASSERT_TRUE(decodeFacts(example, &told) && encodeFacts(told) == example);
    EXPECT_TRUE(told.origin.run == 7 && told.origin.boot[7] == 'c' && told.lines == 4 && told.forms == 0x520);
    EXPECT_TRUE(told.origin.points[0].offset == 1795441243250 && told.firstTime == 1795441255123);
    EXPECT_TRUE(told.counts[0][4] == 2 && told.counts[2][0] == 1 && told.openEnd && told.lostHere == 12);
    Random random(3);
    for (int i = 0; i < rounds(2000); ++i) {
        told.origin.run = random() % 3, told.origin.zoneKnown = random() % 2 == 0;
        told.origin.boot = randomText(random, 64, "0123456789abcdef-");
        told.origin.points.assign(random() % (kMostPoints + 1), {int64_t(random()), -int64_t(random())});
        told.lines = told.lostHere = random() % 2 * random();
        for (uint32_t* count = told.counts[0]; count < told.counts[kLineSources]; ++count)
            *count = random() % 3 == 0 ? told.lines / 64 : 0;
        const std::string field = encodeFacts(told);
        ASSERT_TRUE(decodeFacts("XY\3\0abc"s + field + "more", &read) && encodeFacts(read) == field);
        ASSERT_TRUE(field.size() <= kLargestFacts && !decodeFacts(field.substr(0, field.size() - 1), &read));
        std::string hit = field + "\x09\x01!"; // a part of a later version
        hit[2] = char(hit.size() - 4), hit[3] = char((hit.size() - 4) >> 8);
        auto seal = [&] {
            const auto sum =
                uint32_t(crc32(0, reinterpret_cast<const Bytef*>(&hit[9]), uInt(hit.size() - 9)));
            for (int byte = 0; byte < 4; ++byte)
                hit[5 + byte] = char(sum >> 8 * byte);
        };
        seal();
        ASSERT_TRUE(decodeFacts(hit, &read) && encodeFacts(read) == field);
        hit[9 + random() % (hit.size() - 9)] ^= char(1 << random() % 8);
        ASSERT_FALSE(decodeFacts(hit, &read));
        for (size_t hits = random() % 3; hits > 0; --hits)
            hit[random() % hit.size()] = char(random());
        if (random() % 8 > 0)
            seal();
        const std::string size{char(hit.size()), char(hit.size() >> 8)};
        writeFile(home + "/a", "\x1f\x8b\x08\x04......" + size + hit.substr(random() % 9 / 8));
        const bool facts = readFacts(openFile((home + "/a").c_str(), O_RDONLY).get(), &read);
        ASSERT_TRUE(!facts || (read.origin.points.size() <= kMostPoints && read.firstTime <= read.lastTime));
    }
}

/** What the sections of a store tell, whether cut or left by a crash, is what their text says. */
TEST_F(LineTest, WhatSectionsTellIsWhatTheirTextSays) {
    ProcessFileWork files;
    StoreParts parts(files, 3000);
    Random random(5);
    const char* forms[] = {"%m-%d %H:%M:%S.120 W/Tag     ( 1234): x", "I/Tag     ( 1234): undated",
                           "--------- 3 lines lost here: x"};
    auto save = [&](const std::string& text) {
        (void)parts.ring.put(text.data(), uint32_t(text.size())); // what is missing shows
        EXPECT_EQ(parts.store->save(uint32_t(text.size())).status, SaveStatus::Saved);
    };
    auto feed = [&](int lines) {
        for (save(""); lines > 0; --lines) { // which looks at the clock
            char line[100];
            const auto wall = time_t(secondsOf(CLOCK_REALTIME));
            const long kernel = long(steadyMilliseconds());
            std::strftime(line, sizeof line, forms[random() % 3], localtime(&wall));
            if (random() % 3 == 0)
                std::snprintf(line, sizeof line, "<4>[%5ld.%03ld000] %ld", kernel / 1000, kernel % 1000,
                              long(wall));
            save(line + std::string(random() % 40, '.') + "\n");
        }
    };
    parts.open(root);
    ASSERT_TRUE(parts.run());
    feed(300);
    parts.open(root); // as after a crash
    ASSERT_TRUE(parts.run());
    feed(200);
    EXPECT_TRUE(eventually([now = steadyMilliseconds()] { return steadyMilliseconds() > now; }));
    faults.clockStep = 5000; // no line of its millisecond is older
    feed(200);
    for (const char* run : {"/last_1", "/current"}) {
        LineParser parser;
        LineClock clock;
        uint32_t lost = 0, number = 0;
        SectionFacts facts;
        for (Path archive; exists((archive = sectionArchive((logs + run).c_str(), ++number)).text);) {
            SCOPED_TRACE(archive.text);
            const std::string text = readGzip(archive.text);
            const std::vector<std::string> lines = linesOf(text);
            const bool within = facts.openEnd, open = text.back() != '\n';
            ASSERT_TRUE(readFacts(openFile(archive.text, O_RDONLY).get(), &facts));
            EXPECT_TRUE(facts.lostKnown && facts.continuesKnown);
            EXPECT_TRUE(facts.origin.run == (run[1] == 'l' ? 1 : 2) && facts.origin.boot.size() == 36);
            EXPECT_TRUE(facts.lostBefore == lost && facts.continues == within && facts.openEnd == open);
            SectionFacts counted;
            clock.beginSection(facts.clock());
            for (size_t i = 0; i < lines.size() - open; ++i) {
                const bool rest = i == 0 && within;
                LogLine line;
                if (!rest)
                    parser.parse(lines[i], &line);
                ++counted.counts[int(line.source)][line.priority];
                counted.forms |= rest ? 0 : 1U << int(line.form);
                lost += line.lost;
                const LineTime time = rest ? LineTime() : clock.timeOf(line);
                const int64_t at = rest ? facts.firstTime : time.nanoseconds / 1000000;
                EXPECT_TRUE(at >= facts.firstTime && at <= facts.lastTime) << lines[i];
                EXPECT_TRUE(time.basis != TimeBasis::Kernel ||
                            std::abs(time.nanoseconds / 1000000000 - std::atoll(line.text.data())) <= 1);
            }
            EXPECT_TRUE(std::memcmp(counted.counts, facts.counts, sizeof facts.counts) == 0 &&
                        facts.lines == lines.size() - open);
            EXPECT_EQ(facts.forms & counted.forms, counted.forms);
        }
        EXPECT_GT(number, 3U);
    }
}
