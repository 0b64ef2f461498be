// SPDX-License-Identifier: Apache-2.0
#include "StoreParts.h"

#include "storage/ChosenFileWork.h"

using namespace vnlog;

namespace {

/** File work that fails when it is told to. A compression that fails leaves what is torn. */
class FakeFiles final : public FileWork {
  public:
    int untilError = -1; ///< calls that work before one fails, -1 for all
    int errors = 1; ///< how many then fail
    int error = EIO; ///< with this errno
    int untilRoom = 0; ///< with faults.writeError: sections to be removed until the medium has room again
    bool lying = false; ///< nothing is removed, but said to be
    size_t archiveSize = 0; ///< of the archives to come, unless 0

    bool compress(const char* text, const SectionOrigin& origin) override {
        std::string archive = std::string(text) + ".gz";
        if (!works()) {
            writeFile(archive + ".new", "torn");
            return false;
        }
        if (archiveSize == 0 || !fs::is_regular_file(text))
            return real.compress(text, origin);
        writeFile(archive, std::string(archiveSize, 'x'));
        return fs::remove(text);
    }
    bool removeFile(const char* p) override {
        bool removed = works() && (lying || !unlink(p) || errno == ENOENT);
        if (removed && untilRoom > 0 && --untilRoom == 0)
            faults.writeError = 0;
        return removed;
    }
    bool removeTree(const char* p) override { return works() && (lying || fs::remove_all(p) + 1); }
    bool removeAll(const char* b) override { return works() && real.removeAll(b); }
    bool copyTree(const char* f, const char* to, CopyTotals* t) override {
        return works() && real.copyTree(f, to, t);
    }
    bool moveFolder(const char* f, const char* to) override { return works() && real.moveFolder(f, to); }

  private:
    ChosenFileWork real; // for what is asked seldom

    bool works() {
        if (untilError < 0 || untilError-- > 0)
            return true;
        untilError = --errors > 0 ? 0 : -1;
        errno = error;
        return false;
    }
};

/**
 * A store on the test's root, driven step by step; batches come through a ring. Stored files are named in
 * short: "3/7" is section 7 of last_3, "c/7t" the text of section 7 of the current run.
 */
class StoreTest : public FolderTest, protected StoreParts {
  protected:
    StoreTest() : StoreParts(files, 65536) {
        state.mLogDeleteSize = 65536;
        open();
    }
    ~StoreTest() override { store.reset(); }

