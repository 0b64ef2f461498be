// SPDX-License-Identifier: Apache-2.0
#include "StoreParts.h"

#include "reader/Follower.h"
#include "reader/Fragments.h"
#include "reader/LineStream.h"
#include "reader/SectionText.h"
#include "storage/ChosenFileWork.h"
#include "storage/SectionFacts.h"

#include <numeric>
#include <zlib.h>

using namespace vnlog;

namespace {

/** A gzip member with an extra field: what zlib packs, in another frame. */
std::string packed(const std::string& text, const std::string& extra = "") {
    auto number = [](size_t value, size_t bytes) {
        return std::string(reinterpret_cast<char*>(&value), bytes);
    };
    std::string zlib(compressBound(text.size()), '\0');
    uLongf length = zlib.size();
    auto bytes = reinterpret_cast<const Bytef*>(text.data());
    EXPECT_EQ(compress(reinterpret_cast<Bytef*>(zlib.data()), &length, bytes, text.size()), Z_OK);
    return "\x1f\x8b\x08\x04" + number(0, 6) + number(extra.size(), 2) + extra + zlib.substr(2, length - 6) +
           number(crc32(0, bytes, static_cast<uInt>(text.size())), 4) + number(text.size(), 4);
}

/** What zlib makes of a file; whether that is whole. */
bool inflateAll(const std::string& file, std::string* text) {
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 31), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(file.data()));
    stream.avail_in = static_cast<uInt>(file.size());
    bool whole = false;
    for (int result = Z_OK; result == Z_OK;) {
        char piece[512];
        stream.next_out = reinterpret_cast<Bytef*>(piece);
        stream.avail_out = sizeof piece;
        result = inflate(&stream, Z_NO_FLUSH);
        text->append(piece, sizeof piece - stream.avail_out);
        const Bytef *rest = stream.next_in, *end = rest + stream.avail_in;
        whole = result == Z_STREAM_END && std::all_of(rest, end, [](Bytef byte) { return byte == 0; });
        if (result == Z_STREAM_END && !whole && *rest != 0)
            result = inflateReset(&stream);
    }
    inflateEnd(&stream);
    return whole;
}

/** A record in one line: what the model has of it, and if asked for what else it tells. */
std::string shown(const Record& record, bool fields) {
    const auto& [bytes, place, ended, context, line, time, story] = record;
    std::ostringstream text;
    text << place.run << '/' << place.section << ':' << place.line << (ended ? "$ " : "  ") << bytes << '\n';
    if (fields)
        text << int(line.source) << ' ' << int(line.form) << line.tag << line.pid << line.inside << line.text
             << ' ' << time.nanoseconds << ' ' << int(time.basis) << '\n';
    return text.str();
}

