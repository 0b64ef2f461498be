#include "Fixture.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/** Storage without workers: sections are saved on the test's thread. */
class StorageTest : public ServiceTest {
  protected:
    /** An object whose paths and sizes are set as after the configuration. */
    LogService& prepared() {
        configure();
        LogService& s = deferred();
        EXPECT_EQ(s.logConfigParse(cfg.c_str()), 1);
        EXPECT_EQ(s.logGetSavePath(), 0);
        makeFolder(logs + "/current");
        return s;
    }
    void numbers(uint32_t total, unsigned head, unsigned tail, unsigned oldest) {
        LogService& s = service();
        s.mTotalLogSize = total;
        s.mHeadFolderNum = head;
        s.mTailFolderNum = tail;
        s.mOldestFileNum = oldest;
    }
    std::string numbers() {
        LogService& s = service();
        return std::to_string(s.mTotalLogSize) + " " + std::to_string(s.mHeadFolderNum) + " " +
               std::to_string(s.mTailFolderNum) + " " + std::to_string(s.mOldestFileNum);
    }
    /** Puts the text into a started service's buffer and saves all of it. */
    int save(const std::string& text) {
        EXPECT_TRUE(put(text));
        return service().saveLogSection(static_cast<unsigned>(text.size()));
    }
    /** A started service whose buffer is drained by save(). */
    void startByHand() {
        start(false, false);
        service().mFlushThreadRunning = true;
    }
    void TearDown() override { // no thread is behind the flag that startByHand sets
        if (hasService())
            service().mFlushThreadRunning = false;
    }
};

} // namespace

TEST_F(StorageTest, RootIsResolvedOrReplaced) {
    LogService& s = deferred();
    EXPECT_EQ(s.logGetSavePath(), 0);
    EXPECT_TRUE(logged("Use default STORAGE_PATH: " + root + "\n"));
    EXPECT_EQ(s.mLogServiceDir, logs);
    EXPECT_EQ(s.mLastDirPrefix, logs + "/last");
    EXPECT_EQ(s.mCurrentLogFile, logs + "/current/log.txt");
    EXPECT_EQ(s.mStorageDataFile, root + "/log_storage.dat");

    makeFolder(home + "/two words");
    std::string longRoot = home + "/" + std::string(100 - home.size(), 'r');
    makeFolder(longRoot);
    for (const std::string& unusable : {home + "/none", home + "/two words", longRoot, std::string()}) {
        free(s.mSavePath);
        s.mSavePath = strdup(unusable.c_str());
        EXPECT_EQ(s.logGetSavePath(), 0);
        EXPECT_TRUE(logged("STORAGE_PATH(" + unusable + ") can not open\n"));
        EXPECT_EQ(s.mSavePath, root);
    }
    std::string longest = longRoot.substr(0, 99);
    makeFolder(longest);
    free(s.mSavePath);
    s.mSavePath = strdup(longest.c_str());
    EXPECT_EQ(s.logGetSavePath(), 0);
    EXPECT_EQ(s.mCurrentLogFile, longest + "/log_service/current/log.txt");
}

