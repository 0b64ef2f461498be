#include "Fixture.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

/** Most tests drive the ring by hand: it exists, no thread drains it, and writers find it in service. */
class BufferTest : public ServiceTest {
  protected:
    vnlog::LogBuf& ring() { return *service().mLogBuf; }
    void startByHand() {
        configure();
        start(false, false);
        service().mFlushThreadRunning = true;
    }
    ~BufferTest() override {
        if (mByHand)
            service().mFlushThreadRunning = false;
    }
    int posts(sem_t& semaphore) {
        int value = 0;
        sem_getvalue(&semaphore, &value);
        return value;
    }
    uint32_t used() { return ring().size - ring().free_size; }
    /** Drains into a pipe and returns what came out. */
    std::string drain(uint32_t wanted) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
        fcntl(ends[1], F_SETPIPE_SZ, 262144);
        int count = service().logBufRead2File(ends[1], wanted);
        std::string text(262144, 0);
        ssize_t length = read(ends[0], text.data(), text.size());
        EXPECT_EQ(std::max<ssize_t>(length, 0), std::max(count, 0));
        text.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        close(ends[0]);
        close(ends[1]);
        return text;
    }
    bool mByHand = false;
};

} // namespace

TEST_F(BufferTest, RecordsComeOutInOrderAcrossTheEndOfTheDataArea) {
    mByHand = true;
    startByHand();
    EXPECT_EQ(service().logBufWrite("x", 0), -1);
    EXPECT_EQ(posts(ring().sem_read), 0);
    std::string first = noise(100000, 1), second = noise(31072, 2), third = noise(60000, 3);
    EXPECT_TRUE(put(first) && put(second)) << "a record of exactly the free bytes fits";
    EXPECT_EQ(ring().free_size, 0u);
    EXPECT_EQ(posts(ring().sem_read), 2);
    EXPECT_EQ(drain(60000), first.substr(0, 60000));
    EXPECT_EQ(posts(ring().sem_write), 1);
    EXPECT_TRUE(put(third)) << "crosses the end";
    EXPECT_EQ(drain(200000), first.substr(60000) + second + third) << "a larger wish takes what is there";
    EXPECT_EQ(used(), 0u);
    EXPECT_EQ(service().logBufWrite(noise(131073, 4).data(), 131073), -1) << "can never fit";
    EXPECT_TRUE(logged("a record of 131073 byte can never fit"));
    service().mFlushThreadRunning = false;
    EXPECT_EQ(service().logBufWrite("x", 1), -1);
    EXPECT_EQ(service().logBufRead2File(-1, 1), 0);
}

TEST_F(BufferTest, FailedWriteConsumesNothing) {
    mByHand = true;
    startByHand();
    std::string text = noise(120000, 1);
    ASSERT_TRUE(put(text));
    EXPECT_EQ(service().logBufRead2File(-1, 1000), -1);
    EXPECT_TRUE(logged("line[1699] logBufRead2File write failed \n"));
    EXPECT_EQ(drain(110000), text.substr(0, 110000)) << "offered again";
    ASSERT_TRUE(put(noise(100000, 2)));
    EXPECT_EQ(service().logBufRead2File(-1, 110000), -1);
    EXPECT_TRUE(logged("line[1706] logBufRead2File write failed \n"));
    std::string path = home + "/out";
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    faults.writesUntilError = 1;
    faults.writeError = EIO;
    EXPECT_EQ(service().logBufRead2File(fd, 110000), -1);
    EXPECT_TRUE(logged("line[1710] logBufRead2File write failed \n"));
    EXPECT_EQ(used(), 110000u);
    faults.writeError = 0;
    faults.shortWrite = 100;
    EXPECT_EQ(service().logBufRead2File(fd, 110000), 110000);
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 110000 + 21072)
        << "the first part is written again, a short write goes on";
    close(fd);
}

