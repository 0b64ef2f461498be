#include "Fixture.h"

#include "sources/AndroidReader.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

class AndroidReaderTest : public ServiceTest {
  protected:
    /** Starts flush thread and Android reader; console and store as the letters say. */
    void startReader(const char* console = "y", const char* store = "y", bool withSystem = true) {
        plugDevices(withSystem);
        configure({{"UART_OUTPUT", console},
                   {"NAND_FILE_OUTPUT", store},
                   {"ALOG_FORMAT", "tag"},
                   {"ALOG_LEVEL", "v"}});
        catchConsole();
        start(true, false, true);
    }
    bool consoleShows(const std::string& text) {
        return eventually([&] { return console().find(text) != std::string::npos; });
    }
    bool storeHolds(const std::string& text) {
        return eventually([&] { return flush() && stored().find(text) != std::string::npos; });
    }
};

} // namespace

/** On connections that hold everything from the start, so that each cycle finds an entry of both. */
TEST_F(AndroidReaderTest, DevicesAreMergedByTimeAndAnnounced) {
    configure({{"UART_OUTPUT", "y"}, {"ALOG_FORMAT", "tag"}});
    catchConsole();
    start(true, false);
    int ends[2][2];
    auto send = [&](int device, int seconds, int nanoseconds, const std::string& text) {
        std::string payload = std::string("\4t\0", 3) + text + '\0';
        vnlog::logger_entry header{static_cast<uint16_t>(payload.size()), 0, 1, 1, seconds, nanoseconds};
        std::string bytes = std::string(reinterpret_cast<char*>(&header), sizeof header) + payload;
        ASSERT_GT(write(ends[device][1], bytes.data(), bytes.size()), 0);
    };
    vnlog::log_device_t devices[2]{};
    const char* paths[] = {"/dev/log_main", "/dev/log_system"};
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends[i]), 0);
        devices[i].fd = ends[i][0];
        devices[i].path = const_cast<char*>(paths[i]);
    }
    devices[0].next = &devices[1];
    send(0, 100, 5, "two");
    send(0, 100, 9, "four");
    send(0, 100, 9, "five");
    send(1, 100, 4, "one");
    send(1, 100, 5, "three");
    send(1, -2000000000, 0, "late, but from long before");
    service().setupOutput();
    service().mALogDevCount = 2;
    service().mLogcatThreadRunning = true;
    std::thread reader([&] { service().readLogLines(devices); });
    EXPECT_TRUE(consoleShows("five\n"));
    service().mLogcatThreadRunning = false;
    send(0, 101, 0, "wakes the reader up");
    reader.join();
    EXPECT_EQ(console(), "--------- beginning of /dev/log_system\nI/t       : one\n"
                         "--------- beginning of /dev/log_main\nI/t       : two\n"
                         "I/t       : late, but from long before\n"
                         "I/t       : three\nI/t       : four\nI/t       : five\n");
    for (auto& pair : ends) {
        close(pair[0]);
        close(pair[1]);
    }
}

TEST_F(AndroidReaderTest, ALoneEntryComesAfterAShortQuietAndIsStored) {
    startReader();
    entry("system", 1, 0, 3, "tag", "lone");
    EXPECT_TRUE(consoleShows("--------- beginning of /dev/log_system\nD/tag     : lone\n"));
    entry("main", 2, 0, 2, "tag", "verbose is not stored");
    entry("main", 3, 0, 3, "tag", "last");
    EXPECT_TRUE(storeHolds("D/tag     : last\n"));
    EXPECT_EQ(stored(), "D/tag     : lone\nD/tag     : last\n") << "nor are the banners";
    EXPECT_TRUE(consoleShows("V/tag     : verbose is not stored\n"));
}

TEST_F(AndroidReaderTest, OneDeviceHasNoBannerAndSwitchesActPerLine) {
    startReader("n", "y", false);
    entry("main", 1, 0, 4, "tag", "first");
    EXPECT_TRUE(storeHolds("first\n"));
    EXPECT_EQ(console(), "");
    service().mALogToFile = false;
    service().mALogToUart = true;
    entry("main", 2, 0, 4, "tag", "second");
    EXPECT_TRUE(consoleShows("I/tag     : second\n"));
    EXPECT_EQ(console(), "I/tag     : second\n");
}