TEST_F(StorageTest, BookkeepingFileIsWrittenAndReadBack) {
    LogService& s = prepared();
    numbers(5242880, 3, 2, 17);
    ASSERT_EQ(s.logStorageDataSave(), 0);
    EXPECT_EQ(storageData(),
              "TOTAL_LOG_SIZE=5242880\nHEAD_FOLDER_NUM=3\nTAIL_FOLDER_NUM=2\nOLDEST_FILE_NUM=17\n");
    struct stat info;
    ASSERT_EQ(stat(s.mStorageDataFile, &info), 0);
    EXPECT_EQ(info.st_mode & 0333, 0111u);
    numbers(0, 0, 0, 1);
    ASSERT_EQ(s.logStorageDataParse(), 1);
    EXPECT_EQ(numbers(), "5242880 3 2 17");
    numbers(1, 1, 1, 1);
    EXPECT_EQ(s.logStorageDataSave(), 0) << "also over a read-only file, as an ordinary user";

    fs::remove(s.mStorageDataFile);
    writeFile(s.mStorageDataFile, "#HEAD_FOLDER_NUM=9\n\nOLDEST_FILE_NUM=0\nTAIL_FOLDER_NUM=4\n"
                                  "TOTAL_LOG_SIZE=6\nHEAD_FOLDER_NUM=5\nHEAD_FOLDER_NUM=8\n");
    EXPECT_EQ(s.logStorageDataParse(), -1) << "the oldest number is at least 1";
    EXPECT_EQ(numbers(), "6 5 4 1") << "what came before it is taken over";
    EXPECT_TRUE(logged("fail to parse " + root + "/log_storage.dat,(OLDEST_FILE_NUM) not found\n"));
    setStorageData(1000000000, 1, 1, 1);
    EXPECT_EQ(s.logStorageDataParse(), -1);
    fs::remove(s.mStorageDataFile);
    EXPECT_EQ(s.logStorageDataParse(), -1);
    EXPECT_TRUE(logged("[logStorageDataParse] fail to open storage data file !\n"));
    makeFolder(s.mStorageDataFile);
    EXPECT_EQ(s.logStorageDataSave(), -1);
}

TEST_F(StorageTest, BatchesAreCutAtTheSectionSize) {
    configure();
    startByHand();
    std::string a = noise(60000, 1), b = noise(40000, 2), c = noise(31072, 3), d = noise(131072, 4),
                e = noise(10, 5);
    ASSERT_EQ(save(a), 0);
    ASSERT_EQ(save(b), 0);
    EXPECT_EQ(readGzip(section("current", 1)), a + b.substr(0, 5536));
    EXPECT_EQ(service().mSliceNum, 2u);
    EXPECT_EQ(service().mCurLogSize, 34464u);
    ASSERT_EQ(save(c), 0);
    EXPECT_EQ(service().mCurLogSize, 65536u) << "an exact fill is not cut yet";
    ASSERT_EQ(save(d), 0);
    EXPECT_EQ(service().mCurLogSize, 131072u) << "more than a section, cut by the next batch";
    ASSERT_EQ(save(e), 0);
    EXPECT_EQ(readGzip(section("current", 3)), d + e);
    EXPECT_EQ(service().mCurLogSize, 0u);
    EXPECT_EQ(service().mCurrentTotalSize, storedBytes());
    EXPECT_TRUE(stored() == a + b + c + d + e);
}

TEST_F(StorageTest, CutFailuresKeepTheText) {
    configure();
    startByHand();
    ASSERT_EQ(save(noise(60000, 1)), 0);
    fs::remove(section("current", 1, ".txt")); // what a change of the root amounts to
    EXPECT_EQ(save(noise(6000, 2)), -1);
    EXPECT_TRUE(logged("fail to Compress log files 1 log!\n"));
    EXPECT_EQ(service().mLogFd, -1);
    EXPECT_EQ(service().mSliceNum, 1u);
    EXPECT_EQ(service().bufferedBytes(), 464u) << "the part behind the cut stays in the buffer";
    fs::remove_all(logs + "/current");
    EXPECT_EQ(service().saveLogSection(464), -1);
    EXPECT_TRUE(logged("fail to save log,because fd is abnormal\n"));
    makeFolder(logs + "/current");
    writeFile(section("current", 1, ".txt"), "earlier ");
    EXPECT_EQ(service().saveLogSection(464), 0);
    EXPECT_EQ(service().mCurLogSize, 472u) << "an existing file is continued";
}