TEST_F(BufferTest, FlushThreadWaitsForTheThresholdARequestOrTheSwitch) {
    configure();
    start(true, false);
    ASSERT_TRUE(put(noise(32768, 1)));
    EXPECT_TRUE(eventually([&] { return posts(ring().sem_read) == 0; }));
    EXPECT_EQ(used(), 32768u);
    ASSERT_TRUE(put("x"));
    EXPECT_TRUE(eventually([&] { return used() == 0; })) << "one byte more is enough";
    ASSERT_TRUE(put("wanted"));
    EXPECT_TRUE(flush());
    EXPECT_TRUE(flush()) << "a request on an empty buffer is only forgotten";
    service().mFlushSwitch = true;
    ASSERT_TRUE(put("switched"));
    EXPECT_TRUE(eventually([&] { return used() == 0; }));
    service().mFlushSwitch = false;
    ASSERT_TRUE(put(noise(32000, 2)));
    ASSERT_TRUE(put(noise(100000, 3)))
        << "a writer short of space makes the thread drain less than the threshold";
    EXPECT_TRUE(flush());
    EXPECT_EQ(stored().size(), 32769 + 6 + 8 + 32000 + 100000u);
}

TEST_F(BufferTest, TwoWritersAndASlowMediumLoseAndMixNothing) {
    configure({{"MAX_LOG_SIZE", "64"}});
    faults.writeDelayUs = 2000;
    start(true, false);
    constexpr int kLines = 6000;
    auto write = [&](char name) {
        for (int i = 0; i < kLines; ++i)
            EXPECT_TRUE(put(name + std::to_string(i) + " " + std::string(200, name) + "\n"));
    };
    std::thread a(write, 'a'), b(write, 'b');
    a.join();
    b.join();
    ASSERT_TRUE(flush());
    int next[2] = {0, 0};
    std::istringstream lines(stored());
    for (std::string line; std::getline(lines, line);) {
        int& expected = next[line[0] == 'b'];
        ASSERT_EQ(line, line[0] + std::to_string(expected) + " " + std::string(200, line[0]));
        ++expected;
    }
    EXPECT_EQ(next[0], kLines);
    EXPECT_EQ(next[1], kLines);
}

TEST_F(BufferTest, FailingMediumIsTriedAgainAndNothingBufferedIsLost) {
    configure();
    start(true, false);
    std::string first = noise(40000, 1), second = noise(91072, 2);
    faults.writeError = EIO;
    ASSERT_TRUE(put(first));
    ASSERT_TRUE(eventually([&] { return service().mParts->ring.drainFailing(); }));
    EXPECT_TRUE(logged("error: failed to save log,please check it\n"));
    ASSERT_TRUE(put(second)) << "what space there is can be used";
    EXPECT_FALSE(put("x")) << "then records are refused at once";
    EXPECT_FALSE(put("y"));
    faults.writeError = 0;
    ASSERT_TRUE(flush()) << "a request ends the pause";
    EXPECT_TRUE(eventually([&] { return logged("LogService/6: 2 records were refused"); }));
    EXPECT_TRUE(stored() == first + second);
    EXPECT_TRUE(put("works again"));
    EXPECT_FALSE(service().mStorageFull);
}

TEST_F(BufferTest, PartOfAWriteIsNotStoredTwice) {
    configure();
    start(true, false);
    std::string text = noise(40000, 1);
    faults.writesUntilError = 1;
    faults.shortWrite = 15000; // then the medium is full
    faults.writeError = ENOSPC;
    ASSERT_TRUE(put(text));
    ASSERT_TRUE(eventually([&] { return service().mParts->ring.drainFailing(); }));
    EXPECT_EQ(stored(), "");
    faults.writeError = 0;
    ASSERT_TRUE(flush());
    EXPECT_TRUE(stored() == text);
}

TEST_F(BufferTest, PauseEndsByItselfAndAtAStop) {
    configure();
    start(true, false);
    faults.writeError = EIO;
    ASSERT_TRUE(put(noise(40000, 1)));
    ASSERT_TRUE(eventually([&] { return service().mParts->ring.drainFailing(); }));
    faults.writeError = 0;
    EXPECT_TRUE(eventually([&] { return used() == 0; })) << "without another post";
    EXPECT_TRUE(eventually([&] { return !service().mParts->ring.drainFailing(); }));
    faults.writeError = EIO;
    ASSERT_TRUE(put(noise(40000, 2)));
    ASSERT_TRUE(eventually([&] { return service().mParts->ring.drainFailing(); }));
    stop();
    EXPECT_TRUE(logged("40000 buffered byte are dropped by the stop"));
}