/** Random stores, beside a plain list of their lines. */
class StoredLines : public FolderTest {
  protected:
    uint32_t below(uint32_t end) { return end == 0 ? 0 : static_cast<uint32_t>(random() % end); }
    std::string someLine() {
        char stamp[32];
        ++second;
        snprintf(stamp, sizeof stamp, "11-23 00:%02d:%02d.123", second / 60 % 60, second % 60);
        const std::string lines[] = {
            "[   12.345678] usb: it moves\n", "\n", std::string(below(30), 'r') + "aw\n",
            "I/Camera  ( 12): lens " + std::string(below(40), 'x') + "\n",
            std::string("[ ") + stamp + "  1234: 5678 W/Long" + stamp[10] + "    ]\nfirst\nsecond\n\n"};
        const uint32_t kind = below(9);
        return kind < 5 ? lines[kind]
                        : stamp + ("  1234  5678 I Tag     : " + std::to_string(random()) + "\n");
    }
    std::string noise(size_t size) {
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random() | 128);
        return bytes;
    }
    /** More than a reader takes at a time: of lines, of bytes of an archive, of bytes of a line. */
    std::string muchText() {
        const uint32_t kind = below(3);
        if (kind == 0)
            return noise(Fragments::kLongest * 3 / 2 + below(1000)) + '\n' + someLine();
        std::string text;
        for (int line = 0; line < (kind == 1 ? 9000 : 20000); ++line)
            text += (kind == 1 ? std::to_string(line) : noise(90)) + '\n';
        return text;
    }
    /** Writes a section in one of its forms. */
    void writeSection(const std::string& run, uint32_t number, const std::string& text,
                      const std::string& extra) {
        const std::string plain = run + (number == 0 ? "/log" : "/log_" + std::to_string(number)) + ".txt";
        // Of two texts neither may be the beginning of the other.
        const size_t half = std::min<size_t>(100 + below(50), text.size() / 2);
        const std::string begin = text.substr(0, half), rest = text.substr(half), whole = packed(text, extra);
        const std::pair<std::string, std::string> forms[] = {
            {"", whole},
            {"", packed(begin) + packed(rest) + std::string(9, '\0')},
            {text, ""},
            {begin + std::string(3, '\0'), whole}, // cut off before the text was removed; it lost its end
            {text, packed(begin)}, // continued
            {text, whole.substr(0, whole.size() - 1 - below(20))},
            {rest, packed(begin)}}; // two texts
        const uint32_t kinds = text.empty() ? 3 : text.size() > 300 ? 7 : 6;
        const auto& [there, archive] = forms[extra.empty() ? below(kinds) : 0];
        if (!there.empty() || archive.empty())
            writeFile(plain, there);
        if (!archive.empty())
            writeFile(plain + ".gz", archive);
    }
    void makeRun(uint32_t number) {
        const std::string run = logs + (number == 0 ? "/current" : "/last_" + std::to_string(number));
        std::string text;
        for (uint32_t lines = below(120); lines > 0; --lines)
            text += someLine();
        const bool much = below(12) == 0;
        if (much)
            text += muchText();
        if (below(3) == 0 && !text.empty())
            text.pop_back();
        makeFolder(run);
        writeFile(run + "/notes.md", "nothing of ours");
        writeFile(run + "/log_7.txt.gz.new", "a draft");
        SectionFacts before;
        uint32_t previous = UINT32_MAX - 1;
        bool toldOpen = false; // the section before ends within a line, as its facts tell
        const bool told = below(2) == 0;
        for (uint32_t section = below(2), at = 0, count = 0; at < text.size(); at += count, ++section) {
            const auto half = static_cast<uint32_t>(text.size() / 2);
            count = much ? half + 1 + below(half) : 300 + below(600);
            // Facts do not tell of a heading that is cut where the section has no other.
            const size_t line = at + count < text.size() ? text.rfind('\n', at + count - 1) + 1 : 0;
            if (text.compare(line, 2, "[ ") == 0)
                count = static_cast<uint32_t>(std::min(text.find('\n', at + count - 1), text.size() - 1) + 1 -
                                              at);
            count = below(12) == 0 ? 0 : count; // killed before it got a line
            const std::string part = text.substr(at, count);
            SectionSummary summary;
            summary.begin({}, section, at > 0 ? &before : nullptr, 1763908855000);
            summary.add(part);
            before = summary.end();
            const std::string extra = told && below(4) > 0 && section > 0 ? encodeFacts(before) : "";
            if (below(12) == 0)
                continue; // deleted
            writeSection(run, section, part, extra);
            const bool joins = previous + 1 == section;
            model(number, section, part, joins,
                  !extra.empty() && before.continuesKnown ? before.continues : joins && toldOpen);
            toldOpen = !extra.empty() && before.openEnd;
            previous = section;
        }
        open = false;
    }

    /** Adds the lines of a section to the list. */
    void model(uint32_t run, uint32_t section, const std::string& text, bool joins, bool rest) {
        std::istringstream lines(text);
        open = open && joins;
        uint32_t number = 0;
        std::string bytes;
        for (bool first = true; std::getline(lines, bytes); first = false) {
            constexpr size_t kLongest = Fragments::kLongest;
            for (size_t at = 0; at == 0 || at < bytes.size(); at += kLongest) {
                const std::string piece = bytes.substr(at, kLongest);
                const bool goesOn = first && at == 0 && open;
                if (goesOn && expected.back().first.size() + piece.size() <= kLongest) {
                    expected.back().first += piece;
                } else {
                    number += at == 0 && ((first && rest) || goesOn) ? 0 : 1;
                    expected.push_back({piece, Record()});
                    expected.back().second.place = {run, section, number};
                }
                open = at + kLongest < bytes.size() || lines.eof();
                expected.back().second.ended = !open;
            }
        }
    }
    std::string modelled() {
        std::string text;
        for (auto& [bytes, record] : expected) {
            record.bytes = bytes;
            text += shown(record, false);
        }
        return text;
    }

    int second = 0;
    std::vector<std::pair<std::string, Record>> expected;
    bool open = false; ///< its last line has no newline
    std::mt19937 random{std::random_device{}()};
};