TEST_F(StorageTest, BoundIsKeptAtTheLastByte) {
    configure({{"MAX_LOG_SIZE", "10"}});
    startByHand();
    for (uint32_t excess : {0u, 1u}) {
        ASSERT_EQ(save(noise(65536 - service().mCurLogSize, 1)), 0);
        makeSectionOfSize("last_1", 1, 1000);
        makeSectionOfSize("last_1", 2, 1000);
        uint32_t size =
            static_cast<uint32_t>(runCommand("gzip -c " + section("current", 1 + excess, ".txt")).size());
        service().mCurrentTotalSize = 5000000 - size;
        numbers(10420224 - 5000000 + excess, 1, 1, 1);
        ASSERT_EQ(save("next"), 0);
        EXPECT_EQ(exists(section("last_1", 1)), excess == 0);
        service().mTotalLogSize = 0;
    }
}

TEST_F(StorageTest, OldestNumberFollowsWhenEverythingOlderIsGone) {
    configure();
    startByHand();
    ASSERT_EQ(save(noise(65537, 1)), 0);
    EXPECT_EQ(service().mOldestFileNum, 1u);
    ASSERT_EQ(service().deleteLogSection(), 0);
    EXPECT_EQ(service().mOldestFileNum, 1u) << "still names the one removed last";
    EXPECT_EQ(service().mCurrentTotalSize, 0u);
    ASSERT_EQ(save(noise(65536, 2)), 0);
    EXPECT_EQ(service().mOldestFileNum, 2u);
    EXPECT_NE(storageData().find("OLDEST_FILE_NUM=2\n"), std::string::npos);
}

TEST_F(StorageTest, DeletionWalksThroughTheArchivedRuns) {
    LogService& s = prepared();
    for (unsigned k : {7, 8})
        makeSectionOfSize("last_3", k, 40000);
    makeSectionOfSize("last_5", 1, 70000);
    makeFolder(logs + "/last_4");
    numbers(150000, 5, 3, 7);
    EXPECT_EQ(s.deleteLogSection(), 0);
    EXPECT_EQ(numbers(), "70000 5 4 1");
    EXPECT_FALSE(exists(logs + "/last_3"));
    EXPECT_EQ(s.deleteLogSection(), -1) << "last_4 is empty";
    EXPECT_TRUE(logged("[" + section("last_4", 1) + "] The file does not exist.\n"));
    numbers(70000, 5, 5, 1);
    EXPECT_EQ(s.deleteLogSection(), 0) << "one section is enough when it is larger than the least amount";
    EXPECT_EQ(numbers(), "0 5 5 1");
    EXPECT_EQ(storageData(), "TOTAL_LOG_SIZE=0\nHEAD_FOLDER_NUM=5\nTAIL_FOLDER_NUM=5\nOLDEST_FILE_NUM=1\n");
}

TEST_F(StorageTest, DeletionFailuresHaveTheirCodes) {
    LogService& s = prepared();
    auto withStray = [&](unsigned head) {
        makeSectionOfSize("last_3", 7, 100);
        writeFile(logs + "/last_3/notes.txt", "notes");
        numbers(105, head, 3, 7);
    };
    withStray(5);
    EXPECT_EQ(s.deleteLogSection(), -4);
    EXPECT_TRUE(logged("[" + logs + "/last_3] Not empty!\n"));
    EXPECT_FALSE(exists(logs + "/last_3"));
    withStray(3);
    EXPECT_EQ(s.deleteLogSection(), -8);
    makeSectionOfSize("last_3", 8, 100);
    EXPECT_EQ(s.deleteLogSection(), -5) << "the oldest one is missing";
    numbers(100, 2, 2, 1);
    EXPECT_EQ(s.deleteLogSection(), -9);
    numbers(0, 2, 2, 1);
    EXPECT_EQ(s.deleteLogSection(), -10);
    numbers(0, 2, 3, 1);
    EXPECT_EQ(s.deleteLogSection(), -13);
    makeSectionOfSize("current", 1, 100);
    makeSectionOfSize("current", 2, 100);
    s.mSliceNum = 3;
    numbers(0, 0, 0, 1);
    fs::remove(s.mStorageDataFile);
    makeFolder(s.mStorageDataFile);
    EXPECT_EQ(s.deleteLogSection(), -12);
    EXPECT_TRUE(logged("[deleteLogSection] storage data failed to save !\n"));
    EXPECT_EQ(s.deleteAllLog(), -1);
    fs::remove(s.mStorageDataFile);
    EXPECT_EQ(s.deleteAllLog(), 0);
    EXPECT_EQ(runCommand("ls -A " + logs), "current\n");
    EXPECT_EQ(storageData(), "TOTAL_LOG_SIZE=0\nHEAD_FOLDER_NUM=0\nTAIL_FOLDER_NUM=0\nOLDEST_FILE_NUM=1\n");
}

