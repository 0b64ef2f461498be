#include "StoreParts.h"

#include "reader/Follower.h"
#include "reader/LineStream.h"
#include "reader/SectionText.h"
#include "storage/ChosenFileWork.h"
#include "storage/SectionFacts.h"

#include <zlib.h>

using namespace vnlog;

namespace {

/** A gzip member with an extra field. */
std::string packed(const std::string& text, std::string extra = "") {
    z_stream stream{};
    gz_header header{};
    header.extra = reinterpret_cast<Bytef*>(extra.data());
    header.extra_len = static_cast<uInt>(extra.size());
    std::string out(deflateBound(&stream, text.size()) + extra.size() + 64, '\0');
    EXPECT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
    if (!extra.empty())
        deflateSetHeader(&stream, &header);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
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

/** A line as the model has it: where it is, whether it has an end, its bytes. */
std::string shown(const LinePlace& place, bool ended, std::string_view bytes) {
    std::ostringstream text;
    text << place.run << '/' << place.section << ':' << place.line << (ended ? "$ " : "  ") << bytes;
    return text.str();
}

/** What else a record tells. */
std::string fields(const Record& record) {
    std::ostringstream text;
    text << static_cast<int>(record.line.source) << ' ' << static_cast<int>(record.line.form) << ' '
         << record.line.tag << ' ' << record.line.pid << ' ' << record.line.inside << ' ' << record.line.text
         << ' ' << record.time.nanoseconds << ' ' << static_cast<int>(record.time.basis);
    return text.str();
}

/** Random stores, beside a plain list of their lines. */
class StoredLines : public FolderTest {
  protected:
    uint32_t below(uint32_t end) { return end == 0 ? 0 : static_cast<uint32_t>(random() % end); }
    std::string someLine() {
        char stamp[32];
        ++second;
        snprintf(stamp, sizeof stamp, "11-23 %02d:%02d:%02d.123", second / 3600 % 24, second / 60 % 60,
                 second % 60);
        switch (below(9)) {
        case 0:
            return "[   " + std::to_string(below(90) + 10) + ".345678] usb: it moves\n";
        case 1:
            return "\n";
        case 2:
            return "I/Camera  ( 12): lens " + std::string(below(40), 'x') + "\n";
        case 3:
            return std::string("[ ") + stamp + "  1234: 5678 W/Long" + std::to_string(below(9)) +
                   "    ]\nfirst\nsecond\n\n";
        case 4:
            return std::string(below(30), 'r') + "aw\n";
        default:
            return std::string(stamp) + "  1234  5678 I Tag     : text " + std::to_string(random()) + "\n";
        }
    }

    /** Writes a section in one of its forms. */
    void writeSection(const std::string& run, uint32_t number, const std::string& text,
                      const std::string& extra) {
        const std::string plain =
            run + (number == 0 ? "/log.txt" : "/log_" + std::to_string(number) + ".txt");
        // Of two texts neither may be the beginning of the other.
        const size_t half = std::min<size_t>(100 + below(50), text.size() / 2);
        const std::string begin = text.substr(0, half), whole = packed(text, extra);
        switch (extra.empty() ? below(text.size() > 300 ? 7 : 6) : 0) {
        case 0:
            return writeFile(plain + ".gz", whole);
        case 1: // two members, and zeros behind them
            return writeFile(plain + ".gz", packed(begin) + packed(text.substr(half)) + std::string(9, '\0'));
        case 2:
            return writeFile(plain, text);
        case 3: // cut off before the text was removed; it lost its end
            writeFile(plain, begin + std::string(3, '\0'));
            return writeFile(plain + ".gz", whole);
        case 4: // continued behind what the archive has
            writeFile(plain, text);
            return writeFile(plain + ".gz", packed(begin));
        case 5: // an archive that was cut off
            writeFile(plain, text);
            return writeFile(plain + ".gz", whole.substr(0, whole.size() - 1 - below(20)));
        default: // two texts
            writeFile(plain, text.substr(half));
            return writeFile(plain + ".gz", packed(begin));
        }
    }

    void makeRun(uint32_t number) {
        const std::string run = logs + (number == 0 ? "/current" : "/last_" + std::to_string(number));
        std::string text;
        for (uint32_t lines = below(120); lines > 0; --lines)
            text += someLine();
        if (below(3) == 0 && !text.empty())
            text.pop_back();
        makeFolder(run);
        writeFile(run + "/notes.md", "nothing of ours");
        writeFile(run + "/log_7.txt.gz.new", "a draft");
        SectionFacts before;
        uint32_t previous = UINT32_MAX - 1;
        const bool told = below(2) == 0;
        for (uint32_t section = below(2), at = 0, count = 0; at < text.size(); at += count, ++section) {
            count = 300 + below(600);
            // Facts do not tell of a heading that is cut where the section has no other.
            const size_t line = at + count < text.size() ? text.rfind('\n', at + count - 1) + 1 : 0;
            if (text.compare(line, 2, "[ ") == 0)
                count = static_cast<uint32_t>(std::min(text.find('\n', at + count - 1), text.size() - 1) + 1 -
                                              at);
            const std::string part = text.substr(at, count);
            SectionSummary summary;
            summary.begin({}, section, at > 0 ? &before : nullptr, 1763908855000);
            summary.add(part);
            before = summary.end();
            if (getenv("SEED"))
                printf("%u/%u facts %d first %lld last %lld cont %d open %d\n", number, section, told,
                       (long long)before.firstTime, (long long)before.lastTime, before.continues,
                       before.openEnd);
            const std::string extra = told && below(4) > 0 && section > 0 ? encodeFacts(before) : "";
            if (below(12) == 0)
                continue; // deleted
            writeSection(run, section, part, extra);
            model(number, section, part, previous + 1 == section,
                  !extra.empty() && before.continuesKnown && before.continues);
            previous = section;
        }
        open = nullptr;
    }

    /** Adds the lines of a section to the list. */
    void model(uint32_t run, uint32_t section, const std::string& text, bool joins, bool rest) {
        std::istringstream lines(text);
        LinePlace place{run, section, 0};
        std::string bytes;
        for (bool first = true; std::getline(lines, bytes); first = false) {
            const bool ended = !lines.eof();
            if (first && joins && open != nullptr) {
                *open = Line{open->place, ended, open->bytes + bytes};
            } else {
                place.line += first && rest ? 0 : 1;
                expected.push_back(std::make_shared<Line>(Line{place, ended, bytes}));
                open = nullptr;
            }
            open = ended ? nullptr : open != nullptr ? open : expected.back();
        }
    }

    int second = 0;
    struct Line {
        LinePlace place;
        bool ended;
        std::string bytes;
    };
    std::vector<std::shared_ptr<Line>> expected;
    std::shared_ptr<Line> open;
    std::mt19937 random{std::random_device{}()};
};

using Lines = std::vector<std::string>;

Lines take(LineStream& stream, bool withFields, std::vector<Record>* places = nullptr) {
    Lines lines;
    Record record;
    while (stream.next(&record)) {
        lines.push_back(shown(record.place, record.ended, record.bytes) + (withFields ? fields(record) : ""));
        if (places != nullptr)
            places->push_back(record);
    }
    return lines;
}

/** In one text, of which a difference is easier to see. */
std::string joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + '\n';
    return text;
}

} // namespace