TEST_F(BufferTest, SectionThatCannotBeCompressedIsContinued) {
    configure();
    start(true, false);
    makeFolder(section("current", 1) + "/in the way");
    std::string first = noise(60000, 1), second = noise(60000, 2);
    ASSERT_TRUE(put(first));
    ASSERT_TRUE(flush());
    ASSERT_TRUE(put(second));
    ASSERT_TRUE(eventually([&] { return logged("fail to Compress log files 1 log!\n"); }));
    std::filesystem::remove_all(section("current", 1));
    ASSERT_TRUE(flush());
    EXPECT_TRUE(stored() == first + second);
    EXPECT_EQ(service().mSliceNum, 2u);
    EXPECT_EQ(readGzip(section("current", 1)).size(), 65536u);
}

TEST_F(BufferTest, FullStorageSwitchesFileOutputOffAndReleasesEveryWriter) {
    configure();
    start(true, true);
    faults.writeError = ENOSPC;
    faults.freeBytes = 1000;
    ASSERT_TRUE(put(noise(131072, 1)));
    ASSERT_TRUE(eventually([&] { return service().mParts->ring.drainFailing(); }));
    faults.writeError = 0; // the configuration itself still fits
    std::thread other([&] { EXPECT_FALSE(put(noise(1000, 2))); });
    EXPECT_FALSE(put(noise(1000, 3)));
    other.join();
    EXPECT_TRUE(service().mStorageFull);
    EXPECT_FALSE(service().mKLogToFile || service().mALogToFile || service().mFlushThreadRunning);
    EXPECT_EQ(service().mLogBuf, nullptr);
    EXPECT_TRUE(service().mServiceStarted) << "the kernel reader lives on";
    EXPECT_TRUE(logged("Storage path space is insufficient,free space (1000),need space (131072)\n"));
    EXPECT_NE(readFile(cfg).find("NAND_FILE_OUTPUT=n\n"), std::string::npos);
    EXPECT_NE(readFile(cfg).find("STORAGE_FULL=y\n"), std::string::npos);
    EXPECT_FALSE(put("x"));
    EXPECT_EQ(service().logCMD(16, ""), 0);
}

TEST_F(BufferTest, StopOfTheHostAndOfReadersWithFullStorageMeet) {
    for (int round = 0; round < 20; ++round) {
        configure();
        start(true, true);
        faults.freeBytes = 0;
        faults.writeError = ENOSPC;
        ASSERT_TRUE(put(noise(131000, 1)));
        ASSERT_TRUE(eventually([&] { return service().mParts->ring.drainFailing(); }));
        faults.writeError = 0;
        feed("<3>" + std::string(100, 'k') + "\n"); // the kernel reader runs into it, too
        std::thread writer([&] { EXPECT_FALSE(put(std::string(100, 'w'))); });
        const bool all[] = {true, true, true};
        EXPECT_EQ(service().serviceStop(all), 0);
        writer.join();
        EXPECT_EQ(service().mLogBuf, nullptr);
        EXPECT_FALSE(service().mServiceStarted);
        stop();
        faults.freeBytes = -1;
    }
}

TEST_F(BufferTest, StopWakesAWriterThatWaitsForSpace) {
    startByHand(); // nobody drains
    ASSERT_TRUE(put(noise(131072, 1)));
    std::thread writer([&] { EXPECT_FALSE(put("x")); });
    ASSERT_TRUE(eventually([&] { return service().mParts->ring.waiting() == 1; }));
    service().mFlushThreadRunning = false;
    const bool none[] = {false, false, false};
    EXPECT_EQ(service().serviceStop(none), 0);
    writer.join();
    EXPECT_EQ(service().mLogBuf, nullptr);
}