using Lines = std::vector<std::string>;

std::string joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line;
    return text;
}

/** What a stream gives, turned around if asked for. */
Lines take(LineStream& stream, bool fields, bool reverse = false, std::vector<Record>* records = nullptr) {
    Lines lines;
    for (Record record; stream.next(&record);) {
        lines.push_back(shown(record, fields));
        if (records != nullptr)
            records->push_back(record);
    }
    if (reverse)
        std::reverse(lines.begin(), lines.end());
    return lines;
}

} // namespace

TEST_F(StoredLines, AreTheSameInEveryDirectionAndScope) {
    for (int round = 0; round < (VNLOG_EMULATED ? 15 : 60) && !HasFailure(); ++round) {
        const auto seed = random();
        SCOPED_TRACE("seed " + std::to_string(seed));
        random.seed(seed);
        fs::remove_all(logs);
        expected.clear();
        second = 0;
        makeFolder(logs + "/last_3.stray");
        std::vector<uint32_t> all(below(4));
        std::iota(all.begin(), all.end(), 1 + below(12));
        all.push_back(kCurrentRun);
        for (uint32_t run : all)
            makeRun(run);
        StoreFolder folder;
        std::vector<uint32_t> runs;
        bool current = false;
        ASSERT_TRUE(folder.open(root.c_str()) && folder.listRuns(&runs, &current) && current);
        runs.push_back(kCurrentRun);
        ASSERT_EQ(runs, all);

        RunHistory history;
        LineStream stream(folder, history);
        Scope scope{all};
        scope.fields = false;
        stream.begin(scope);
        ASSERT_TRUE(joined(take(stream, false)) == modelled());
        scope.fields = true;
        stream.begin(scope);
        std::vector<Record> records;
        const Lines forward = take(stream, true, false, &records);
        stream.beginBackward(scope);
        EXPECT_TRUE(joined(take(stream, true, true)) == joined(forward));
        EXPECT_EQ(stream.counts().damaged + stream.counts().vanished + stream.counts().unreadable, 0U);
        if (records.empty())
            continue;

        const uint32_t count = static_cast<uint32_t>(records.size()), from = below(count);
        stream.beginAt(scope, records[from].place);
        EXPECT_TRUE(joined(take(stream, true)) == joined(Lines(forward.begin() + int(from), forward.end())));
        scope.since = records[from].time.nanoseconds;
        scope.until = std::max(records[from + below(count - from)].time.nanoseconds, scope.since);
        for (bool reverse : {false, true}) {
            reverse ? stream.beginBackward(scope) : stream.begin(scope);
            const Lines given = take(stream, true, reverse);
            auto next = given.begin();
            for (size_t i = 0; i < count && !HasFailure(); ++i) {
                const LineTime& time = records[i].time;
                if (time.basis == TimeBasis::None || time.nanoseconds < scope.since ||
                    time.nanoseconds > scope.until)
                    continue;
                next = std::find(next, given.end(), forward[i]);
                ASSERT_NE(next, given.end()) << forward[i];
                ++next;
            }
        }
    }
}

TEST_F(FolderTest, OnlySectionsWithinTheTimesAreOpened) {
    SectionFacts before;
    SectionOrigin origin;
    origin.zoneKnown = true;
    for (uint32_t section = 1; section <= 40; ++section) {
        const std::string text =
            "11-23 14:" + std::to_string(section + 10) + ":00.000 I/Tag     (    1): x\n";
        SectionSummary summary;
        summary.begin(origin, section, section > 1 ? &before : nullptr, 1795442400000);
        summary.add(text);
        before = summary.end();
        writeFile(logs + "/last_1/log_" + std::to_string(section) + ".txt.gz",
                  packed(text, encodeFacts(before)));
    }
    StoreFolder folder;
    ASSERT_TRUE(folder.open(logs.c_str()));
    RunHistory history;
    LineStream stream(folder, history);
    constexpr int64_t kMinute = 60000000000, kHour = 1795442400000000000; // 14:00
    Scope scope{{1}, kHour + 20 * kMinute, kHour + 22 * kMinute};
    for (bool reverse : {false, true}) {
        reverse ? stream.beginBackward(scope) : stream.begin(scope);
        EXPECT_EQ(take(stream, false).size(), 3U);
        EXPECT_EQ(stream.counts().opened, 3U);
    }
}

