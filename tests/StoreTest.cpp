#include "Fixture.h"

#include "buffer/Ring.h"
#include "storage/ShellFileWork.h"
#include "storage/StorageMedium.h"
#include "storage/Store.h"

#include <regex>
#include <zlib.h>

using namespace vnlog;

namespace {

/** File work in the process, which joins the recorded calls. A step that is to fail leaves what is torn. */
class FakeFiles final : public FileWork {
  public:
    int untilError = -1; ///< calls that work before one fails, -1 for all
    size_t archiveSize = 0; ///< of the archives to come; 0: gzip files, a little larger than the text

    bool compress(const char* text) override {
        std::string archive = std::string(text) + ".gz", content = readFile(text);
        bool work = works("compress", text);
        if (!::exists(text) || ::exists(archive))
            return false;
        writeFile(archive, work ? std::string(archiveSize, 'x') : "torn");
        if (work && archiveSize == 0) {
            gzFile file = gzopen(archive.c_str(), "wb0");
            gzclose((gzwrite(file, content.data(), static_cast<unsigned>(content.size())), file));
        }
        return work && fs::remove(text);
    }
    bool removeFile(const char* p) override { return works("remove", p) && (!unlink(p) || errno == ENOENT); }
    bool removeTree(const char* p) override { return works("removeTree", p) && fs::remove_all(p) + 1; }
    bool removeAll(const char* b) override { return works("", b) && sh.removeAll(b); }
    bool copyFits(const char* f, const char* to) const override { return sh.copyFits(f, to); }
    bool copyTree(const char* f, const char* to) override { return works("copy", f) && sh.copyTree(f, to); }
    bool moveFolder(const char* f, const char* to) override {
        return works("move", to) && sh.moveFolder(f, to);
    }

  private:
    ShellFileWork sh; // for what is asked seldom

    bool works(const char* what, const std::string& path) {
        faults.addCall(std::string(what) + " " + path.substr(path.rfind('/') + 1));
        return untilError < 0 || untilError-- > 0;
    }
};

/**
 * A store on the test's root, driven step by step; batches come through a ring. Stored files are named in
 * short: "3/7" is section 7 of last_3, "c/7t" the text of section 7 of the current run.
 */
class StoreTest : public FolderTest {
  protected:
    StoreTest() {
        EXPECT_TRUE(systemRoot.read() && ring.create());
        ringState.mFlushThreadRunning = true;
        state.mMaxLogSize = 1;
        state.mLogSectionSize = state.mLogDeleteSize = 65536;
        open();
    }
    ~StoreTest() override {
        store.reset();
        ring.release();
    }

    /** A new store that knows its paths. */
    void open() {
        store.reset();
        store = std::make_unique<Store>(state, lock, ring, files, systemRoot);
        state.mSavePath = strdup(root.c_str());
        ASSERT_TRUE(store->resolveRoot());
        logs = root + "/log_service";
        store->beginRun();
    }
    bool run() { return store->openNumbers() && store->prepare() && store->saveNumbers(); }
    bool start() {
        open();
        return run();
    }
    SaveResult save(const std::string& text) {
        (void)ring.put(text.data(), static_cast<uint32_t>(text.size())); // what is missing shows in the store
        return store->save(ring.used());
    }
    bool saved(const std::string& text) { return save(text).status == SaveStatus::Saved; }
    /** Total, head, tail and oldest, and if need be the size of the finished sections and the section's
     * number. */
    void set(const std::string& text) {
        std::istringstream(text) >> state.mTotalLogSize >> state.mHeadFolderNum >> state.mTailFolderNum >>
            state.mOldestFileNum >> state.mCurrentTotalSize >> state.mSliceNum;
    }
    std::string four() {
        std::ostringstream text;
        text << state.mTotalLogSize << ' ' << state.mHeadFolderNum << ' ' << state.mTailFolderNum << ' '
             << state.mOldestFileNum;
        return text.str();
    }
    std::string data() const { return root + "/log_storage.dat"; }
    /** The bookkeeping file of these four numbers. */
    static std::string dataText(const std::string& numbers) {
        const char* lines = "TOTAL_LOG_SIZE=$1\nHEAD_FOLDER_NUM=$2\nTAIL_FOLDER_NUM=$3\nOLDEST_FILE_NUM=$4\n";
        return std::regex_replace(numbers, std::regex("(.*) (.*) (.*) (.*)"), lines);
    }