/** The life of a store of one MiB over three runs; each section is given a fixed compressed size. */
TEST_F(StorageTest, ThreeRuns) {
    configure();
    startByHand();
    // Cuts the next section; keepBound runs with the size that it is given.
    auto cut = [&](size_t size = 16384) {
        LogService& s = service();
        unsigned number = s.mSliceNum;
        EXPECT_EQ(save(std::string(65536 - s.mCurLogSize, 'x')), 0);
        // gzip finds the section shrunk to random bytes that fill a little less than the wanted size
        writeFile(section("current", number, ".txt"),
                  noise(size - 32 - (section("", number, ".txt").size() - logs.size() - 2), number));
        size_t before = runCommand("gzip -c " + section("current", number, ".txt")).size();
        writeFile(section("current", number, ".txt"),
                  noise(size - 32 - (section("", number, ".txt").size() - logs.size() - 2) + size - before,
                        number));
        EXPECT_EQ(save("x"), 0);
        s.mCurLogSize = 0;
        EXPECT_EQ(truncate(section("current", number + 1, ".txt").c_str(), 0), 0);
        EXPECT_EQ(lseek(s.mLogFd, 0, SEEK_SET), 0);
    };
    auto endRun = [&] {
        unsigned number = service().mSliceNum;
        service().mFlushThreadRunning = false;
        stop();
        fs::remove(section("current", number, ".txt"));
        std::string text = noise(4900, number);
        do
            text += noise(1, static_cast<unsigned>(text.size()));
        while (writeFile(section("current", number, ".txt"), text),
               runCommand("gzip -c " + section("current", number, ".txt")).size() < 5000);
    };
    for (int k = 1; k <= 8; ++k)
        cut();
    EXPECT_EQ(service().mCurrentTotalSize, 131072u);
    endRun();
    startByHand();
    EXPECT_EQ(storageData(),
              "TOTAL_LOG_SIZE=136072\nHEAD_FOLDER_NUM=1\nTAIL_FOLDER_NUM=1\nOLDEST_FILE_NUM=1\n");
    for (int k = 1; k <= 51; ++k)
        cut();
    EXPECT_EQ(numbers(), "136072 1 1 1");
    cut();
    EXPECT_EQ(numbers(), "70536 1 1 5") << "the cut of section 52";
    for (int k = 53; k <= 56; ++k)
        cut();
    EXPECT_EQ(numbers(), "5000 1 1 9") << "the cut of section 56";
    for (int k = 57; k <= 60; ++k)
        cut();
    EXPECT_EQ(numbers(), "0 1 1 5") << "the cut of section 60";
    EXPECT_EQ(service().mCurrentTotalSize, 917504u);
    EXPECT_FALSE(exists(logs + "/last_1"));
    endRun();
    startByHand();
    EXPECT_EQ(storageData(),
              "TOTAL_LOG_SIZE=922504\nHEAD_FOLDER_NUM=2\nTAIL_FOLDER_NUM=2\nOLDEST_FILE_NUM=5\n");
    for (int k = 1; k <= 4; ++k)
        cut();
    EXPECT_EQ(numbers(), "856968 2 2 9");
    EXPECT_FALSE(exists(section("last_2", 8)));
    EXPECT_TRUE(exists(section("last_2", 9)));
}

