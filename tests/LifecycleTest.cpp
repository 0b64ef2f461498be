#include "Fixture.h"

#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class LifecycleTest : public ServiceTest {
  protected:
    int serviceStart(bool flush, bool kernel, bool android = false) {
        const bool flags[] = {flush, kernel, android};
        return service().serviceStart(flags);
    }
    int serviceStop(bool flush, bool kernel, bool android = true) {
        const bool flags[] = {flush, kernel, android};
        return service().serviceStop(flags);
    }
    static std::string threadNames() {
        return runCommand("cat /proc/" + std::to_string(getpid()) + "/task/*/comm");
    }
};

} // namespace

TEST_F(LifecycleTest, ConstructionStartsAndDestructionStops) {
    configure();
    android::sp<LogService> service = new LogService();
    EXPECT_TRUE(service->mServiceStarted);
    EXPECT_TRUE(logged("LogService/3: LogService start success\n"));
    EXPECT_TRUE(eventually([] { return threadNames().find("kernelLogReader\n") != std::string::npos; }));
    EXPECT_NE(threadNames().find("logBufFlush\n"), std::string::npos);
    service = nullptr;
    EXPECT_TRUE(logged("Thread kernelLogReader is stopped successfully!\n"));
    EXPECT_TRUE(logged("Thread logBufFlush is stopped successfully!\n"));
    EXPECT_FALSE(logged("serviceStop failed"));
}

TEST_F(LifecycleTest, StartAndStopInParts) {
    configure();
    start(false, false);
    EXPECT_NE(service().mLogBuf, nullptr);
    EXPECT_EQ(service().mALogFileMinPri, 3);
    EXPECT_EQ(serviceStart(true, true), -1) << "a started service stays as it is";
    EXPECT_TRUE(logged("serviceStart refused"));
    EXPECT_FALSE(service().mFlushThreadRunning);
    EXPECT_EQ(serviceStop(true, true), 0);
    EXPECT_EQ(service().mLogBuf, nullptr);
    EXPECT_EQ(serviceStop(true, true), -1);

    ASSERT_EQ(serviceStart(true, true), 0);
    EXPECT_EQ(serviceStop(false, true), 0);
    EXPECT_NE(service().mLogBuf, nullptr) << "the flush thread still needs it";
    EXPECT_TRUE(service().mServiceStarted);
    EXPECT_EQ(serviceStop(true, false), 0);
    EXPECT_FALSE(service().mServiceStarted);

    ASSERT_EQ(serviceStart(true, true), 0);
    EXPECT_EQ(serviceStop(true, false), 0);
    EXPECT_TRUE(service().mServiceStarted) << "the kernel reader still runs";
    EXPECT_EQ(service().mLogBuf, nullptr);
    feed("<3>nobody takes it\n");
    EXPECT_TRUE(eventually([&] { return logged("kernelLogReader logBufWrite failed\n"); }));
    EXPECT_EQ(serviceStop(false, true), 0);
    EXPECT_FALSE(service().mServiceStarted);
}

TEST_F(LifecycleTest, EachRunOfOneObjectNumbersItsSectionsFromOne) {
    configure();
    start(true, false);
    ASSERT_TRUE(put(noise(70000, 1)) && flush());
    EXPECT_TRUE(eventually([&] { return exists(section("current", 2, ".txt")); }));
    EXPECT_EQ(serviceStop(true, true), 0);
    ASSERT_EQ(serviceStart(true, false), 0);
    EXPECT_TRUE(exists(section("last_1", 2)));
    ASSERT_TRUE(put("again") && flush());
    EXPECT_TRUE(exists(section("current", 1, ".txt")));
}

TEST_F(LifecycleTest, FailedStartsReleaseWhatTheyMade) {
    int before = openDescriptors();
    auto failsWith = [&](const char* report) {
        configure();
        deferred();
        EXPECT_EQ(serviceStart(true, true, true), -1) << report;
        EXPECT_TRUE(logged(report)) << report;
        EXPECT_EQ(service().mLogBuf, nullptr);
        EXPECT_FALSE(service().mServiceStarted || service().mFlushThreadRunning ||
                     service().mKLogThreadRunning);
        EXPECT_EQ(service().flushLogBufAll(), 0);
        stop();
        EXPECT_EQ(openDescriptors(), before);
        forgetLog();
    };
    const char* names[] = {"logBufFlush", "kernelLogReader", "logcat"};
    for (int threads = 0; threads < 3; ++threads) {
        faults.threadsUntilError = threads;
        failsWith((std::string(names[threads]) + " thread failed to start !\n").c_str());
    }
    faults.threadsUntilError = -1;
    for (int semaphores : {3, 4}) { // the first three are the object's own
        faults.semaphoresUntilError = semaphores;
        failsWith("Synchronization primitives init failed\n");
    }
    faults.semaphoresUntilError = -1;
    faults.failAllocationsFrom = 131072;
    failsWith("fail to malloc log buf!\n");
    faults.failAllocationsFrom = -1;
    setenv("VNLOG_SYSROOT", (home + std::string(90, 'x')).c_str(), 1);
    failsWith("the system root is longer than 83 characters\n");
    setenv("VNLOG_SYSROOT", home.c_str(), 1);

    configure({{"STORAGE_PATH", home}});
    std::filesystem::rename(cfg, home + "/default.cfg");
    std::filesystem::remove_all(root); // log.cfg has no home
    setenv("LOG_DEFAULT_CFG", (home + "/default.cfg").c_str(), 1);
    deferred();
    EXPECT_EQ(serviceStart(true, true), -1);
    EXPECT_TRUE(logged("The log configuration failed to save !\n"));
}

TEST_F(LifecycleTest, UnusableStorageLeavesTheServiceUpWithoutIt) {
    configure();
    writeFile(logs, "a file where the folder should be");
    writeFile(root + "/log_storage.dat",
              "TOTAL_LOG_SIZE=0\nHEAD_FOLDER_NUM=0\nTAIL_FOLDER_NUM=0\nOLDEST_FILE_NUM=1\n");
    std::string config = readFile(cfg);
    deferred();
    EXPECT_EQ(serviceStart(true, true), 0);
    EXPECT_TRUE(logged("error: init_Log_Storage failed, ret=-9,try to delete all the logs\n"));
    EXPECT_TRUE(logged("log save thread will not start!\n"));
    EXPECT_TRUE(service().mServiceStarted);
    EXPECT_FALSE(service().mFlushThreadRunning || service().mKLogThreadRunning);
    EXPECT_EQ(readFile(cfg), config) << "not rewritten";
}

TEST_F(LifecycleTest, ChildrenInheritNoDescriptorAndAForeignRestartFindsTheStore) {
    configure();
    start();
    ASSERT_TRUE(put("text") && flush());
    std::string list = runCommand("ls -l /proc/self/fd");
    EXPECT_EQ(list.find(home), std::string::npos) << list;
    stop();
    start();
    EXPECT_EQ(readGzip(section("last_1", 1)), "text");
}