    /** The path that is named in short. */
    std::string at(std::string name) const {
        const char* rules[][2] = {{"^(\\d+)/", "last_$1/"},
                                  {"^c(?=/|$)", "current"},
                                  {"/(\\d+)(/?)$", "/log_$1.txt.gz$2"},
                                  {"/(\\d+)t$", "/log_$1.txt"}};
        for (auto& [pattern, by] : rules)
            name = std::regex_replace(name, std::regex(pattern), by);
        return fs::path(logs + "/" + name).lexically_normal();
    }
    /** The short names of all files and empty folders below the log folder, sorted. */
    std::string tree() const {
        const char* find = "find . -mindepth 1 -type d -empty -printf '%P/\n' -o ! -type d -printf '%P\n'";
        const char* shorten =
            R"(s,^last_([0-9]+)/,\1/,; s,^current(/|$),c\1,; s,/log_([0-9]+).txt$,/\1t,; s,/log_([0-9]+).txt.gz$,/\1,)";
        return runCommand("cd " + logs + " 2>/dev/null && " + find + "| sed -E '" + shorten +
                          "'| LC_ALL=C sort | paste -sd' ' | tr -d '\n'");
    }
    /** Replaces all that is stored: "NAME=SIZE" files, "NAME/" folders and "NAME@" dead links. */
    void lay(const std::string& found, const std::string& numbers = "") {
        fs::remove_all(logs);
        fs::remove_all(data());
        if (!numbers.empty())
            writeFile(data(), numbers);
        std::istringstream words(found);
        for (std::string word; words >> word;) {
            size_t sign = word.find_last_of("=@");
            std::string path = at(word.substr(0, sign));
            makeFolder(path.back() == '/' ? path : fs::path(path).parent_path().string());
            if (word.back() == '@')
                fs::create_symlink("nowhere", path);
            else if (word.back() != '/')
                writeFile(path, std::string(std::stoul(word.substr(sign + 1)), 'x'));
        }
    }
    /** A store, its numbers or what their file holds instead, and what a step makes of them. */
    struct Row {
        std::string found, before;
        int status;
        std::string after, left;
        int untilError = -1; ///< of the file work
    };
    void check(const std::vector<Row>& rows, const std::function<int()>& step) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.found + ", " + row.before);
            open();
            lay(row.found, dataText(row.before));
            set(row.before);
            files.untilError = row.untilError;
            EXPECT_EQ(step(), row.status);
            EXPECT_EQ(four(), row.after);
            EXPECT_EQ(tree(), row.left);
            files.untilError = -1;
        }
        lay("");
    }

    StorageState state;
    Mutex<StorageLock> lock;
    StorageMedium medium{state, lock};
    RingState ringState;
    Ring ring{ringState, medium};
    FakeFiles files;
    platform::SystemRoot systemRoot;
    std::unique_ptr<Store> store;
};

} // namespace

TEST_F(StoreTest, BookkeepingFileIsReadOnlyWhole) {
    const std::vector<std::pair<std::string, const char*>> texts = {
        {dataText("999999999 999999999 0 999999999"), "999999999 999999999 0 999999999"},
        {"#HEAD_FOLDER_NUM=9\n" + dataText("6 5 4 1") + "HEAD_FOLDER_NUM=8\n", "6 5 4 1"},
        {dataText("1 2 3 0"), "damaged"},
        {dataText("1000000000 1 1 1"), "damaged"},
        {"TOTAL_LOG_SIZE=6\nTAIL_FOLDER_NUM=4\nOLDEST_FILE_NUM=1\n", "damaged"}};
    for (auto& [text, after] : texts) {
        lay("", text);
        EXPECT_EQ(store->parseNumbers() ? four() : "damaged", after) << text;
        fs::permissions(data(), fs::perms(0444)); // an ordinary user replaces it
        EXPECT_TRUE(store->saveNumbers());
        EXPECT_EQ(readFile(data()), dataText(four()));
    }
}