TEST_F(StoredLines, AreTheSameInEveryDirectionAndScope) {
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        const auto seed = getenv("SEED") ? atoi(getenv("SEED")) : random();
        SCOPED_TRACE("seed " + std::to_string(seed));
        random.seed(seed);
        fs::remove_all(logs);
        expected.clear();
        second = 0;
        makeFolder(logs + "/last_3.stray");
        std::vector<uint32_t> all;
        for (uint32_t run = 1 + below(12), end = run + below(4); run < end; ++run)
            all.push_back(run);
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
        Lines model;
        for (const auto& line : expected)
            model.push_back(shown(line->place, line->ended, line->bytes));
        Scope scope{all};
        scope.fields = false;
        stream.begin(scope);
        ASSERT_EQ(joined(take(stream, false)), joined(model));
        scope.fields = true;
        stream.begin(scope);
        std::vector<Record> records;
        Lines forward = take(stream, true, &records);
        stream.beginBackward(scope);
        Lines backward = take(stream, true);
        std::reverse(backward.begin(), backward.end());
        EXPECT_EQ(joined(backward), joined(forward));
        EXPECT_EQ(stream.counts().damaged + stream.counts().vanished + stream.counts().unreadable, 0U);
        if (records.empty())
            continue;

        const size_t from = below(static_cast<uint32_t>(records.size()));
        stream.beginAt(scope, records[from].place);
        EXPECT_EQ(joined(take(stream, true)),
                  joined(Lines(forward.begin() + static_cast<long>(from), forward.end())));
        const size_t to = from + below(static_cast<uint32_t>(records.size() - from));
        scope.since = records[from].time.nanoseconds;
        scope.until = std::max(records[to].time.nanoseconds, scope.since);
        Lines inside;
        if (getenv("SEED"))
            printf("since %lld until %lld\n%s", (long long)scope.since, (long long)scope.until,
                   joined(forward).c_str());
        for (size_t i = 0; i < records.size(); ++i) {
            const LineTime& time = records[i].time;
            if (time.basis != TimeBasis::None && time.nanoseconds >= scope.since &&
                time.nanoseconds <= scope.until)
                inside.push_back(forward[i]);
        }
        for (bool reverse : {false, true}) {
            if (reverse)
                stream.beginBackward(scope);
            else
                stream.begin(scope);
            Lines given = take(stream, true);
            if (reverse)
                std::reverse(given.begin(), given.end());
            size_t found = 0; // in the order of the list
            for (const std::string& line : given)
                found += found < inside.size() && line == inside[found] ? 1 : 0;
            EXPECT_EQ(found, inside.size()) << (found < inside.size() ? inside[found] : "");
        }
    }
}

