// SPDX-License-Identifier: Apache-2.0

#include "Fixture.h"
#include "binder/Command.h"

using namespace vnlog;

namespace {

/** Holds each command back, before it takes the command lock, until the test lets all go. */
struct HeldService : LogService {
    using LogService::LogService;
    int logCMD(int code, const char* param) override {
        EXPECT_TRUE(++held > 0 && eventually([&] { return go.load(); }));
        return LogService::logCMD(code, param);
    }
    std::atomic<int> held{0};
    std::atomic<bool> go{false};
};

/** The sets of workers: bit 0 is the flush thread, bit 1 the kernel reader, bit 2 the Android reader. */
constexpr bool kSets[8][3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0},
                              {0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 1}};

std::string threadNames() {
    return ::runCommand("cat /proc/" + std::to_string(getpid()) + "/task/*/comm 2>&1");
}

unsigned threads() {
    std::string names = threadNames();
    auto has = [&](const char* name) { return names.find(name) == std::string::npos ? 0U : 1U; };
    return has("logBufFlush\n") + 2 * has("kernelLogReader\n") + 4 * has("logcat\n");
}

class LifecycleTest : public ServiceTest {
  protected:
    /** Exactly these workers run, and their flags, the ring and the storing of records fit that. */
    static void expectRunning(LogService& service, unsigned workers, bool started, bool ring) {
        const bool* flags = kSets[workers];
        EXPECT_TRUE(service.mKLogThreadRunning == flags[1] && service.mLogcatThreadRunning == flags[2]);
        EXPECT_TRUE(service.mServiceStarted == started && (service.mLogBuf != nullptr) == ring);
        EXPECT_EQ(service.logBufWrite("x", 1), flags[0] ? 1 : -1);
        EXPECT_TRUE(eventually([&] { return threads() == workers; })) << threads() << " for " << workers;
    }
    std::string status() {
        std::string answer;
        EXPECT_EQ(service().logQuery(CMD_STATUS, "", &answer), 0);
        return answer;
    }
    /** From here on nothing is free on the medium, nothing is there to be deleted, and the ring is full. */
    static void fill(LogService& service) {
        faults.freeBytes = 0;
        faults.writeError = ENOSPC;
        faults.sectionsOnly = true;
        std::string lines;
        while (lines.size() < kLogBufSize)
            lines += "0123456789abcde\n";
        ASSERT_EQ(service.logBufWrite(lines.data(), kLogBufSize), 131072);
    }
};

} // namespace

TEST_F(LifecycleTest, EverySetOfWorkersStartsAndStopsInParts) {
    plugDevices();
    configure();
    EXPECT_EQ(deferred().serviceStop(kSets[7]), -1);
    for (unsigned row = 0; row < 64; ++row) {
        unsigned started = row % 8, stopped = row / 8, left = started & ~stopped;
        SCOPED_TRACE(std::to_string(started) + " without " + std::to_string(stopped));
        ASSERT_EQ(service().serviceStart(kSets[started]), 0);
        EXPECT_EQ(service().serviceStart(kSets[7]), -1) << "a started service stays as it is";
        expectRunning(service(), started, true, true);
        EXPECT_EQ(service().serviceStop(kSets[stopped]), 0);
        expectRunning(service(), left, left != 0, (left & 1) != 0);
        EXPECT_EQ(service().logCMD(CMD_FLUSH, ""), left != 0 ? 0 : -1);
        EXPECT_EQ(service().serviceStop(kSets[7]), left != 0 ? 0 : -1);
        expectRunning(service(), 0, false, false);
    }
}

TEST_F(LifecycleTest, FailedStartReleasesWhatItMadeAndTheNextOneWorks) {
    const std::function<void()> obstacles[] = {
        [] { faults.threadsUntilError = 0; },
        [] { faults.threadsUntilError = 1; },
        [] { faults.threadsUntilError = 2; },
        [] { faults.semaphoresUntilError = 1; },
        [] { faults.failAllocationsFrom = kLogBufSize; },
        [&] { setenv("VNLOG_SYSROOT", (home + std::string(84, 'x')).c_str(), 1); },
    };
    configure();
    deferred();
    int before = openDescriptors();
    for (auto& obstruct : obstacles) {
        SCOPED_TRACE(&obstruct - obstacles);
        obstruct();
        EXPECT_EQ(service().serviceStart(kSets[7]), -1);
        expectRunning(service(), 0, false, false);
        EXPECT_EQ(openDescriptors(), before);
        faults.disarm();
        setenv("VNLOG_SYSROOT", home.c_str(), 1);
        ASSERT_EQ(service().serviceStart(kSets[7]), 0);
        EXPECT_EQ(service().serviceStop(kSets[7]), 0);
    }
}