TEST_F(StoreTest, DeletionWalksFromTheOldestOn) {
    const std::string current = "c/1=100 c/2=100 c/3t=9", stray = "3/7=100 3/notes=5";
    check({{"3/7=40000 3/8=40000 5/1=9", "80009 5 3 7", 0, "9 5 4 1", "5/1"},
           {"3/7=65536 3/8=9", "65545 5 3 7", 0, "9 5 3 8", "3/8"},
           {"3/7=65535 3/8=9 3/9=9", "65553 5 3 7", 0, "9 5 3 9", "3/9"},
           {"3/7=70000", "70000 3 3 7", 0, "0 3 3 1", ""},
           {current, "0 0 0 1 200 3", 0, "0 0 0 2", "c/3t"}, // the last number is not saved
           {"3/8=9", "9 5 3 7", -1, "9 5 3 7", "3/8"},
           {stray, "105 5 3 7", -2, "105 5 3 7", "3/7 3/notes", 0},
           {stray, "105 5 3 7", -4, "5 5 3 7", ""}, // what else lay there was counted, too
           {"3/7=9", "9 3 3 7", -7, "0 3 3 7", "3/", 1},
           {current, "1 0 0 1 200 3", -9, "1 0 0 1", "c/1 c/2 c/3t"},
           {current, "0 0 0 1 200 3", -11, "0 0 0 1", "c/1 c/2 c/3t", 0},
           {"3/7=9", "9 2 3 7", -13, "9 2 3 7", "3/7"}},
          [&] { return static_cast<int>(store->deleteOldest()); });
    check({{"3/7=9 4/1=5 c/1=9 c/.x=1 last=1 x/1=1", "14 4 3 7", 1, "0 0 0 1", "c/.x last x/1"}},
          [&] { return store->deleteAll() && readFile(data()) == dataText("0 0 0 1"); });
}

TEST_F(StoreTest, RebuildReadsTheNamesOnDisk) {
    auto rebuild = [&] { return static_cast<int>(store->rebuildNumbers()); };
    check({{"1/ 2/1=9", "1 2 3 4", -4, "1 2 3 4", "1/ 2/1"},
           {"c/1t=9", "1 2 3 4", -4, "1 2 3 4", "c/1t"},
           {"5/3=50 5/4=50 9/1=50 7/2=50 last_4=9 last_3x/1=9 07/1=9 last_1@", "1 2 3 4", 0, "200 9 5 3",
            "07/1 5/3 5/4 7/2 9/1 last_1 last_3x/1 last_4"},
           {"c/", "1 2 3 4", 0, "0 0 0 1", "c/"},
           {"c/6=9 c/8t=9 c/2/", "1 2 3 4", 0, "0 0 0 6", "c/6 c/8t c/log_2.txt.gz/"}},
          rebuild);
    lay("5/4=10");
    for (int entries = 0; entries < 10; ++entries) { // a listing that breaks off anywhere changes nothing
        faults.entriesUntilError = entries;
        set("1 2 3 4");
        EXPECT_TRUE(rebuild() < 0 && four() == "1 2 3 4");
    }
}

