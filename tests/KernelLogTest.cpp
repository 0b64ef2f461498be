#include "Fixture.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace {

class KernelLogTest : public ServiceTest {
  protected:
    /** Bytes that wait in the kernel log. */
    int unread() {
        int fd = open((home + "/proc/kmsg").c_str(), O_WRONLY | O_NONBLOCK), waiting = -1;
        EXPECT_EQ(ioctl(fd, FIONREAD, &waiting), 0);
        close(fd);
        return waiting;
    }
    /** Feeds the text, waits until the reader has passed it on, and returns what is stored of it. */
    std::string storedFrom(const std::string& text) {
        feed(text);
        feed("<0>end of the feed\n");
        EXPECT_TRUE(eventually([&] {
            flush();
            return stored().find("end of the feed\n") != std::string::npos;
        }));
        std::string all = stored();
        return all.substr(0, all.find("end of the feed\n"));
    }
};

} // namespace

TEST_F(KernelLogTest, LinesPassByTheirPriority) {
    configure({{"KLOG_LEVEL", "6"}});
    start();
    using namespace std::string_literals;
    EXPECT_EQ(storedFrom("<3>disk error\n<7>too fine\nno prefix\n<>zero\n<\n\n<14>with facility\n<6>limit\n"
                         "<4294967296>overflow\n<2 unclosed\n<5>\n<3>zero \0byte\n"s),
              "disk error\nzero\nlimit\n unclosed\nzero byte\n");
}

TEST_F(KernelLogTest, LongAndSplitLinesAreKeptTogether) {
    configure();
    start();
    std::string exact = "<3>" + std::string(123, 'e') + "\n"; // fills the buffer with its newline
    std::string head = "<3>" + std::string(124, 'h'); // fills it without
    std::string longLine(200, 'l');
    feed("<3>spl");
    feed("it\n");
    EXPECT_EQ(storedFrom(longLine + "\n" + exact + head + "\n"), "split\n" + longLine.substr(0, 127) + "\n" +
                                                                     longLine.substr(127) + "\n" +
                                                                     exact.substr(3) + head.substr(3) + "\n");
}

TEST_F(KernelLogTest, EndOfTheLogIsNoEndForTheReader) {
    std::filesystem::remove(home + "/proc/kmsg");
    writeFile(home + "/proc/kmsg", "<3>first\n");
    configure();
    start();
    EXPECT_TRUE(eventually([&] { return service().bufferedBytes() == 6; }));
    clock_t before = clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // time in which a spin would show
    EXPECT_LT(clock() - before, CLOCKS_PER_SEC / 10);
    FILE* log = fopen((home + "/proc/kmsg").c_str(), "a");
    fputs("<3>second\n", log);
    fclose(log);
    EXPECT_TRUE(eventually([&] { return service().bufferedBytes() == 13; }));
}

TEST_F(KernelLogTest, OutputOffHoldsOneChunkBack) {
    configure({{"KLOG_OUTPUT", "n"}});
    start();
    feed("<3>held\n");
    ASSERT_TRUE(eventually([&] { return unread() == 0; })) << "it is read all the same";
    EXPECT_EQ(service().bufferedBytes(), 0u);
    service().mKLogOutput = true;
    sem_post(&service().mKLogSem);
    EXPECT_EQ(storedFrom("<3>last\n"), "held\nlast\n");
    service().mKLogToFile = false;
    feed("<3>not stored\n");
    ASSERT_TRUE(eventually([&] { return unread() == 0; }));
    EXPECT_EQ(stored().find("not stored"), std::string::npos);
}

TEST_F(KernelLogTest, ClearingDropsWhatWaits) {
    configure();
    start(true, false);
    EXPECT_EQ(service().clearKernelLog(), 0) << "nothing waits";
    std::filesystem::remove(home + "/proc/kmsg");
    EXPECT_EQ(service().clearKernelLog(), -1);
    EXPECT_TRUE(logged("Unable to open log device '/proc/kmsg': No such file or directory\n"));
}

TEST_F(KernelLogTest, ReaderWithoutALogEndsAndTheServiceStops) {
    std::filesystem::remove(home + "/proc/kmsg");
    configure();
    start();
    ASSERT_TRUE(eventually([&] { return logged("Unable to open log device"); }));
    const bool all[] = {true, true, true};
    EXPECT_EQ(service().serviceStop(all), 0);
}

TEST_F(KernelLogTest, ReadErrorEndsTheReader) {
    std::filesystem::remove(home + "/proc/kmsg");
    makeFolder(home + "/proc/kmsg"); // opens, but cannot be read
    configure();
    start();
    EXPECT_TRUE(
        eventually([&] { return logged("kernelLogReader read error line=2011 errno:Is a directory \n"); }));
}

TEST_F(KernelLogTest, NothingIsAllocatedPerLine) {
    configure();
    start();
    feed("<3>first\n");
    ASSERT_TRUE(eventually([&] { return service().bufferedBytes() == 6; }));
    uint32_t before = faults.allocations;
    std::string lines;
    for (int i = 0; i < 300; ++i)
        lines += "<3>another line\n<7>" + std::string(i % 150, 'l') + "\n";
    feed(lines);
    feed("<3>last\n");
    ASSERT_TRUE(eventually([&] { return service().bufferedBytes() > 25000; }));
    EXPECT_EQ(faults.allocations, before);
}

TEST_F(KernelLogTest, CancellationLeavesNothingBehindAtAnyWait) {
    const bool all[] = {true, true, true};
    configure();
    start();
    stop(); // the first run opens what stays open for good
    int before = openDescriptors();
    for (int round = 0; round < 30; ++round) {
        configure({{"KLOG_OUTPUT", round % 3 == 1 ? "n" : "y"}});
        start();
        switch (round % 3) {
        case 0: // in its read, or while it opens
            break;
        case 1: // waiting for output
            feed("<3>held\n");
            break;
        case 2: // waiting for space that does not come: the flush thread is stopped in the middle of a slow
                // write
            faults.writeDelayUs = 20000;
            ASSERT_TRUE(put(noise(131072, 1)));
            feed("<3>more\n");
            ASSERT_TRUE(eventually(
                [&] { return service().mParts->ring.waiting() > 0 || service().bufferedBytes() < 131072; }));
            break;
        }
        EXPECT_EQ(service().serviceStop(all), 0);
        EXPECT_EQ(service().mParts->ring.inside(), 0u);
        EXPECT_EQ(service().mParts->ring.waiting(), 0u);
        faults.writeDelayUs = 0;
        stop();
        EXPECT_EQ(openDescriptors(), before) << "round " << round;
    }
    EXPECT_TRUE(logged("kernelLog_cleanup log_buffer addr="));
}