TEST_F(LifecycleTest, TwoWritersAndASlowMediumLoseAndMixNothing) {
    configure("MAX_LOG_SIZE=64");
    faults.writeDelayUs = 2000;
    start(true, false);
    auto line = [](char c, int i) { return c + std::to_string(i) + std::string(i * 7919U % 40000, c); };
    auto write = [&](char name) {
        for (int i = 0; i < 400; ++i)
            EXPECT_TRUE(put(line(name, i) + "\n"));
    };
    std::thread other(write, 'a');
    write('b');
    other.join();
    ASSERT_TRUE(flush());
    std::map<char, int> next;
    std::istringstream lines(stored());
    for (std::string found; std::getline(lines, found);)
        ASSERT_TRUE(found == line(found[0], next[found[0]]++)) << found.substr(0, 9);
    EXPECT_EQ(next, (std::map<char, int>{{'a', 400}, {'b', 400}}));
}

TEST_F(LifecycleTest, StopStoresWhatIsThereForTheReadersAndASecondOneWaitsForIt) {
    catchConsole();
    plugDevices();
    configure();
    start(true, true, true);
    faults.writeDelayUs = 20000; // so that most of it is still on its way
    std::string kernel;
    ASSERT_TRUE(put(std::string(100000, 'p') + "\n"));
    for (int i = 0; i < 12; ++i)
        entry("system", 100 + i, 0, 4, "tag", std::to_string(i) + std::string(3000, 'a'));
    for (int i = 0; i < 600; ++i)
        kernel += "<3>kernel's " + std::to_string(i) + std::string(80, 'k') + "\n";
    feed(kernel);
    int first = 0, second = 0;
    std::thread other([&] { second = service().serviceStop(kSets[7]); });
    first = service().serviceStop(kSets[7]);
    other.join();
    EXPECT_EQ(first + second, -1);
    auto finds = [all = stored()](const std::string& text) { return all.find(text) < all.size(); };
    for (int i = 0; i < 600; ++i)
        ASSERT_TRUE(finds("\nkernel's " + std::to_string(i) + "k") &&
                    (i >= 12 || finds(": " + std::to_string(i) + "a")))
            << i;
    EXPECT_FALSE(logged("_cleanup ") || logged("dropped by the stop")) << "no reader was cancelled";
}

TEST_F(LifecycleTest, FullStorageStopsTheStoringAlsoWhenTheHostStopsMeanwhile) {
    catchConsole();
    for (int round = 0; round < 24; ++round) {
        configure();
        android::sp<HeldService> service = new HeldService(LogService::DeferStart{});
        ASSERT_EQ(service->serviceStart(kSets[3]), 0);
        fill(*service);
        feed("<3>has no space\n");
        std::thread writer([&] { EXPECT_EQ(service->logBufWrite("nor has this", 12), -1); });
        // Mostly the host comes before the command, sometimes after all, sometimes at any moment.
        EXPECT_TRUE(round % 4 == 0 || eventually([&] { return service->held == 1; }));
        service->go = true;
        if (round % 4 == 1) {
            EXPECT_TRUE(eventually([&] { return threads() == 2; }));
            EXPECT_NE(readFile(cfg).find("STORAGE_FULL=y\n"), std::string::npos);
        }
        EXPECT_EQ(service->serviceStop(kSets[7]), 0);
        writer.join();
        expectRunning(*service, 0, false, false);
        faults.disarm();
    }
}