TEST_F(StoreTest, PreparingAStartHasItsResults) {
    check({{"../log_service@", "0 0 0 1", -1, "0 0 0 1", ""},
           {"c/4t=9 c/log_4.txt.gz/x=9", "0 0 0 1", -3, "0 0 0 1", "c/4t c/log_4.txt.gz/x"},
           {"c/1t=9", "0 0 0 1", -4, "0 0 0 1", "c/1 c/1t", 0},
           {"c/1=9 1/", "0 0 0 1", -6, "0 0 0 1", "1/ c/1"}, // the number is taken, and nothing tells another
           {"c/1=9", "0 0 0 1", -7, "0 0 0 1", "c/1", 0},
           {"1/", "2000000 1 1 1", -10, "2000000 1 1 1", "1/ c/"},
           {"1/1=5 2/1=6 c/1=9", "5 1 1 1", 0, "20 3 1 1", "1/1 2/1 3/1 c/"},
           {"last_1=5 last_2=6 c/1=9", "0 0 0 1", 0, "9 3 3 1", "3/1 c/ last_1 last_2"},
           // The rebuild after a failed deletion has counted the run that was just moved.
           {"1/1=9 c/1=600000 c/2=400000", "9 1 1 5", 0, "400000 2 2 2", "2/2 c/"}},
          [&] { return static_cast<int>(store->closePreviousRun()); });
}

/** With sections of 1000 bytes and one to be deleted at a time. */
TEST_F(StoreTest, BoundIsKeptToTheByteByTenDeletionsAtMost) {
    std::string found = "1/31=800000";
    for (int k = 1; k <= 30; ++k)
        found += " 1/" + std::to_string(k) + "=1000";
    state.mLogDeleteSize = 1;
    for (size_t needed : {0, 1, 10, 11}) {
        for (bool atStart : {false, true}) {
            SCOPED_TRACE(std::to_string(needed) + (atStart ? " at a start" : " at a cut"));
            open();
            lay(found);
            files.archiveSize = 1048576 - 65536 - 830000 + (needed > 0 ? needed * 1000 - 999 : 0);
            ASSERT_TRUE(atStart || (start() && saved(std::string(65536, 'x'))));
            set("830000 1 1 1");
            if (atStart)
                writeFile(at("c/1"), std::string(files.archiveSize, 'x'));
            PrepareStatus wanted = needed <= 10 ? PrepareStatus::Ready : PrepareStatus::BoundNotHeld;
            EXPECT_TRUE(atStart ? store->closePreviousRun() == wanted : saved("x") == (needed <= 10));
            size_t gone = std::min<size_t>(needed, 10);
            EXPECT_TRUE(exists(at("1/" + std::to_string(gone + 1))) &&
                        !exists(at("1/" + std::to_string(gone))));
            EXPECT_TRUE(atStart || saved("y")) << "the next save goes on with the deletions";
            EXPECT_EQ(exists(at("1/11")), atStart || needed <= 10);
        }
    }
}

TEST_F(StoreTest, CutsReachTheMediumInOrder) {
    const std::string text(100000, 'x'), torn = "of a compression that was cut off";
    state.mLogSectionSize = 40000;
    ASSERT_TRUE(start() && saved(text)) << "the second section is over-full";
    writeFile(at("c/2"), torn);
    files.untilError = 0;
    faults.recordCalls(true);
    EXPECT_EQ(save("more").status, SaveStatus::CutFailed);
    EXPECT_TRUE(saved("!")) << "it is compressed before anything is written";
    set("0 0 0 7"); // nothing as old is left
    store->closeSection();
    EXPECT_TRUE(saved(text.substr(60000))) << "the section is continued at its end";
    EXPECT_EQ(four(), "0 0 0 3");
    EXPECT_EQ(readGzip(at("c/1")) + readGzip(at("c/2")), text + "more");
    EXPECT_EQ(readGzip(at("c/3")), "!" + text.substr(60001));
    writeFile(at("c/4"), torn);
    ASSERT_TRUE(start());
    std::string calls;
    for (const std::string& call : faults.calls())
        calls += call + ", ";
    EXPECT_EQ(calls, "unlink log_2.txt.gz, compress log_2.txt, unlink log_2.txt.gz, compress log_2.txt, "
                     "fsync log_2.txt.gz, fsync current, fsync log_3.txt, unlink log_3.txt.gz, "
                     "compress log_3.txt, fsync log_3.txt.gz, fsync current, fsync log_storage.dat, "
                     "fsync log_4.txt, compress log_4.txt, fsync log_4.txt.gz, fsync current, move last_1, "
                     "fsync log_storage.dat, ");
    EXPECT_EQ(storedText(logs), text + "more!" + text.substr(60000));
}