TEST_F(StorageTest, StartClosesThePreviousRunOff) {
    configure();
    makeSection("current", 1, "one ");
    makeSection("current", 2, "two ");
    writeFile(section("current", 3, ".txt"), "three");
    writeFile(section("current", 3), "cut off in the middle");
    setStorageData(0, 0, 0, 1);
    start(false, false);
    EXPECT_TRUE(logged("LogService/3: [" + section("current", 3) + "] exists and needs to be deleted\n"));
    EXPECT_EQ(runCommand("ls -A " + logs + "/last_1"), "log_1.txt.gz\nlog_2.txt.gz\nlog_3.txt.gz\n");
    EXPECT_EQ(stored(), "one two three");
    EXPECT_EQ(numbers(), std::to_string(storedBytes()) + " 1 1 1");
    EXPECT_EQ(runCommand("ls -A " + logs + "/current"), "");
    stop();
    start(false, false);
    EXPECT_EQ(service().mHeadFolderNum, 1u) << "an empty folder is used again";
}

TEST_F(StorageTest, TakenFolderNumbersAreStepped) {
    configure();
    for (const char* run : {"last_1", "last_2", "last_3"})
        makeSection(run, 1, run);
    makeSection("current", 1, "current");
    setStorageData(static_cast<uint32_t>(storedBytes()), 2, 1, 1);
    start(false, false);
    EXPECT_TRUE(logged("backup dest folder(" + logs + "/last_3) exists, try a new folder !\n"));
    EXPECT_TRUE(logged("Try to fix the log data ,try (10) times \n"));
    EXPECT_EQ(readGzip(section("last_4", 1)), "current");
    EXPECT_EQ(numbers(), std::to_string(storedBytes()) + " 4 1 1");
}

TEST_F(StorageTest, StraysDoNotHarmTheStore) {
    configure();
    makeSection("last_1", 1, "kept ");
    makeFolder(logs + "/last_0");
    writeFile(logs + "/last_2", "a file");
    writeFile(logs + "/last_x", "a file");
    makeFolder(logs + "/last_4x");
    makeSection("current", 1, "current");
    writeFile(logs + "/current/a b$(touch " + "x).txt", "stray");
    makeFolder(logs + "/current/folder.txt");
    writeFile(root + "/log_storage.dat", "damaged");
    start(false, false);
    EXPECT_EQ(stored(), "kept current");
    EXPECT_EQ(service().mHeadFolderNum, 3u);
    EXPECT_FALSE(logged("delete all the logs"));
}

TEST_F(StorageTest, RepairReadsTheNamesOnDisk) {
    LogService& s = prepared();
    for (auto [run, number] : {std::pair{"last_5", 3}, {"last_5", 4}, {"last_9", 1}, {"last_7", 2}})
        makeSectionOfSize(run, static_cast<unsigned>(number), 100);
    writeFile(logs + "/last_4", "a file");
    makeFolder(logs + "/last_3x");
    EXPECT_EQ(s.repairLogDatFile(), 0);
    EXPECT_EQ(numbers(), "400 9 5 3");
    EXPECT_EQ(storageData(), "TOTAL_LOG_SIZE=400\nHEAD_FOLDER_NUM=9\nTAIL_FOLDER_NUM=5\nOLDEST_FILE_NUM=3\n");
    s.deleteAllLog();
    EXPECT_EQ(s.repairLogDatFile(), 0) << "an empty current folder";
    EXPECT_EQ(numbers(), "0 0 0 1");
    makeSectionOfSize("current", 6, 100);
    writeFile(section("current", 8, ".txt"), "active");
    EXPECT_EQ(s.repairLogDatFile(), 0);
    EXPECT_EQ(numbers(), "0 0 0 6");
    fs::remove(section("current", 6));
    EXPECT_EQ(s.repairLogDatFile(), -4);
    EXPECT_EQ(numbers(), "0 0 0 6") << "a failed repair changes nothing";
    fs::remove_all(logs);
    EXPECT_EQ(s.repairLogDatFile(), -2);
}