TEST_F(FolderTest, DamagedSectionsGiveWhatZlibCanRead) {
    std::mt19937 random(7);
    std::string text;
    while (text.size() < 3000)
        text += "line " + std::to_string(random() % 1000) + '\n';
    const std::string run = logs + "/current", archive = packed(text.substr(0, 1700)),
                      second = packed(text.substr(1700));
    makeFolder(run);
    FileDescriptor folder = openFile(run.c_str(), O_RDONLY | O_DIRECTORY);
    SectionText section;
    auto check = [&](const std::string& bytes) {
        writeFile(run + "/log_1.txt.gz", bytes);
        std::string expected, given;
        const bool whole = inflateAll(bytes, &expected);
        std::string_view piece;
        EXPECT_TRUE(section.open(folder.get(), 0, {1, true, false}));
        while (section.read(&piece))
            given += piece;
        EXPECT_EQ(given, expected);
        EXPECT_EQ(section.state() == TextState::Whole, whole);
        EXPECT_EQ(section.finding().empty(), whole);
    };
    const std::string both = archive + second;
    for (size_t length = 0; length <= both.size() && !HasFailure(); ++length)
        check(both.substr(0, length));
    for (int flip = 0; flip < 3000 && !HasFailure(); ++flip) {
        std::string bytes = both + (flip % 3 == 0 ? std::string(5, '\0') : flip % 3 == 1 ? "garbage" : "");
        bytes[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
        SCOPED_TRACE(flip);
        check(bytes);
    }
}

namespace {

/** A store that is written to, started anew and moved, while it is followed. */
class Followed : public FolderTest, protected StoreParts {
  protected:
    Followed() : StoreParts(files, 8192), where(logs) { state.mMaxLogSize = 50; }
    ~Followed() override { store.reset(); }

    std::string located() {
        std::lock_guard<std::mutex> guard(mutex);
        ++asked;
        return where;
    }
    /** Stores what is buffered; a batch whose writing fails is cut back and written again. */
    void save() {
        if (below(4) == 0) {
            faults.shortWrite = 1 + static_cast<int>(below(300));
            faults.writesUntilError = 1;
            faults.writeErrors = 1;
            faults.sectionsOnly = true;
            faults.writeError = EIO;
        }
        while (ring.used() > 0)
            (void)store->save(ring.used());
        faults.writeError = 0;
    }
    void write() {
        std::string text;
        for (uint32_t lines = 1 + below(30); lines > 0; --lines) {
            begun += "[   12.345678] line " + std::to_string(lineNumber++) + std::string(below(90), '.');
            if (lines == 1 && below(2) == 0) { // its end comes with the next batch
                text += begun.substr(sent);
                sent = begun.size();
                break;
            }
            text += begun.substr(sent) + '\n';
            finish("$");
        }
        (void)ring.put(text.data(), static_cast<uint32_t>(text.size())); // what is missing shows
        save();
    }
    /** Ends the line that is begun, with the run if it has no newline. */
    void finish(const char* end) {
        std::lock_guard<std::mutex> guard(mutex);
        if (!begun.empty())
            written.push_back(begun + end);
        begun.clear();
        sent = 0;
    }
    void restart() {
        finish("");
        open(root);
        ASSERT_TRUE(run());
    }
    /** To a root that has nothing of the section that is open, which is filled up by what comes next. */
    void move() {
        std::string other = home + "/other" + std::to_string(below(2));
        makeFolder(other);
        if (other == root || store->changeRoot(other.c_str()) != RootChangeStatus::Done)
            return;
        root = other;
        const int before = asked;
        {
            std::lock_guard<std::mutex> guard(mutex);
            where = other + "/log_service";
        }
        ASSERT_TRUE(eventually([&] { return asked > before + 1; }));
        for (uint32_t size = state.mLogSectionSize; state.mLogFd >= 0 && size > 0;
             size -= std::min(size, 500U))
            write();
    }
    void live() {
        restart();
        ASSERT_TRUE(eventually([&] { return asked > 2; })); // the first root is seen
        for (int step = 0; step < 600; ++step) {
            const uint32_t kind = step < 500 ? below(50) : 9;
            kind == 0 ? restart() : kind == 1 ? move() : write();
        }
        std::string end = "\n";
        (void)ring.put(end.data(), 1);
        save();
        if (sent > 0)
            finish("$");
        else
            written.push_back("$");
        done = true;
    }

    ChosenFileWork files;
    std::mutex mutex;
    std::string where, begun;
    size_t sent = 0;
    int lineNumber = 0;
    std::vector<std::string> written;
    std::atomic<int> asked{0};
    std::atomic<bool> done{false};
    uint32_t below(uint32_t end) { return static_cast<uint32_t>(random() % end); }
    std::mt19937 random{std::random_device{}()};
};

} // namespace

TEST_F(Followed, GivesEveryLineOnce) {
    const auto seed = random();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    Follower follower([this] { return located(); });
    ASSERT_TRUE(follower.begin({})); // nothing is there yet
    std::thread writer([this] { live(); });
    std::vector<std::string> given;
    std::vector<LinePlace> places;
    Record record;
    constexpr int kWait = 10000;
    auto take = [&](int wait) {
        if (!follower.next(&record, wait, -1))
            return false;
        given.push_back(std::string(record.bytes) + (record.ended ? "$" : ""));
        places.push_back(record.place);
        return true;
    };
    while (!done)
        (void)take(100);
    writer.join();
    while (given.size() < written.size() && take(kWait)) {
    }
    EXPECT_EQ(joined(given), joined(written));
    EXPECT_FALSE(follower.next(&record, 0, -1));
    ASSERT_GT(given.size(), 50U);
    const size_t from = given.size() - 1 - below(40);
    ASSERT_TRUE(follower.begin(places[from]));
    for (size_t next = from + 1; next < given.size(); ++next) {
        ASSERT_TRUE(follower.next(&record, kWait, -1));
        EXPECT_EQ(std::string(record.bytes) + (record.ended ? "$" : ""), given[next]);
        EXPECT_TRUE(record.place.section == places[next].section && record.place.line == places[next].line);
    }
}