TEST_F(LifecycleTest, StoringComesBackWithRoomAndItsFirstLineTellsWhatWasLost) {
    catchConsole();
    plugDevices();
    for (bool switchedOff : {false, true}) {
        configure("UART_OUTPUT=y\nALOG_LEVEL=v");
        start(true, true, true);
        auto losesFour = [&] { // of these five
            feed("<3>one\n<3>two\n");
            int before = faults.reads;
            EXPECT_TRUE(eventually([&] { return faults.reads >= before + 2; }));
            const size_t shown = console().size();
            for (int priority : {3, 4, 2}) // the last one is not stored in any case
                entry("main", 1, 0, static_cast<char>(priority), "tag", "text");
            EXPECT_TRUE(eventually([&] { return console().find("V/tag", shown) != std::string::npos; }));
        };
        faults.skipPauses = true;
        fill(service());
        EXPECT_FALSE(put("has no space\n"));
        losesFour();
        faults.freeBytes = 131071;
        EXPECT_EQ(service().logCMD(CMD_NAND_FILE_OUTPUT, "y"), -1);
        EXPECT_TRUE(logged("space (0),need space (131072)\n")) << "at giving up";
        EXPECT_TRUE(logged("space (131071),need space (131072)\n")) << "for the command";
        EXPECT_FALSE(service().mKLogToFile || service().mALogToFile || service().mFlushThreadRunning);
        EXPECT_TRUE(service().mStorageFull);
        if (switchedOff) {
            EXPECT_EQ(service().logCMD(CMD_NAND_FILE_OUTPUT, "n"), 0);
            EXPECT_TRUE(eventually([] { return threadNames().find("comeback") == std::string::npos; }));
            EXPECT_NE(readFile(cfg).find("STORAGE_FULL=n\n"), std::string::npos);
            losesFour();
        }
        faults.writeError = 0;
        faults.freeBytes = 131072;
        EXPECT_TRUE(!switchedOff || service().logCMD(CMD_NAND_FILE_OUTPUT, "y") == 0);
        EXPECT_TRUE(eventually([&] { return readFile(cfg).find("\nNAND_FILE_OUTPUT=y\n") < 99; }));
        EXPECT_TRUE(service().mFlushThreadRunning && !service().mStorageFull && service().mALogToFile);
        feed("<3>again\n");
        EXPECT_EQ(service().clearAndroidLog(), 0) << "the next run is not to find it again";
        stop();
        const std::string run = "--------- 8197 lines lost here: the storage was full\nagain\n";
        EXPECT_EQ(stored(), run) << "what was stored before has made room";
        faults.disarm();
    }
    configure("STORAGE_FULL=y\nNAND_FILE_OUTPUT=n"); // of a run that ended before there was room
    start(true, false);
    stop();
    EXPECT_NE(stored().find("\n--------- lines lost here: the storage was full until the restart\n"),
              std::string::npos);
}

/** Not prepared, not written to, or configured and missing, with the default one there and not. */
TEST_F(LifecycleTest, StorageThatCannotBeUsedAtTheStartIsUsedOnceItCan) {
    const std::string stick = home + "/stick", text(70000, 'x');
    for (int harm = 0; harm < 4; ++harm) {
        const bool blocked = harm == 0 || harm == 3, missing = harm > 1, early = harm == 2;
        const std::string line = "STORAGE_PATH=" + (missing ? stick : root) + "\n";
        configure(line);
        for (const std::string& found : {logs, root + "/log_storage.dat", stick})
            fs::remove_all(found);
        faults.writesUntilError = 2; // console level and list of runs
        faults.writeError = harm == 1 ? EIO : 0;
        if (blocked)
            writeFile(logs, "in the way");
        faults.skipPauses = true;
        start(true, true, false);
        EXPECT_TRUE(service().mFlushThreadRunning == early && service().mKLogThreadRunning == early);
        EXPECT_TRUE(eventually([] { return faults.pauses().size() > 2; }));
        EXPECT_TRUE(!early || (put("early\n") && flush()));
        EXPECT_EQ(service().logCMD(CMD_STORAGE_PATH, "/proc"), -1) << "which changes nothing";
        EXPECT_LT(readFile(cfg).find(line), 200U);
        faults.writeError = 0;
        if (missing)
            makeFolder(stick);
        else if (blocked)
            fs::remove(logs);
        EXPECT_TRUE(!missing ||
                    eventually([&] { return loggedTimes("stick] can be used now") == harm - 1; }));
        ASSERT_TRUE(eventually([&] { return service().mKLogThreadRunning.load(); }) && put(text));
        stop();
        const std::string moved = storedText(stick + "/log_service");
        EXPECT_TRUE(stored() + moved == (early ? "early\n" : "") + text && moved.empty() == !missing);
        EXPECT_LT(readFile(cfg).find(line), 200U);
        faults.disarm();
    }
}