    void open() { StoreParts::open(root); }
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
            R"(/^runs.txt$/d; s,^last_([0-9]+)/,\1/,; s,^current(/|$),c\1,; s,/log_([0-9]+).txt$,/\1t,; s,/log_([0-9]+).txt.gz$,/\1,)";
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
        for (std::string word; words >> word;)
            layOne(word);
    }
    /** One of these, where nothing has its name. */
    void layOne(const std::string& word) {
        size_t sign = word.find_last_of("=@");
        std::string path = at(word.substr(0, sign));
        fs::path folder = fs::path(path).parent_path(); // itself, for the path of a folder
        if (exists(fs::symlink_status(path.back() == '/' ? folder : fs::path(path))))
            return;
        makeFolder(folder);
        if (word.back() == '@')
            fs::create_symlink("nowhere", path);
        else if (word.back() != '/')
            writeFile(path, std::string(std::stoul(word.substr(sign + 1)), 'x'));
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
            files.errors = 99;
            EXPECT_EQ(step(), row.status);
            EXPECT_EQ(four(), row.after);
            EXPECT_EQ(tree(), row.left);
            files.untilError = -1;
        }
        lay("");
    }

    FakeFiles files; ///< of the store, which ends first
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
    check({{"3/7=40000 3/8=40000 5/4=9", "80009 5 3 7", 0, "9 5 5 4", "5/4"},
           {"3/7=65536 3/8=9", "65545 5 3 7", 0, "9 5 3 8", "3/8"},
           {"3/7=65535 3/8=9 3/9=9", "65553 5 3 7", 0, "9 5 3 9", "3/9"},
           {"3/7=65536 3/9=8 3/8t=1", "65545 5 3 7", 0, "9 5 3 8", "3/8t 3/9"}, // a text is a section, too
           {"3/7t=65536 3/9=9", "65545 5 3 7", 0, "9 5 3 9", "3/9"},
           {"3/7=70000", "70000 3 3 7", 0, "0 3 3 1", ""},
           {"3/7=70000 c/3=9 c/4=9", "70000 3 3 7 18 5", 0, "0 3 3 3", "c/3 c/4"},
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
    check({{"1/ 2/4=9", "1 2 3 4", 0, "9 2 2 4", "1/ 2/4"},
           {"1/ 2/x=9", "1 2 3 4", -4, "1 2 3 4", "1/ 2/x"},
           {"c/1t=9", "1 2 3 4", -4, "1 2 3 4", "c/1t"},
           {"5/3=50 5/4=50 9/1=50 7/2=50 last_4=9 last_3x/1=9 07/1=9 last_1@", "1 2 3 4", 0, "200 9 5 3",
            "07/1 5/3 5/4 7/2 9/1 last_1 last_3x/1 last_4"},
           {"c/", "1 2 3 4", 0, "0 0 0 1", "c/"},
           {"c/6=9 c/8t=9 c/2/", "1 2 3 4", 0, "0 0 0 6", "c/6 c/8t c/log_2.txt.gz/"}},
          rebuild);
    lay("5/4=10");
    for (int entries = 0; entries < 8; ++entries) { // a listing that breaks off anywhere changes nothing
        faults.entriesUntilError = entries;
        set("1 2 3 4");
        EXPECT_TRUE(rebuild() < 0 && four() == "1 2 3 4");
    }
}

/** What cannot be used as it is is left alone, and everything else goes on. */
TEST_F(StoreTest, PreparingAStartHasItsResults) {
    const std::string link = "log_service@", full = "1/1=500000 2/1=500000 c/1=9";
    check({{"../" + link, "0 0 0 1", -1, "0 0 0 1", ""},
           {"1/1=9 current@", "9 1 1 1", -2, "9 1 1 1", "1/1 c"},
           {"1/1=9 current=9", "9 1 1 1", -2, "9 1 1 1", "1/1 c"},
           {"c/1=9", "0 0 0 1", -7, "0 0 0 1", "c/1", 0},
           {full, "1000000 2 1 1", -10, "1000009 3 1 1", "1/1 2/1 3/1 c/", 1},
           {"1/1=5 2/1=6 c/1=9", "5 1 1 1", 0, "20 3 1 1", "1/1 2/1 3/1 c/"},
           {"last_1=5 last_2=6 c/1=9", "0 0 0 1", 0, "9 3 3 1", "3/1 c/ last_1 last_2"},
           {"1/1=9 c/1=600000 c/2=400000", "9 1 1 5", 0, "400000 2 2 2", "2/2 c/"}},
          [&] { return static_cast<int>(store->closePreviousRun()); });
    files.lying = true; // sections that are listed and cannot be removed, and nobody says why
    check({{full, "1000000 2 1 1", -11, "1000009 3 1 1", "1/1 2/1 3/1 c/"}},
          [&] { return static_cast<int>(store->closePreviousRun()); });
    lay("../log_service.damaged/1=9 " + full);
    files.lying = false;
    files.untilError = 1, files.errors = 4,
    files.error = ENOENT; // of removals that did not find what is listed
    ASSERT_TRUE(start());
    EXPECT_EQ(tree() + " " + four(), "c/ 0 0 0 1");
    EXPECT_TRUE(exists(root + "/log_service.damaged/last_1/log_1.txt.gz"))
        << "set aside, in the place of an older one";
    EXPECT_FALSE(exists(root + "/log_service.damaged/1"));
}

/** With sections of 1000 bytes and one to be deleted at a time. */
TEST_F(StoreTest, BoundIsKeptToTheByteByAsManyDeletionsAsItTakes) {
    std::string found = "1/31=800000";
    for (int k = 1; k <= 30; ++k)
        found += " 1/" + std::to_string(k) + "=1000";
    state.mLogDeleteSize = 1;
    for (size_t needed : {0, 1, 10, 25}) {
        for (bool atStart : {false, true}) {
            SCOPED_TRACE(std::to_string(needed) + (atStart ? " at a start" : " at a cut"));
            open();
            lay(found);
            files.archiveSize = 1048576 - 65536 - 830000 + (needed > 0 ? needed * 1000 - 999 : 0);
            ASSERT_TRUE(atStart || (start() && saved(std::string(65536, 'x'))));
            if (atStart)
                writeFile(at("c/1"), std::string(files.archiveSize, 'x'));
            EXPECT_TRUE(atStart ? store->closePreviousRun() == PrepareStatus::Ready : saved("x"));
            EXPECT_TRUE(exists(at("1/" + std::to_string(needed + 1))) &&
                        !exists(at("1/" + std::to_string(needed))));
            EXPECT_EQ(readFile(data()), dataText(four()));
        }
    }
    files.archiveSize = 0;
    found.clear(); // the blocks count as well, at twice the bound
    for (int k = 1; k <= 900; ++k)
        found += std::to_string(k) + "/1=1 ";
    lay(found);
    ASSERT_TRUE(start());
    std::string taken = runCommand("du -s -B1 " + logs);
    EXPECT_LE(std::stoul(taken) + 65536, 2097152U);
    EXPECT_GE(std::stoul(taken), 1800000U);
    EXPECT_FALSE(exists(at("1/1")) || !exists(at("900/1")));
}

TEST_F(StoreTest, CutsThatFailedAreEndedBeforeMoreIsWritten) {
    const std::string text(100000, 'x'), torn = "of a compression that was cut off";
    state.mLogSectionSize = 40000;
    ASSERT_TRUE(start() && saved(text)) << "the second section is over-full";
    writeFile(at("c/2"), torn);
    files.untilError = 0;
    EXPECT_EQ(save("more").status, SaveStatus::CutFailed);
    EXPECT_TRUE(saved("!"));
    set("0 0 0 7"); // nothing as old is left
    store->closeSection();
    EXPECT_TRUE(saved(text.substr(60000))) << "the section is continued at its end";
    EXPECT_EQ(four(), "0 0 0 3");
    EXPECT_EQ(readGzip(at("c/1")) + readGzip(at("c/2")), text + "more");
    EXPECT_EQ(readGzip(at("c/3")), "!" + text.substr(60001));
    writeFile(at("c/4"), torn);
    ASSERT_TRUE(start());
    EXPECT_EQ(storedText(logs), text + "more!" + text.substr(60000));
}

TEST_F(StoreTest, RootChangeLeavesTheOldNumbersBehind) {
    std::string first = root, other = home + "/other", current = other + "/log_service/current";
    makeFolder(other);
    ASSERT_TRUE(start() && saved(std::string(70000, 'a')) && saved(std::string(70000, 'b')));
    EXPECT_EQ(store->changeRoot(other.c_str()), RootChangeStatus::Done);
    EXPECT_EQ(four() + dataText("0 0 0 1"), "0 0 0 1" + readFile(other + "/log_storage.dat"));
    EXPECT_EQ(save(std::string(65536, 'c')).status, SaveStatus::RootMoved);
    EXPECT_EQ(readFile(first + "/log_service/current/log_3.txt").size(), 65536u) << "the section stays there";
    EXPECT_EQ(store->save(ring.used()).status, SaveStatus::Saved);
    EXPECT_EQ(readFile(current + "/log_3.txt"), std::string(8928, 'c'));
    EXPECT_EQ(store->changeRoot(first.c_str()), RootChangeStatus::Done);
    EXPECT_EQ(readFile(data()), dataText(std::to_string(storedArchiveBytes(logs)) + " 1 1 1"));
    std::string longest = "/" + std::string(239 - logs.size(), 'x');
    EXPECT_FALSE(store->copyTargetUsable((longest + "x").c_str()) || store->copyTargetUsable("/two words"));
    CopyTotals totals;
    std::string reason;
    auto copied = [&](const std::string& to) {
        return store->copyTo(store->logFolder(), to.c_str(), &totals, &reason);
    };
    EXPECT_TRUE(store->copyTargetUsable(longest.c_str()) && copied(data()) == CopyStatus::NoFolder);
    EXPECT_TRUE(copied(first) == CopyStatus::Inside && copied(at("c")) == CopyStatus::Inside);
    files.untilError = 0, files.error = ENOSPC;
    EXPECT_EQ(copied(home), CopyStatus::NoRoom);
    EXPECT_TRUE(copied(home) == CopyStatus::Done && storedText(home + "/log_service") == storedText(logs));
    files.untilError = 0, files.error = EIO;
    EXPECT_TRUE(copied(home) == CopyStatus::Partial && reason == "Input/output error");
    StoreExtent extent{};
    EXPECT_TRUE(store->extent(&extent));
    EXPECT_TRUE(extent.bytes == storedArchiveBytes(logs) && extent.runs == 1 && store->counts().cuts == 2);
    faults.freeBytes = 99;
    EXPECT_TRUE(copied(home + "/media") == CopyStatus::NoRoom && reason == "No space left on device");
}

/** What an earlier life can leave. Starting twice changes nothing more. The start's archives have 7 bytes. */
TEST_F(StoreTest, StartMendsWhatItFinds) {
    const std::string runs = "1/4=10 2/1=20 ", base = runs + "c/1t=9 ", three = "1/4 2/1 3/1 c/", n(250, 'n');
    files.archiveSize = 7;
    check({{base, "30 2 1 4", 1, "37 3 1 4", three},
           {runs, "30 2 1 3", 1, "30 2 1 4", "1/4 2/1 c/"}, // a section was deleted, the numbers not saved
           {base + "0/", "30 2 0 9", 1, "37 3 1 4", three}, // a run was emptied, its folder not removed
           {"0/3=5 " + base, "30 2 1 4", 1, "42 3 0 3", "0/3 " + three},
           {runs, "10 1 1 4", 1, "30 2 1 4", "1/4 2/1 c/"}, // moved aside, nothing else done
           {runs, "30 2 0 4", 1, "30 2 1 4", "1/4 2/1 c/"}, // a run was deleted, the numbers not saved
           {base, "999999999 2 1 4", 1, "37 3 1 4", three},
           {base, "", 1, "37 3 1 4", three},
           {"c/1t=9", "x", 1, "7 1 1 1", "1/1 c/"}, // in its first section
           {"c/1t=9", "", 1, "7 1 1 1", "1/1 c/"},
           {"c/8t=9", "9 5 5 3", 1, "7 6 6 8",
            "6/8 c/"}, // the last section of the run was deleted, and not saved
           // A change of the root has left texts in archived runs.
           {runs + "1/5t=9 1/5=3 3/8t=9", "30 2 1 4", 1, "44 3 1 4", "1/4 1/5 2/1 3/8 c/"},
           {"1/x=5 1.stray/ 2/log.txt=9 3/1=4", "x", 1, "11 3 2 1", "1.stray/ 2/1 3/1 c/ last_1.stray/x"},
           {"1/x=5 last_1.stray/y=1 2/1=4", "x", 1, "4 2 2 1", "2/1 c/ last_1.stray/y last_1.stray1/x"},
           {base + "c/x.txt=1 last_3=1 c/7@", "x", 1, "51 4 1 4", "1/4 2/1 4/1 4/7 4/x.txt.gz c/ last_3"},
           {base + "c/log.txt=9 1/log.txt.gz=3", "", 1, "47 3 1 1",
            "1/1 1/4 2/1 3/1 3/2 c/"}, // of the older form
           {"999999998/4=10 7/1=20 last_1=3 c/1t=9", "30 999999998 7 1", 1, "37 4 2 1",
            "2/1 3/4 4/1 c/ last_1"},
           {"c/1t=9", "0 999999999 999999999 1", 1, "7 1 1 1", "1/1 c/"},
           {"1/1=500000 1/2=500000", "x", 1, "500000 1 1 2", "1/2 c/"},
           {"1/1=500000 last_2@ 3/1=600000 nowhere/1=9", "x", 1, "600000 3 3 1", "3/1 c/ last_2 nowhere/1"},
           {"1/1=9 1/x.txt.gz.new=3 1/log.txt.gz/", "x", 1, "4108 1 1 1",
            "1/1 1/log.txt.gz/ 1/x.txt.gz.new c/"},
           {"1/1=500000 c/1=10 c/" + n + "=500000", "500000 1 1 1", 1, "500010 2 2 1", "2/1 2/" + n + " c/"}},
          [&] {
              std::string first = run() ? tree() + dataText(four()) : "no start";
              return start() && tree() + readFile(data()) == first;
          });
}

/** Of a text beside an archive of the same number, nothing is lost and nothing kept twice. */
TEST_F(StoreTest, TextAndArchiveOfOneNumberAreSettled) {
    const std::string a = "abcdef", z(3, '\0'), none;
    const std::vector<std::vector<std::string>> rows = {
        // of the archive, of the text, kept under 1, kept under 2
        {a, a, a, none},         {a, "abc", a, none},  {a, none, a, none},
        {a, "abc" + z, a, none}, {a, a + z, a, none},  {a, a + "gh", a + "gh", none},
        {none, a, a, none},      {a, "abx", a, "abx"}, {a, "ab" + z + "x", a, "ab" + z + "x"}};
    for (const auto& row : rows) {
        for (const char* folder : {"c/", "1/"}) {
            SCOPED_TRACE(row[0] + " " + row[1] + " " + folder);
            lay("c/");
            std::string section = at(std::string(folder) + "1t");
            writeFile(section, row[0]);
            ASSERT_TRUE(files.compress(section.c_str(), {}));
            writeFile(section, row[1]);
            ASSERT_TRUE(start());
            EXPECT_EQ(tree(), row[3].empty() ? "1/1 c/" : "1/1 1/2 c/");
            EXPECT_EQ(readGzip(at("1/1")), row[2]);
            EXPECT_EQ(row[3].empty() ? none : readGzip(at("1/2")), row[3]);
        }
    }
}

/** And whatever becomes of the list, the next start works and goes on with it. */
TEST_F(StoreTest, RunsAreListed) {
    const std::string list = logs + "/runs.txt",
                      found = "grep -oaE '^run=[0-9]+|event=.|build=.*|step=.*|how=.*' " + list;
    auto events = [&] { return ::runCommand(found + " | sed 's/^[a-z]*=//' | tr '\\n' ' '"); };
    setenv("VNLOG_BUILD_ID", "a b\x7f", 1);
    ASSERT_TRUE(start() && saved("1"));
    faults.clockStep = -100;
    EXPECT_TRUE(saved("2") && saved("3"));
    store->leaveRoot();
    ASSERT_TRUE(start() && saved("4") && start());
    EXPECT_EQ(events(), "1 s a_b_ 1 s -100 1 e stopped 1 a stopped archived=1 "
                        "2 s a_b_ 2 a no_end archived=2 3 s a_b_ ");
    const std::string whole = readFile(list);
    for (size_t at = 0; at < whole.size(); at += 9) {
        std::string text = at % 2 == 0 ? whole.substr(0, at) : whole;
        text[at % 2 == 0 ? 0 : at] ^= static_cast<char>(1 << at / 2 % 8);
        writeFile(list, text);
        ASSERT_TRUE(start() && readFile(list).rfind(text, 0) == 0) << at;
        EXPECT_EQ(events().rfind(" s a_b_ "), events().size() - 8) << at;
    }
    writeFile(list, whole + std::string(300000, '\n') + whole);
    ASSERT_TRUE(fs::remove_all(at("1/")) > 0 && start());
    EXPECT_EQ(events(), "2 s a_b_ 2 a no_end archived=2 3 s a_b_ 3 a no_end archived=0 4 s a_b_ ");
    EXPECT_TRUE(fs::remove(list) && fs::create_directory(list) && start() && saved("5") && saved("6"));
    EXPECT_EQ(loggedTimes("runs.txt] cannot be written"), 1);
    std::minstd_rand random;
    for (int i = 0; i < 4000; ++i) {
        RunLine line{{std::to_string(1 + random() % 99), i % 2 == 0 ? kRunStart : kRunArchived}}, read;
        for (size_t key = 2; key < kRunKeys; ++key)
            line.values[key].assign(random() % 3, static_cast<char>('!' + random() % 94));
        ASSERT_TRUE(parseRunLine(printRunLine(line), &read) && read.values == line.values);
    }
}

/** Folders vanish, come back or are another's: storing goes on with the next batch, or says why not. */
TEST_F(StoreTest, HealsWhileItRuns) {
    ASSERT_TRUE(start() && saved("1"));
    fs::remove_all(logs);
    EXPECT_TRUE(saved("2") && logged("log_1.txt] is gone"));
    EXPECT_EQ(storedText(logs), "2");
    store->closeSection();
    fs::rename(at("c"), at("x"));
    fs::create_symlink("x", at("c"));
    EXPECT_EQ(save("3").status, SaveStatus::CutFailed);
    EXPECT_TRUE(logged("current] is not used as a folder of the store: Too many levels"));
    fs::remove(at("c"));
    fs::rename(at("x"), at("c"));
    EXPECT_TRUE(saved("4"));
    EXPECT_EQ(storedText(logs), "234");
    {
        StorageState own;
        Store second(own, lock, ring, files, systemRoot);
        own.mSavePath = strdup(root.c_str());
        EXPECT_TRUE(second.resolveRoot());
        EXPECT_FALSE(second.prepare());
        EXPECT_TRUE(logged("is in use by the log service of process " + std::to_string(getpid()) + "\n"));
    }
    umask(0);
    chmod(at("c").c_str(), 0777);
    ASSERT_TRUE(start() && saved("5"));
    EXPECT_EQ(runCommand("find " + root + " -perm /022 ! -name '*.gz'"), "");
    umask(022);
    mkfifo(at("c/7t").c_str(), 0600);
    makeFolder(at("c/8") + ".new");
    set("0 0 0 1 0 7");
    store->closeSection();
    EXPECT_TRUE(saved("6")) << "what has its names is something else";
    EXPECT_EQ(readFile(at("c/9t")), "6");
}

/** And one that nobody else came before lists nothing. */
TEST_F(StoreTest, ACutCountsWhatOthersHaveChanged) {
    const std::string full(65536, 'x');
    lay("1/1=9 1/2=9 2/1=9 3/1=9 c/");
    fs::last_write_time(logs, fs::file_time_type()); // of which any other differs
    ASSERT_TRUE(start() && saved(full) && four() == "36 3 1 1");
    writeFile(at("2/2"), "more");
    EXPECT_TRUE(saved(full) && four() == "40 3 1 1");
    EXPECT_TRUE(fs::remove(at("1/1")) && saved(full) && four() == "31 3 1 2");
    fs::rename(at("3/"), at("7/"));
    EXPECT_TRUE(saved(full) && four() == "31 7 1 2");
    faults.entriesUntilError = 0;
    EXPECT_TRUE(saved(full) && saved(full) && faults.entriesUntilError == 0);
    faults.entriesUntilError = -1;
    faults.unwatched = true;
    fs::rename(at("7/"), at("8/"));
    writeFile(at("8/2"), "more"); // in a run that nobody watches
    EXPECT_TRUE(saved(full) && four() == "35 8 1 2" && fs::remove(at("8/2")));
    EXPECT_TRUE(saved(full) && four() == "31 8 1 2");
}

namespace {

/**
 * Random operations on stores at two roots, against what was put there. The text is numbered throughout, so
 * that a piece of it tells its place. Whatever happens, what is stored is the end of what was put there,
 * without what was removed by hand; and the beginning is missing only where the bound or a full medium asks
 * for it.
 */
class StoreModelTest : public StoreTest {
  protected:
    unsigned below(unsigned end) { return static_cast<unsigned>(random() % end); }
    uint64_t bound() { return static_cast<uint64_t>(state.mMaxLogSize) << 20; }

    /** Makes a step of what comes fail, most of the time. Returns whether the medium may seem full. */
    bool arm(unsigned steps) {
        const int errors[] = {EIO, ENOSPC, EMFILE, EACCES};
        files.untilError = static_cast<int>(below(steps)) - 1;
        files.errors = 1 + static_cast<int>(below(3));
        files.error = errors[below(4)];
        return files.error == ENOSPC;
    }
    void disarm() {
        files.untilError = -1;
        faults.writesUntilError = faults.writeError = files.untilRoom = 0;
    }
    void append(bool failing) {
        uint32_t active = state.mCurLogSize, size = state.mLogSectionSize;
        uint32_t count = below(4) == 0 && active < size ? size - active + below(2) : below(131072);
        std::string text;
        for (char line[9]; text.size() < count; text += line)
            snprintf(line, sizeof line, "%07x\n", ++lines);
        text.resize(std::min(count, 131072 - ring.used()));
        pending += text;
        fs::path link = "/proc/self/fd/" + std::to_string(state.mLogFd);
        std::string open = state.mLogFd >= 0 ? fs::read_symlink(link).string() : "";
        opened =
            open.rfind(opened + "/log_service", 0) == 0 && exists(open) ? opened : root; // else it is gone
        failing = failing && opened == root; // else what goes where depends on the step that fails
        bool full = failing && arm(4), stepFails = files.untilError >= 0;
        uint32_t slice = state.mSliceNum;
        if (failing && below(2) == 0) {
            faults.writesUntilError = static_cast<int>(below(4));
            faults.writeError = below(2) == 0 ? ENOSPC : EIO;
            files.untilRoom = static_cast<int>(below(6));
            full = full || faults.writeError == ENOSPC;
        }
        SaveResult result = save(text);
        disarm();
        there[opened] += pending.substr(0, result.moved);
        pending.erase(0, result.moved);
        EXPECT_EQ(pending.size(), ring.used());
        EXPECT_TRUE(failing || opened != root || (result.status == SaveStatus::Saved && pending.empty()));
        EXPECT_TRUE(result.status != SaveStatus::MediumFull || stepFails || storedArchiveBytes(logs) == 0);
        check(opened, full);
        byHand = byHand && slice == state.mSliceNum; // a cut looks it up
        if (!failing && opened == root && !byHand)
            checkNumbers();
    }
    /** What is stored there is the end of all text; what is missing must be. */
    void check(const std::string& place, bool full = false) {
        std::string stored = storedText(place + "/log_service"), &all = there[place];
        size_t lost = all.size() - std::min(stored.size(), all.size());
        uint64_t before = storedArchiveBytes(place + "/log_service") + 2 * uint64_t{state.mLogDeleteSize};
        ASSERT_EQ(all.compare(lost, all.npos, stored), 0) << lost << " of " << all.size();
        EXPECT_TRUE(full || lost == 0 || before + 400000 > bound()) << "deleted without need";
        all = stored;
    }
    /** The numbers say what the folders hold, and the bound is kept. */
    void checkNumbers() {
        RunTotals runs;
        ASSERT_TRUE(countRuns(logs.c_str(), &runs));
        EXPECT_EQ(state.mTotalLogSize, runs.bytes);
        bool any = runs.oldestHolding != kNoNumber; // what is empty is cleared away by a start
        EXPECT_TRUE(!any ||
                    (state.mHeadFolderNum == runs.newest && state.mTailFolderNum == runs.oldestHolding));
        EXPECT_TRUE(!any || state.mOldestFileNum == runs.oldestSection);
        EXPECT_LE(storedArchiveBytes(logs) + state.mLogSectionSize, bound());
    }
    void dropStrays() {
        const char* strays[] = {
            "c/notes=0", "c/notes@",    "c/a b.txt=0", "c/a b.txt@", "last_0=0",
            "last_0@",   "last_07/x=0", "last_07/x@",  "0/",         "c/log_7.txt.gz.new=0",
            "c/900/",    "c/901@",      "c/902t@",     "last_3=0",   "last_3@",
            "c/903/"};
        layOne(strays[below(std::size(strays))]);
        layOne("last_" + std::to_string(state.mHeadFolderNum + 1 + below(2)) + "=0");
    }
    /** Somebody takes away a section, the current run, or everything. */
    void removeByHand() {
        std::vector<std::string> found;
        std::error_code none;
        for (auto& entry : fs::recursive_directory_iterator(logs, none))
            if (entry.path().extension() == ".gz" && entry.is_regular_file())
                found.push_back(entry.path());
        unsigned what = below(4);
        if (what < 2 && !found.empty()) {
            std::string path = found[below(static_cast<unsigned>(found.size()))], text = readGzip(path);
            if (text.size() < 24)
                return; // its place is not certain
            there[root].erase(there[root].find(text), text.size());
            fs::remove(path);
        } else if (what >= 2) {
            fs::remove_all(what == 2 ? logs : logs + "/current");
            there[root] = storedText(logs);
        }
        byHand = true;
        check(root);
    }
    /** The root goes and comes back, or another one comes to its place. */
    void remount() {
        closeOpen();
        std::string gone = root + ".gone";
        fs::rename(root, gone);
        EXPECT_NE(save("").status == SaveStatus::Saved && ring.used() > 0, true) << "nowhere";
        if (below(2) == 0) {
            fs::rename(other, root);
            fs::rename(gone, other);
            there[root].swap(there[other]);
        } else {
            fs::rename(gone, root);
        }
    }
    void closeOpen() {
        if (opened != root)
            store->closeSection();
    }
    /** To a root that is taken, full or nothing to store under, or to a good one. */
    void changeRoot() {
        RootLock somebody;
        unsigned harm = below(6);
        bool taken = harm == 0 && somebody.take(other.c_str()) == RootLock::Status::Held, full = harm == 1;
        using Status = RootChangeStatus;
        Status status = taken ? Status::Taken : full || harm == 2 ? Status::NotPrepared : Status::Done;
        auto all = [&] { return state.mSavePath + four() + tree() + readFile(data()); };
        std::string before = all();
        faults.writeError = full ? ENOSPC : 0;
        const Status changed = store->changeRoot(harm == 2 ? "/proc" : other.c_str());
        faults.writeError = 0;
        if (full && changed == Status::Done)
            status = Status::Done; // all was as it had to be there, which the check below confirms
        EXPECT_EQ(changed, status);
        if (status != Status::Done) {
            EXPECT_EQ(all(), before);
            return check(other, full);
        }
        root.swap(other);
        logs = root + "/log_service";
        EXPECT_EQ(store->changeRoot(root.c_str()), Status::Unchanged);
        check(root);
        EXPECT_EQ(readFile(data()), dataText(four()));
        byHand = false;
        if (state.mLogFd < 0)
            checkNumbers();
    }
    void restart() {
        uint64_t bytes = 2000; // what the archives will add to their texts
        for (auto& entry : fs::recursive_directory_iterator(root))
            bytes += entry.is_regular_file() ? entry.file_size() : 0;
        state.mLogSectionSize = 16384U << below(4);
        state.mMaxLogSize = 1 + static_cast<int>(below(2));
        std::string text = readFile(data()), damaged = text + '#';
        damaged[below(static_cast<unsigned>(damaged.size()))] ^= static_cast<char>(1 << below(7));
        unsigned harm = below(5);
        if (harm < 3)
            fs::remove(data());
        if (harm < 2)
            writeFile(data(), harm == 0 ? damaged : earlier);
        earlier = text;
        if (below(2) == 0)
            open();
        store->beginRun(); // else the same object, with what it still knows
        bool full = below(3) == 0 && arm(12);
        ASSERT_TRUE(store->resolveRoot());
        if (!run()) {
            EXPECT_FALSE(exists(root + "/log_service.damaged"));
            disarm();
            ASSERT_TRUE(run()) << "what fails may pass";
        }
        disarm();
        EXPECT_EQ(state.mSliceNum + state.mCurLogSize + state.mCurrentTotalSize, 1u);
        check(root, full);
        checkNumbers();
    }

    std::mt19937 random;
    std::map<std::string, std::string> there; ///< by root: all text that is to be there
    std::string other = home + "/other"; ///< the root that is not in use
    std::string opened; ///< root of the open section
    std::string pending; ///< what the ring holds
    std::string earlier; ///< bookkeeping of the start before
    unsigned lines = 0;
    bool byHand = false; ///< something was removed and not looked for yet
};

} // namespace

TEST_F(StoreModelTest, RandomLifeLosesNothingButTheOldest) {
    const char* given = std::getenv("VNLOG_SEED");
    unsigned seed = given != nullptr ? static_cast<unsigned>(std::atol(given)) : std::random_device{}();
    int rounds = std::getenv("VNLOG_LONG_TESTS") != nullptr ? 2000 : VNLOG_EMULATED ? 60 : 200;
    random.seed(seed);
    makeFolder(other);
    ASSERT_TRUE(start());
    for (int round = 1; round <= rounds && !HasFailure(); ++round) {
        unsigned kind = below(46);
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round) + ", kind " +
                     std::to_string(kind));
        kind < 31   ? append(kind < 5)
        : kind < 33 ? store->closeSection()
        : kind < 35 ? dropStrays()
        : kind < 39 ? changeRoot()
        : kind < 41 ? removeByHand()
        : kind < 42 ? remount()
                    : restart();
    }
}