TEST_F(StoreTest, RootChangeLeavesTheOldNumbersBehind) {
    std::string first = root, other = home + "/other", current = other + "/log_service/current";
    makeFolder(other);
    ASSERT_TRUE(start() && saved(std::string(70000, 'a')) && saved(std::string(70000, 'b')));
    set("7 3 2 2");
    store->changeRoot(root.c_str());
    EXPECT_EQ(four(), "7 3 2 2") << "it is there already";
    store->changeRoot(other.c_str());
    EXPECT_EQ(four(), "0 0 0 1");
    EXPECT_EQ(state.mCurrentTotalSize, 0u);
    EXPECT_EQ(readFile(other + "/log_storage.dat"), dataText("0 0 0 1"));
    EXPECT_EQ(save(std::string(65536, 'c')).status, SaveStatus::RootMoved);
    EXPECT_EQ(readFile(at("c/3t")).size(), 65536u) << "the section stays where it was";
    EXPECT_EQ(store->save(ring.used()).status, SaveStatus::Saved);
    EXPECT_EQ(readFile(current + "/log_3.txt"), std::string(8928, 'c'));
    uint64_t left = storedArchiveBytes(logs) + 65536;
    store->changeRoot(first.c_str());
    EXPECT_EQ(readFile(data()), dataText(std::to_string(left) + " 1 1 1"));
    std::string longest = "/" + std::string(239 - logs.size(), 'x');
    EXPECT_TRUE(store->copyTargetUsable(longest.c_str()) && store->copyTo(current.c_str()));
    EXPECT_FALSE(store->copyTargetUsable((longest + "x").c_str()) || store->copyTargetUsable("/two words"));
}

/** What an earlier life can leave. With one exception, starting twice changes nothing more. Archives made at
 * the start have 7 bytes. */
TEST_F(StoreTest, StartMendsWhatItFinds) {
    const std::string runs = "1/4=10 2/1=20 ", base = runs + "c/1t=9 ", three = "1/4 2/1 3/1 c/", n(250, 'n');
    files.archiveSize = 7;
    check({{base, "30 2 1 4", 1, "37 3 1 4", three},
           {base, "30 2 1 3", 1, "37 3 1 4", three}, // a section was deleted, the numbers not saved
           {base + "0/", "30 2 0 9", 1, "37 3 1 4", three}, // a run was emptied, its folder not removed
           {runs, "10 1 1 4", 1, "30 2 1 4", "1/4 2/1 c/"}, // moved aside, nothing else done
           {runs, "10 2 1 4", 1, "30 2 1 4", "1/4 2/1 c/"}, // moved, not counted
           {base, "999999999 2 1 4", 1, "37 3 1 4", three},
           {base, "", 1, "37 3 1 4", three},
           {"c/1t=9", "x", 1, "7 1 1 1", "1/1 c/"}, // in its first section
           // A change of the root has left texts in archived runs.
           {runs + "1/5t=9 1/5=3 3/8t=9", "30 2 1 4", 1, "44 3 1 4", "1/4 1/5 2/1 3/8 c/"},
           {"1/x=5 2/log.txt=9 3/1=4", "x", 1, "11 3 2 1", "2/1 3/1 c/ last_1.stray/x"},
           {base + "c/x.txt=1 last_3=1 c/7@", "x", 1, "44 4 1 4", "1/4 2/1 4/1 4/7 4/x.txt.gz c/ last_3"},
           {base + "c/log.txt=9", "", 1, "0 0 0 1", "c/"}, // of the older form, and no numbers: all goes
           {"c/x=9", "x", 0, "0 0 0 1", "c/ last_1.stray/x"}, // archived, then moved aside
           {"1/1=500000 1/2=500000", "x", 1, "500000 1 1 2", "1/2 c/"},
           // A path of this length is not counted while the run is closed off, only once more at the end.
           {"1/1=500000 c/1=10 c/" + n + "=500000", "500000 1 1 1", 1, "500010 2 2 1", "2/1 2/" + n + " c/"}},
          [&] {
              std::string first = run() ? tree() + dataText(four()) : "no start";
              return start() && tree() + readFile(data()) == first;
          });
}