TEST_F(FolderTest, DamagedSectionsGiveWhatZlibCanRead) {
    std::mt19937 random(7);
    std::string text;
    while (text.size() < 1500)
        text += "line " + std::to_string(random() % 1000) + '\n';
    makeFolder(logs + "/current");
    FileDescriptor folder = openFile((logs + "/current").c_str(), O_RDONLY | O_DIRECTORY);
    SectionText section;
    auto check = [&](const std::string& bytes) {
        writeFile(logs + "/current/log_1.txt.gz", bytes);
        std::string expected, given;
        const bool whole = inflateAll(bytes, &expected);
        EXPECT_TRUE(section.open(folder.get(), 0, {1, true, false}));
        for (std::string_view piece; section.read(&piece);)
            given += piece;
        EXPECT_EQ(given, expected);
        EXPECT_TRUE((section.state() == TextState::Whole) == whole && section.finding().empty() == whole);
    };
    // One that is read in pieces, and has its first member end with the bytes that would be read whole.
    std::string much(1000000, '\0');
    for (char& byte : much)
        byte = static_cast<char>(random());
    const size_t room = 1048576 - packed(much).size();
    const std::string large = packed(much, std::string(room, 'e')) + packed(text) + packed(much);
    for (size_t length : {large.size(), large.size() - 1, size_t{1048576}, size_t{1500000}})
        check(large.substr(0, length));
    const std::string both = packed(text.substr(0, 900)) + packed(text.substr(900));
    for (size_t length = 0; length <= both.size() && !HasFailure(); ++length)
        check(both.substr(0, length));
    for (int flip = 0; flip < 2000 && !HasFailure(); ++flip) {
        std::string bytes = both + (flip % 3 == 0 ? std::string(5, '\0') : flip % 3 == 1 ? "garbage" : "");
        bytes[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
        check(bytes);
    }
}

namespace {

/** A store that is written to, started anew and moved, while it is followed. */
class Followed : public FolderTest, protected StoreParts {
  protected:
    Followed() : StoreParts(files, 8192), where(logs) { state.mMaxLogSize = 50; }
    ~Followed() override { store.reset(); }

    uint32_t below(uint32_t end) { return static_cast<uint32_t>(random() % end); }
    /** Stores a batch that ends within a line; one whose writing fails is cut back and written again. */
    void write() {
        const uint32_t size = 1 + below(1500);
        while (ahead.size() < size)
            ahead += "[   12.345678] line " + std::to_string(++lines) + std::string(below(90), '.') + '\n';
        faults.writesUntilError = faults.writeErrors = 1;
        faults.shortWrite = 1 + static_cast<int>(below(300));
        faults.sectionsOnly = true;
        faults.writeError = below(4) == 0 ? EIO : 0;
        (void)ring.put(ahead.data(), size);
        while (ring.used() > 0)
            (void)store->save(ring.used());
        faults.writeError = 0;
        runs.back() += ahead.substr(0, size);
        ahead.erase(0, size);
    }
    void restart() {
        runs.emplace_back();
        open(root);
        ASSERT_TRUE(run());
    }
    /** To another root, where storing goes on when the section that is open is full. */
    void move() {
        const std::string other = home + "/other" + std::to_string(below(2));
        makeFolder(other);
        if (store->changeRoot(other.c_str()) != RootChangeStatus::Done)
            return;
        root = other;
        std::unique_lock<std::mutex> guard(mutex);
        where = other + "/log_service";
        guard.unlock();
        awaitQuestion();
        for (int batch = 0; batch < 40; ++batch)
            write();
    }
    /** Until the follower knows where storing goes on. */
    void awaitQuestion() {
        const int before = asked;
        ASSERT_TRUE(eventually([&] { return asked > before + 1; }));
    }
    void live() {
        restart();
        awaitQuestion();
        for (int step = 0; step < 600; ++step) {
            const uint32_t kind = step < 500 ? below(50) : 9;
            kind == 0 ? restart() : kind == 1 ? move() : write();
        }
        done = true;
    }
    /** What was written, but for what there is of a line at the end. */
    Lines written() const {
        Lines all;
        for (const std::string& text : runs) {
            size_t at = 0;
            for (size_t end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
                all.push_back(text.substr(at, end - at) + "$\n");
            if (at < text.size() && &text != &runs.back())
                all.push_back(text.substr(at) + '\n');
        }
        return all;
    }

    ChosenFileWork files;
    std::mutex mutex;
    std::string where; ///< by that
    std::string ahead;
    int lines = 0;
    std::vector<std::string> runs; ///< all that was stored in each
    std::atomic<int> asked{0};
    std::atomic<bool> done{false};
    std::mt19937 random{std::random_device{}()};
};

} // namespace

TEST_F(Followed, GivesEveryLineOnce) {
    const auto seed = random();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    Follower follower([this] {
        std::lock_guard<std::mutex> guard(mutex);
        ++asked;
        return where;
    });
    makeFolder(logs);
    StoreFolder folder;
    ASSERT_TRUE(folder.open(logs.c_str()) && follower.begin(folder, {})); // nothing is there yet
    std::thread writer([this] { live(); });
    Lines given;
    std::vector<LinePlace> places;
    Record record;
    auto take = [&](int wait) {
        if (!follower.next(&record, wait, -1))
            return false;
        given.push_back(std::string(record.bytes) + (record.ended ? "$\n" : "\n"));
        places.push_back(record.place);
        return true;
    };
    while (!done)
        (void)take(100);
    writer.join();
    const Lines all = written();
    while (given.size() < all.size() && take(10000)) {
    }
    ASSERT_EQ(joined(given), joined(all));
    EXPECT_FALSE(take(0));
    const size_t from = given.size() - 1 - below(40);
    ASSERT_TRUE(folder.open(where.c_str()) && follower.begin(folder, places[from]));
    for (size_t i = from + 1; i < all.size() && take(10000); ++i) {
        EXPECT_EQ(given.back(), all[i]);
        EXPECT_TRUE(places.back().section == places[i].section && places.back().line == places[i].line);
    }
    EXPECT_EQ(given.size(), all.size() + all.size() - from - 1);
}

TEST_F(FolderTest, WhatIsFollowedIsHeldAndToldByItsRun) {
    const std::string current = logs + "/current";
    std::string list;
    auto startRun = [&](int run, const char* boot) {
        char lines[256];
        snprintf(lines, sizeof lines,
                 "run=%d event=archived how=no_end archived=%d\nrun=%d event=start "
                 "time=2026-01-0%dT00:00:00+00:00 uptime=0 boot=%s\n",
                 run - 1, run - 1, run, run, boot);
        writeFile(logs + "/runs.txt", list += lines);
        if (run > 1)
            fs::rename(current, logs + "/last_" + std::to_string(run - 1));
        makeFolder(current);
    };
    Follower follower([] { return ""; });
    auto given = [&] {
        std::string all;
        for (Record record; follower.next(&record, 0, -1);)
            all += record.story->boot + std::to_string(record.place.section) + ':' +
                   std::to_string(record.place.line) + ' ' + std::string(record.bytes) + '\n';
        return all;
    };
    startRun(1, "a");
    writeFile(current + "/log_1.txt", "one\ntwo\nhalf");
    StoreFolder folder;
    ASSERT_TRUE(folder.open(root.c_str()) && follower.begin(folder, {0, 1, 1}) && follower.inPresentRun());
    writeFile(current + "/log_2.txt", " a line\nlast\n");
    startRun(2, "b");
    writeFile(current + "/log_1.txt", "one\ntwo\nthree\n");
    EXPECT_FALSE(follower.inPresentRun());
    EXPECT_EQ(given(), "a1:2 two\na1:3 half a line\na2:1 last\nb1:1 one\nb1:2 two\nb1:3 three\n");
    fs::remove(current + "/log_1.txt");
    writeFile(current + "/log_1.txt", "anew\n");
    writeFile(current + "/log_5.txt.gz", packed("packed\n") + "damage");
    writeFile(current + "/log_6.txt", "six\n");
    writeFile(current + "/log_7.txt", "seven\n");
    EXPECT_EQ(given(),
              "b1:1 anew\nb2:0 --------- logview: 3 sections were deleted before they could be read\n"
              "b5:1 packed\nb5:1 --------- logview: current/log_5.txt.gz is damaged behind its first " +
                  std::to_string(packed("packed\n").size() + 2) + " bytes\nb6:1 six\nb7:1 seven\n");
    EXPECT_TRUE(follower.counts().vanished == 3 && follower.counts().damaged == 1);
    startRun(3, "c");
    writeFile(current + "/log_2.txt", "two\n");
    startRun(4, "d from=/other");
    writeFile(current + "/log_2.txt", "moved here\n");
    EXPECT_EQ(given(), "c1:0 --------- logview: 1 section was deleted before it could be read\nc2:1 two\n"
                       "d2:1 moved here\n");
}