TEST_F(StorageTest, InterruptedStepsAreMendedByTheNextStart) {
    struct Trace {
        const char* what;
        uint32_t missing; // of the saved total
        unsigned head, tail, oldest;
        std::function<void()> leave;
    };
    auto full = [&] {
        makeSection("last_1", 4, "one ");
        makeSection("last_2", 1, "two ");
        writeFile(section("current", 1, ".txt"), "three");
    };
    const Trace traces[] = {
        {"a section deleted, the numbers not saved", 0, 2, 1, 3, [] {}},
        {"the last section of a run deleted, its folder not", 0, 2, 0, 9,
         [&] { makeFolder(logs + "/last_0"); }},
        {"the run moved aside, nothing else done", 24, 1, 1, 4, [&] { fs::remove_all(logs + "/current"); }},
        {"moved and trimmed, the moved run not counted", 24, 2, 1, 4,
         [&] { fs::remove(section("current", 1, ".txt")); }},
        {"the first section of a run under way", 0, 2, 1, 4,
         [&] { fs::remove(root + "/log_storage.dat"), writeFile(root + "/log_storage.dat", ""); }},
    };
    for (const Trace& trace : traces) {
        fs::remove_all(logs);
        configure();
        full();
        fs::remove(root + "/log_storage.dat");
        setStorageData(static_cast<uint32_t>(storedBytes()) - trace.missing, trace.head, trace.tail,
                       trace.oldest);
        trace.leave();
        std::string text = stored();
        start(false, false);
        EXPECT_TRUE(stored() == text) << trace.what;
        EXPECT_EQ(service().mTotalLogSize, storedBytes()) << trace.what;
        service().mLogDeleteSize = 1;
        EXPECT_EQ(service().deleteLogSection(), 0) << trace.what;
        EXPECT_EQ(service().mTotalLogSize, storedBytes()) << trace.what;
        stop();
    }
    fs::remove_all(logs); // nothing that could be counted yet
    writeFile(section("current", 1, ".txt"), "first run");
    fs::remove(root + "/log_storage.dat");
    writeFile(root + "/log_storage.dat", "TOTAL_");
    start(false, false);
    EXPECT_EQ(stored(), "first run");
}

TEST_F(StorageTest, TotalsThatContradictTheDiskDeleteNothing) {
    configure();
    for (unsigned k = 1; k <= 6; ++k)
        makeSectionOfSize("last_1", k, 50000);
    makeFolder(logs + "/last_007"); // no name of ours
    for (uint32_t total : {0u, 20000000u, 999999999u}) {
        fs::remove(root + "/log_storage.dat");
        setStorageData(total, 1, 1, 1);
        start(false, false);
        EXPECT_EQ(service().mTotalLogSize, 300000u);
        EXPECT_EQ(storedBytes(), 300000u);
        stop();
    }
    writeFile(root + "/log_storage.dat", "damaged");
    start(false, false);
    EXPECT_EQ(numbers(), "300000 1 1 1");
}

TEST_F(StorageTest, BoundHoldsUnderTheLongestRoot) {
    root = home + "/" + std::string(98 - home.size(), 'r');
    logs = root + "/log_service";
    makeFolder(root);
    configure();
    for (int run = 1; run <= 5; ++run) {
        writeFile(section("current", 1, ".txt"), noise(300000, static_cast<unsigned>(run)));
        start(false, false);
        EXPECT_EQ(service().mTotalLogSize, storedBytes());
        stop();
    }
    EXPECT_LE(storedBytes() + 65536, 1048576u);
    EXPECT_GT(storedBytes(), 600000u);
}

TEST_F(StorageTest, RunsWithoutASectionDoNotBlockTheStart) {
    configure();
    writeFile(logs + "/last_1/notes", "foreign");
    writeFile(logs + "/last_2/log.txt", "older form ");
    makeSection("last_3", 1, "kept");
    writeFile(root + "/log_storage.dat", "");
    start(false, false);
    EXPECT_EQ(stored(), "older form kept");
    EXPECT_EQ(service().mTailFolderNum, 2u);
    EXPECT_EQ(readFile(logs + "/last_1.stray/notes"), "foreign");
    stop();
    fs::remove_all(logs);
    writeFile(logs + "/current/notes", "nothing that could be counted");
    fs::remove(root + "/log_storage.dat");
    writeFile(root + "/log_storage.dat", "");
    start(false, false);
    EXPECT_EQ(service().mHeadFolderNum, 1u);
}