TEST_F(AndroidReaderTest, FilterIsAskedAndBannerComesAllTheSame) {
    startReader();
    service().logCMD(8, "tag:w");
    entry("main", 1, 0, 4, "tag", "dropped");
    EXPECT_TRUE(consoleShows("--------- beginning of /dev/log_main\n"));
    entry("main", 2, 0, 5, "tag", "passes");
    EXPECT_TRUE(consoleShows("W/tag     : passes\n"));
    EXPECT_EQ(console().find("dropped"), std::string::npos);
}

TEST_F(AndroidReaderTest, OutputOffAndOnEmptiesMainOnly) {
    plugDevices();
    configure({{"ALOG_OUTPUT", "n"}, {"ALOG_FORMAT", "tag"}});
    catchConsole();
    start(true, false, true);
    std::string filler(4000, 'f');
    for (int i = 0; i < 10; ++i)
        entry("main", 2, i, 4, "tag", "dropped" + std::to_string(i) + filler);
    entry("system", 3, 0, 4, "tag", "system stays");
    auto device =
        vnlog::platform::openLogger((home + "/dev/log_main").c_str(), vnlog::platform::LoggerAccess::Read);
    ASSERT_TRUE(eventually([&] { return service().getLogReadableSize(device.get()) > 40000; }));
    EXPECT_EQ(service().getLogSize(device.get()), 65536);
    ASSERT_EQ(service().logCMD(5, "y"), 0);
    EXPECT_EQ(service().getLogReadableSize(device.get()), 0);
    EXPECT_TRUE(consoleShows("system stays\n"));
    EXPECT_EQ(console().find("dropped9"), std::string::npos);
    EXPECT_TRUE(service().mALogToUart && service().mALogToFile);
}

TEST_F(AndroidReaderTest, OutputOffHoldsWhatHasBeenRead) {
    configure({{"UART_OUTPUT", "y"}, {"ALOG_OUTPUT", "n"}, {"ALOG_FORMAT", "tag"}});
    catchConsole();
    start(true, false);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    std::string payload("\4t\0held\0", 8);
    vnlog::logger_entry header{static_cast<uint16_t>(payload.size()), 0, 1, 1, 1, 0};
    std::string bytes = std::string(reinterpret_cast<char*>(&header), sizeof header) + payload;
    vnlog::log_device_t device{};
    device.fd = ends[0];
    service().setupOutput();
    service().mLogcatThreadRunning = true;
    std::thread reader([&] { service().readLogLines(&device); });
    ASSERT_GT(write(ends[1], bytes.data(), bytes.size()), 0);
    ASSERT_TRUE(eventually([&] {
        int waiting = 1;
        return ioctl(ends[0], FIONREAD, &waiting) == 0 && waiting == 0;
    })) << "it is read all the same";
    EXPECT_EQ(console(), "");
    service().mALogOutput = true;
    sem_post(&service().mALogSem);
    EXPECT_TRUE(consoleShows("I/t       : held\n"));
    service().mLogcatThreadRunning = false;
    ASSERT_GT(write(ends[1], bytes.data(), bytes.size()), 0);
    reader.join();
    close(ends[0]);
    close(ends[1]);
}

TEST_F(AndroidReaderTest, OddEntriesHarmNothing) {
    startReader();
    auto payload = [&](const std::string& bytes) {
        vnlog::platform::LoggerHeader header{static_cast<uint16_t>(bytes.size()), 0, 1, 1, 1, 0};
        rawEntry("main", std::string(reinterpret_cast<const char*>(&header), sizeof header) + bytes);
    };
    using namespace std::string_literals;
    for (const std::string& bytes :
         {""s, "\x04"s, "\x04\0"s, "\x04\0\0"s, "\x04tag"s, "\x04tag\0text"s, "\xfftag\0text\0"s,
          "\0tag\0text\0"s, "\x04\0empty tag\0"s, "\x04tag\0\0"s, "\x04tag\0a\nb\n\0"s,
          "\x04"s + std::string(5000, 't') + "\0x\0"s, std::string(5100, '\x04'),
          "\x04tag\0"s + std::string(5093, 'm') + "\0\0"s})
        payload(bytes);
    rawEntry("main", "shorter than a header");
    rawEntry("main", std::string(5121, 'x'));
    entry("main", 2, 0, 4, "tag", "the reader lives on");
    EXPECT_TRUE(storeHolds("the reader lives on\n"));
    EXPECT_NE(stored().find(std::string(5000, 'm')), std::string::npos);
    EXPECT_NE(stored().find("I/tag     : a\nI/tag     : b\n"), std::string::npos);
}