TEST_F(LifecycleTest, SlowMediumHoldsUpNobodyButTheWriterOfAFullRing) {
    configure();
    start(true, false, false);
    faults.recordCalls(true);
    faults.archivesWait = true;
    const std::string line = std::string(32767, 'x') + "\n";
    std::string expected;
    auto putOne = [&] { return put(line) ? expected += line, true : false; };
    auto cutting = [] { return !faults.calls().empty(); };
    while (!cutting())
        ASSERT_TRUE(putOne() &&
                    eventually([&] { return cutting() || service().bufferedBytes() <= line.size(); }));
    while (service().bufferedBytes() + line.size() <= kLogBufSize)
        ASSERT_TRUE(putOne());
    std::thread writer([&] { EXPECT_TRUE(putOne()); });
    EXPECT_TRUE(eventually([&] { return logged("not enough log buffer for 32768 byte, free size"); }));
    for (auto [code, parameter] : {std::pair(CMD_FLUSH, ""),
                                   {CMD_KLOG_LEVEL, "5"},
                                   {CMD_ALOG_LEVEL, "e"},
                                   {CMD_SHOW, ""},
                                   {CMD_FLUSH_SWITCH, "y"}})
        EXPECT_EQ(service().logCMD(code, parameter), 0) << code;
    EXPECT_NE(status().find("\nstorage.busy=y\n"), std::string::npos) << "and is not waited for";
    EXPECT_EQ(faults.calls()[0], "fsync log_1.txt.gz.new") << "which still lasts";
    faults.archivesWait = false;
    writer.join();
    stop();
    EXPECT_EQ(stored(), expected);
}

TEST_F(LifecycleTest, LastWordsOfTheKernelAreKeptUntilTheyAreOnTheMedium) {
    const std::string words = home + "/sys/fs/pstore/dmesg-ramoops-0";
    const std::string line =
        "--------- the last words of the kernel, kept in /sys/fs/pstore/dmesg-ramoops-0\n";
    configure("KLOG_PSTORE=n");
    writeFile(words, "<0>panic\n");
    start(true, false, false);
    stop();
    configure("NAND_FILE_OUTPUT=n");
    start(true, false, false);
    stop();
    EXPECT_TRUE(exists(words) && stored().empty());
    configure();
    faults.writesUntilError = 1; // of the numbers
    faults.writeError = EIO;
    faults.sectionsOnly = true;
    start(true, false, false);
    EXPECT_TRUE(exists(words) && logged("dmesg-ramoops-0 cannot be stored now and stay there\n"));
    EXPECT_NE(status().find("\nproblem.1=nothing is stored: the storage cannot be written\n"),
              std::string::npos);
    faults.writeError = 0;
    EXPECT_TRUE(flush());
    EXPECT_EQ(status().find("works=y\n"), 0U);
    EXPECT_TRUE(eventually([&] { return status().empty() || !exists(words); })) << "once it is stored";
    stop();
    start(true, false, false);
    stop();
    EXPECT_EQ(stored(), line + "panic\n");
}

/** A start without them has to do with the defaults, which are not to take their place. */
TEST_F(LifecycleTest, SettingsThatComeBackWithTheirMediumAreUsedAndKept) {
    configure("MAX_LOG_SIZE=7\nALOG_LEVEL=w\nFLUSH_INTERVAL=5");
    fs::rename(root, home + "/unplugged");
    writeFile(root, "no folder");
    faults.skipPauses = true;
    start(true, true, false);
    EXPECT_TRUE(eventually([] { return faults.pauses().size() > 2; }) && !service().mFlushThreadRunning);
    fs::remove(root);
    fs::rename(home + "/unplugged", root);
    ASSERT_TRUE(eventually([&] { return service().mFlushThreadRunning.load(); }));
    stop();
    for (const char* kept : {"MAX_LOG_SIZE=7\n", "ALOG_LEVEL=w\n", "FLUSH_INTERVAL=5\n"})
        EXPECT_NE(readFile(cfg).find(kept), std::string::npos) << kept;
}