/** What counts is what the files show: with SIGCHLD ignored, no result of a command is to be had. */
namespace {

/**
 * Random operations on stores at two roots, against what was put there. The text is numbered throughout, so
 * that a piece of it tells its place. `trusted` is false from a fault or a change of the root, after which
 * older runs there do not count, to the next start.
 *
 * A start is given no failing step, no missing numbers where nothing is finished, and a bound that ten
 * deletions reach: it would delete everything.
 */
class StoreModelTest : public StoreTest {
  protected:
    unsigned below(unsigned end) { return static_cast<unsigned>(random() % end); }
    static std::string section(uint32_t number) { return "c/" + std::to_string(number); }
    uint64_t bound() { return static_cast<uint64_t>(state.mMaxLogSize) << 20; }

    void append(bool failing) {
        uint32_t active = state.mCurLogSize, size = state.mLogSectionSize;
        uint32_t count = below(4) == 0 && active < size ? size - active + below(2) : below(131072);
        std::string text;
        for (char line[9]; text.size() < count; text += line)
            snprintf(line, sizeof line, "%07x\n", ++lines);
        text.resize(std::min(count, 131072 - ring.used()));
        trusted = trusted && !failing;
        if (failing) {
            files.untilError = static_cast<int>(below(4)) - 1;
            faults.writesUntilError = static_cast<int>(below(4));
            bool anew =
                pending.empty() && (ring.release(), ring.create()); // a piece that ends the ring comes twice
            faults.writeError = anew && below(2) == 0 ? ENOSPC : 0;
        }
        pending += text;
        opened = state.mLogFd >= 0 ? opened : root;
        SaveResult result = save(text);
        files.untilError = -1;
        faults.writeError = 0;
        there[opened] += pending.substr(0, result.moved);
        pending.erase(0, result.moved);
        EXPECT_EQ(pending.size(), ring.used());
        EXPECT_TRUE(!trusted || (result.status == SaveStatus::Saved && pending.empty()));
        checkText(opened);
        if (trusted)
            checkNumbers();
    }
    /** Nothing is torn, twice or out of order; only the oldest is missing, and only for the bound. */
    void checkText(const std::string& place) {
        std::string stored = storedText(place + "/log_service"), &all = there[place];
        size_t lost = all.size() - std::min(stored.size(), all.size());
        uint64_t before = storedArchiveBytes(place + "/log_service") + 2 * uint64_t{state.mLogDeleteSize};
        bool isEnd = all.compare(lost, all.npos, stored) == 0;
        ASSERT_TRUE(isEnd || !trusted);
        EXPECT_TRUE(!trusted || lost == 0 || before + 400000 > bound()) << "deleted without need";
        for (size_t in = 0, pieces = 0, length; !isEnd && in < stored.size(); in += length, ++pieces) {
            size_t from = all.find(stored.substr(in, 24)); // a change of the root numbers runs anew
            ASSERT_TRUE(from != all.npos && pieces < 4) << "byte " << in << " of " << stored.size();
            for (length = 0; in + length < stored.size() && stored[in + length] == all[from + length];)
                ++length;
        }
        all = stored;
    }
    /** The numbers say what the folders hold, and the bound is kept. */
    void checkNumbers() {
        RunTotals runs;
        ASSERT_TRUE(countRuns(logs.c_str(), &runs));
        EXPECT_EQ(state.mTotalLogSize, runs.bytes);
        EXPECT_EQ(state.mTotalLogSize + state.mCurrentTotalSize, storedArchiveBytes(logs));
        EXPECT_EQ(state.mHeadFolderNum, runs.count > 0 ? runs.newest : state.mTailFolderNum);
        EXPECT_LE(state.mTailFolderNum,
                  runs.oldest); // a number that a stray file has taken is found out by the deletion
        EXPECT_LE(uint64_t{state.mTotalLogSize} + state.mCurrentTotalSize + state.mLogSectionSize, bound());
    }
    void dropStrays() {
        bool strays = tree().find("notes") != std::string::npos; // a run with strays takes a deletion more
        if (!strays && exists(at(section(state.mSliceNum) + "t")))
            for (const char* name : {"c/notes", "c/a b.txt", "last_x", "last_07/x"})
                writeFile(at(name), "");
        writeFile(logs + "/last_" + std::to_string(state.mHeadFolderNum + 1 + below(2)), "");
    }
    void changeRoot() {
        trusted = false;
        root.swap(other);
        logs = root + "/log_service";
        store->changeRoot(root.c_str());
        EXPECT_EQ(readFile(data()), dataText(four()));
        checkText(root);
    }
    void restart() {
        checkText(root); // once more before it is trusted again
        uint64_t bytes = 2000; // what the archives will add to their texts
        for (auto& entry : fs::recursive_directory_iterator(logs))
            bytes += entry.is_regular_file() ? entry.file_size() : 0;
        state.mLogSectionSize = 16384U << below(4);
        uint64_t tooMuch = std::max(bytes + state.mLogSectionSize, bound()) - bound();
        state.mLogDeleteSize = std::max(65536U, static_cast<uint32_t>(tooMuch / 6));
        std::string text = readFile(data()), damaged = text + '#';
        damaged[below(static_cast<unsigned>(damaged.size()))] ^= static_cast<char>(1 << below(7));
        unsigned harm = below(5);
        if (harm < 2 || (harm == 2 && bytes < bound() && exists(at(section(state.mSliceNum - 1)))))
            fs::remove(data());
        if (harm < 2)
            writeFile(data(), harm == 0 ? damaged : earlier);
        earlier = text;
        if (below(2) == 0)
            open();
        store->beginRun(); // else the same object, with what it still knows
        ASSERT_TRUE(store->resolveRoot() && run());
        EXPECT_EQ(state.mSliceNum + state.mCurLogSize + state.mCurrentTotalSize, 1u);
        trusted = true;
        checkText(root);
        checkNumbers();
    }

    std::mt19937 random;
    std::map<std::string, std::string> there; ///< by root: all text that is to be there
    std::string other = home + "/other"; ///< the root that is not in use
    std::string opened; ///< root of the open section
    std::string pending; ///< what the ring holds
    std::string earlier; ///< bookkeeping of the start before
    unsigned lines = 0;
    bool trusted = true;
};

} // namespace

TEST_F(StoreModelTest, RandomLifeLosesNothingButTheOldest) {
    const char* given = std::getenv("VNLOG_SEED");
    unsigned seed = given != nullptr ? static_cast<unsigned>(std::atol(given)) : std::random_device{}();
    int rounds = std::getenv("VNLOG_LONG_TESTS") != nullptr ? 2000 : 200;
    random.seed(seed);
    makeFolder(other);
    ASSERT_TRUE(start());
    for (int round = 1; round <= rounds && !HasFailure(); ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        unsigned kind = below(40);
        kind < 31   ? append(kind < 3)
        : kind < 33 ? store->closeSection()
        : kind < 35 ? dropStrays()
        : kind < 36 ? changeRoot()
                    : restart();
    }
}