TEST_F(StorageTest, CutThatCannotBeEndedStopsTheGrowth) {
    configure();
    startByHand();
    ASSERT_EQ(save(noise(60000, 1)), 0);
    makeSectionOfSize("last_1", 1, 1000000);
    numbers(1000000, 1, 1, 1);
    fs::remove(root + "/log_storage.dat");
    makeFolder(root + "/log_storage.dat"); // no deletion can be recorded
    EXPECT_EQ(save(noise(60000, 2)), -1);
    EXPECT_TRUE(logged("[saveLogSection] Fatal error log storage file information is completely damaged\n"));
    uint32_t buffered = service().bufferedBytes();
    makeSectionOfSize("last_1", 1, 1000000);
    numbers(1000000, 1, 1, 1);
    EXPECT_EQ(service().saveLogSection(buffered), -1);
    EXPECT_EQ(service().bufferedBytes(), buffered) << "nothing more is written past the bound";
    fs::remove(root + "/log_storage.dat");
    EXPECT_EQ(service().saveLogSection(buffered), 0);
    EXPECT_EQ(service().bufferedBytes(), 0u);
}

TEST_F(StorageTest, SectionsSurviveAHostThatIgnoresItsChildren) {
    configure();
    startByHand();
    std::signal(SIGCHLD, SIG_IGN); // no result of gzip is to be had
    std::string a = noise(70000, 1), b = noise(70000, 2);
    EXPECT_EQ(save(a) + save(b), 0);
    EXPECT_TRUE(stored() == a + b);
    service().mFlushThreadRunning = false;
    stop();
    start(false, false);
    EXPECT_TRUE(stored() == a + b);
    std::signal(SIGCHLD, SIG_DFL);
}

TEST_F(StorageTest, MissingBookkeepingIsRebuiltOrEverythingDeleted) {
    configure();
    makeSection("last_1", 1, "kept");
    start(false, false);
    EXPECT_EQ(stored(), "kept");
    EXPECT_TRUE(logged("[" + root + "/log_storage.dat] the stored data does not exist!\n"));
    stop();
    fs::remove(root + "/log_storage.dat");
    writeFile(logs + "/current/log.txt", "of an older form");
    start(false, false);
    EXPECT_TRUE(logged("LogService/6: Try to delete all the logs\n"));
    EXPECT_EQ(stored(), "");
}

TEST_F(StorageTest, NewRootIsPrepared) {
    LogService& s = prepared();
    fs::remove_all(logs);
    EXPECT_EQ(s.initLogStorage(), 0);
    EXPECT_TRUE(exists(logs + "/current"));
    makeSectionOfSize("current", 1, 1000000);
    makeSectionOfSize("last_1", 1, 100);
    EXPECT_EQ(s.initLogStorage(), 0);
    EXPECT_TRUE(exists(section("last_2", 1)));
    EXPECT_EQ(numbers(), "1000000 2 2 1");
    makeSectionOfSize("current", 1, 100000);
    EXPECT_EQ(s.initLogStorage(), 0) << "the older run is trimmed away whole";
    EXPECT_EQ(numbers(), "100000 3 3 1");
    EXPECT_FALSE(exists(logs + "/last_2"));
    makeSectionOfSize("current", 1, 2000000);
    s.mTotalLogSize = 0;
    EXPECT_EQ(s.initLogStorage(), 0);
    EXPECT_EQ(s.mHeadFolderNum, 4u);
    fs::remove_all(logs);
    writeFile(logs, "a file");
    EXPECT_EQ(s.initLogStorage(), -4);
}