TEST_F(AndroidReaderTest, EveryFormatIsTheLibrarysOwn) {
    startReader("n", "y", false);
    std::string expected;
    for (const char* word : {"brief", "process", "tag", "thread", "raw", "time", "threadtime", "long"}) {
        ASSERT_EQ(service().logCMD(10, word), 0);
        std::string text = std::string("text in ") + word + " " + std::string(600, 'l');
        AndroidLogEntry parsed{1700000000, 5000000, ANDROID_LOG_INFO, 0,           17, 18,
                               "tag",      4,       text.size(),      text.c_str()};
        size_t length = 0;
        char small[16];
        char* line = android_log_formatLogLine(service().mLogFormat, small, sizeof small, &parsed, &length);
        expected += std::string(line, length);
        free(line);
        entry("main", 1700000000, 5000000, 4, "tag", text);
        ASSERT_TRUE(storeHolds(text)) << word;
    }
    EXPECT_EQ(stored(), expected);
}

TEST_F(AndroidReaderTest, ConsoleThatFailsOrIsShortKeepsTheLineFromTheStore) {
    startReader("y", "y", false);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    std::string fill(65536 - 4096, 'x'); // leaves room for less than the line
    ASSERT_EQ(write(ends[1], fill.data(), fill.size()), static_cast<ssize_t>(fill.size()));
    dup2(ends[1], 1);
    entry("main", 1, 0, 4, "tag", std::string(5000, 'a'));
    EXPECT_TRUE(eventually([&] { return logged("+++ LOG: write partial ("); }));
    entry("main", 2, 0, 4, "tag", std::string(5000, 'b'));
    EXPECT_TRUE(eventually([&] { return logged("+++ LOG: write failed (errno=11)\n"); }));
    service().mALogToUart = false;
    entry("main", 3, 0, 4, "tag", "stored");
    EXPECT_TRUE(storeHolds("stored\n"));
    EXPECT_EQ(stored(), "I/tag     : stored\n");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(AndroidReaderTest, RefusedLinesAreLostAndReported) {
    startReader("n", "y", false);
    service().serviceStop((const bool[]){true, false, false});
    entry("main", 1, 0, 4, "tag", "no flush thread");
    EXPECT_TRUE(
        eventually([&] { return logged("LogService/3: write log buf skip, LOGBUF thread not start\n"); }));
    service().mFlushThreadRunning = true; // and no buffer
    entry("main", 2, 0, 4, "tag", "refused");
    EXPECT_TRUE(eventually([&] { return logged("LogService/6: write log buf error\n"); }));
    AndroidLogEntry own{1, 0, ANDROID_LOG_ERROR, 0, getpid(), 1, "LogService", 11, 4, "text"};
    forgetLog();
    EXPECT_EQ(service().androidLogPrintLogLine(service().mLogFormat, 1, &own), -1);
    EXPECT_FALSE(logged("write log buf error")) << "a report about a report would go on for ever";
    service().mFlushThreadRunning = false;
}

TEST_F(AndroidReaderTest, CancellationLeavesNothingBehindAtAnyWait) {
    const bool all[] = {true, true, true};
    int before = 0;
    for (int round = 0; round < 30; ++round) {
        if (round == 1) // the first round opens what stays open for good
            before = openDescriptors();
        configure({{"ALOG_OUTPUT", round % 4 == 1 ? "n" : "y"}, {"UART_OUTPUT", round % 4 == 2 ? "y" : "n"}});
        if (round == 0)
            plugDevices();
        int ends[2], console = dup(1);
        ASSERT_EQ(pipe(ends), 0);
        start(true, false, true);
        entry("main", 1, 0, 4, "tag", "text");
        if (round % 4 == 2) { // blocked in the write to a console that nobody reads
            dup2(ends[1], 1);
            for (int i = 0; i < 20; ++i)
                entry("main", 2, i, 4, "tag", std::string(5000, 'x'));
        } else if (round % 4 == 3) { // waiting for space
            faults.writeDelayUs = 20000;
            ASSERT_TRUE(put(noise(131072, 1)));
        }
        EXPECT_EQ(service().serviceStop(all), 0);
        faults.writeDelayUs = 0;
        EXPECT_EQ(service().mParts->ring.inside(), 0u);
        stop();
        dup2(console, 1);
        close(console);
        close(ends[0]);
        close(ends[1]);
        // The driver, which lives in this process, opens its side of a writer and closes that of a reader in
        // its own time; a leak would grow with the rounds.
        EXPECT_TRUE(round < 2 || eventually([&] { return openDescriptors() <= before + 1; }))
            << "round " << round;
    }
    EXPECT_TRUE(logged("logcat_cleanup logcat_cleanup dev="));
}

TEST_F(AndroidReaderTest, MissingMainDeviceEndsTheReaderOnly) {
    configure();
    start(true, false, true);
    EXPECT_TRUE(
        eventually([&] { return logged("Unable to open log device '/dev/log_main': No such file"); }));
    EXPECT_EQ(service().clearAndroidLog(), -1);
    EXPECT_TRUE(logged("Unable to open log device 'log_main': No such file"));
    EXPECT_TRUE(put("the rest works"));
}

using AndroidReaderDeathTest = AndroidReaderTest;

TEST_F(AndroidReaderDeathTest, ReadsThatMakeNoSenseEndTheProcess) {
    auto readFrom = [&](const std::string& packet) {
        int ends[2];
        socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
        if (!packet.empty())
            (void)!write(ends[1], packet.data(), packet.size());
        close(ends[1]);
        vnlog::log_device_t device{};
        device.fd = ends[0];
        deferred().mLogcatThreadRunning = true;
        service().mALogOutput = true;
        service().readLogLines(&device);
    };
    EXPECT_EXIT(readFrom(""), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(readFrom(std::string(30, '\0')), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(readFrom("x"), testing::ExitedWithCode(1), "");
    vnlog::log_device_t device{};
    device.path = const_cast<char*>("/dev/log_main");
    deferred().mALogDevCount = 2;
    service().mALogOutFd = -1;
    EXPECT_EXIT(service().maybePrintStart(&device), testing::ExitedWithCode(255), "");
}

TEST_F(AndroidReaderTest, LosslessWriterWaitsAndAPlainOneDropsTheOldest) {
    plugDevices(false);
    std::string path = home + "/dev/log_main";
    auto reader = vnlog::platform::openLogger(path.c_str(), vnlog::platform::LoggerAccess::Read);
    auto second = vnlog::platform::openLogger(path.c_str(), vnlog::platform::LoggerAccess::Read);
    constexpr int kEntries = 300; // several times what the device holds
    std::thread writer([&] {
        for (int i = 0; i < kEntries; ++i)
            entry("main", 1, i, 4, "tag", std::to_string(i) + std::string(1000, 'x'));
    });
    char packet[5120];
    auto next = [&](vnlog::FileDescriptor& from) {
        ssize_t length = read(from.get(), packet, sizeof packet);
        return length > 25 ? atoi(packet + 25) : -1;
    };
    for (int i = 0; i < kEntries; ++i) {
        ASSERT_EQ(next(reader), i);
        ASSERT_EQ(next(second), i) << "each reader has a position of its own";
    }
    writer.join();
    auto plain = vnlog::platform::openLogger(path.c_str(), vnlog::platform::LoggerAccess::Write);
    vnlog::platform::LoggerHeader header{1005, 0, 0, 0, 0, 0};
    for (int i = 0; i < kEntries; ++i) {
        std::string payload = std::string("\4tag\0", 5) + std::to_string(i) + std::string(1000, 'x');
        payload.resize(1005);
        std::string bytes = std::string(reinterpret_cast<char*>(&header), sizeof header) + payload;
        ASSERT_EQ(write(plain.get(), bytes.data(), bytes.size()), 1025);
    }
    int last = -1;
    while (last < kEntries - 1) {
        int number = next(reader);
        ASSERT_GT(number, last);
        last = number;
        vnlog::platform::LoggerHeader read;
        memcpy(&read, packet, sizeof read);
        EXPECT_EQ(read.pid, getpid()) << "filled in on arrival";
        EXPECT_GT(read.seconds, 1700000000);
    }
}
