// SPDX-License-Identifier: Apache-2.0
#include "ReaderParts.h"
#include "sources/AndroidReader.h"
#include "sources/Merge.h"

#include <sys/socket.h>

using namespace std::string_literals;
using namespace vnlog;

namespace {

EntryNode nodeOf(int seconds, int nanoseconds, const std::string& payload) {
    EntryNode node(new log_entry_node_t{});
    deviceEntry(seconds, nanoseconds, payload).copy(node->buffer, kEntrySize);
    return node;
}

/** Android's side up to a sink, with two devices on connections that hold what is sent from the start. */
class AndroidTest : public ReaderTest {
  protected:
    AndroidTest() {
        catchConsole();
        ++descriptors; // where standard output is kept
        sem_init(&state.mALogSem, 0, 0);
        state.mALogOutput = state.mALogToUart = state.mALogToFile = state.mLogcatThreadRunning = true;
        state.mALogOutFd = STDOUT_FILENO;
        state.mALogDevCount = 2;
        EXPECT_TRUE(filter.build("tag", "ALL_MODULE", "v"));
        for (int i = 1, ends[2]; i >= 0; --i) {
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
            devices[i] = new log_device_t{strdup(paths[i]), ends[0], false, 'm', nullptr, devices[1]};
            writers[i] = FileDescriptor(ends[1]);
        }
    }
    ~AndroidTest() override {
        logcat_cleanup(devices[0]);
        sem_destroy(&state.mALogSem);
    }
    void send(int device, int nanoseconds, const std::string& text, int seconds = 100) {
        std::string bytes = deviceEntry(seconds, nanoseconds, "\4t\0"s + text + '\0');
        EXPECT_TRUE(writeAll(writers[device].get(), bytes.data(), bytes.size()));
    }
    /** Reads from these devices, or as the service does. */
    Worker start(log_device_t* list = nullptr) {
        return {std::thread([this, list] { list != nullptr ? reader.readLines(list) : reader.run(); })};
    }

    const char* const paths[2] = {"/dev/log_main", "/dev/log_system"};
    log_device_t* devices[2]{};
    FileDescriptor writers[2];
    AndroidState state;
    FilterState filterState;
    Filter filter{filterState};
    Console consoleOut;
    AndroidLine line{state, filterState, filter, sink, consoleOut};
    AndroidReader reader{state, systemRoot, line};
};

using AndroidDeathTest = AndroidTest;

} // namespace

TEST(Merge, RandomEntriesComeAsTheRuleSaysAlsoWhereTheSecondsRollOver) {
    log_device_t devices[2]{};
    devices[0].next = &devices[1];
    std::multimap<std::pair<uint32_t, int>, int> model[2]; // keeps equal ones in the order of their coming
    std::mt19937 random(7);
    for (int id = 1; id <= 8000; ++id) {
        uint32_t at = random() % 2, seconds = 0x7fffffff + random() % 3, nanoseconds = random() % 3;
        model[at].emplace(std::pair(seconds, nanoseconds), id);
        EntryNode node = nodeOf(static_cast<int32_t>(seconds), static_cast<int>(nanoseconds), "");
        node->entry()->pid = id;
        enqueue(&devices[at], std::move(node));
        bool everything = id == 8000 || random() % 8 == 0;
        while (model[0].size() + model[1].size() > 0) {
            bool both = !model[0].empty() && !model[1].empty();
            bool second = both ? model[1].begin()->first < model[0].begin()->first : model[0].empty();
            if (!everything && model[second].size() == 1)
                break;
            ASSERT_EQ(nextDevice(devices, everything), &devices[second]);
            ASSERT_EQ(dequeue(&devices[second])->entry()->pid, model[second].begin()->second);
            model[second].erase(model[second].begin());
        }
        ASSERT_EQ(nextDevice(devices, everything), nullptr);
    }
}

TEST_F(AndroidTest, WhereALineGoesAndWhichFailureIsReportedUnlessTheLineIsAReportItself) {
    const struct {
        std::string on; // console, file, sink in service, line taken
        int error, priority, result;
        size_t shown, stored; // bytes on the console and in the sink, of 16
        int reports;
    } cases[] = {
        {"cfst", 0, 3, 16, 16, 16, 0}, // both
        {"cst", 0, 4, 16, 16, 0, 0}, // console alone
        {"fst", 0, 4, 16, 0, 16, 0}, // file alone
        {"cfst", 0, 2, 16, 16, 0, 0}, // verbose lines are not stored
        {"fst", 0, 2, 0, 0, 0, 0},     {"cfst", EIO, 4, 16, 0, 16, 1}, // whatever the console does
        {"cft", 0, 4, 0, 16, 0, 1}, // out of service
        {"cfs", 0, 4, -1, 16, 0, 1}, // refused, which is said once a second
    };
    state.mALogFileMinPri = ANDROID_LOG_DEBUG;
    for (auto& c : cases) {
        auto on = [&](char what) { return c.on.find(what) != std::string::npos; };
        state.mALogToUart = on('c');
        state.mALogToFile = on('f');
        sink.taking = on('s');
        sink.door = [&](auto) { return on('t'); };
        for (auto& [pid, tag] :
             {std::pair(getpid(), "LogService"), {getpid() + 1, "LogService"}, {getpid(), "LogServicE"}}) {
            bool own = pid == getpid() && tag == "LogService"s;
            auto priority = static_cast<android_LogPriority>(c.priority);
            consoleOut.retry();
            Patience patience;
            (void)consoleOut.show(STDOUT_FILENO, "", 0, &patience); // tells what was not shown
            AndroidLogEntry entry{1, 0, priority, 0, pid, 1, tag, 11, 1, "x"};
            size_t shownBefore = console().size(), storedBefore = sink.text().size();
            forgetLog();
            faults.writeError = c.error;
            EXPECT_EQ(line.print(filterState.mLogFormat, STDOUT_FILENO, entry), c.result) << c.on;
            faults.writeError = 0;
            EXPECT_EQ(console().size() - shownBefore, c.shown) << c.on;
            EXPECT_EQ(sink.text().size() - storedBefore, c.stored) << c.on;
            EXPECT_EQ(loggedTimes("LogService/"), own && c.error != EIO             ? 0
                                                  : c.result < 0 && pid == getpid() ? 0
                                                                                    : c.reports)
                << c.on;
        }
    }
}

TEST_F(AndroidTest, EntriesThatAreParsedAndJudged) {
    const std::string most(5093, 'm');
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"I/tag     : text\n", {"\4tag\0text\0"s}},
        {"I/tag     : a\nI/tag     : b\n", {"\4tag\0a\nb\n\0"s}},
        {"I/tag     : " + most + "\n", {"\4tag\0"s + most + "\0\0"s}},
        {"I/tag     : tex\n", {"\4tag\0text"s}},
        {"S/tag     : text\n", {"\10tag\0text\0"s}},
        {"W/quiet   : text\n", {"\5quiet\0text\0"s}},
        {"", {"\4quiet\0text\0"s, "\11tag\0text\0"s, "\377tag\0text\0"s, "\0tag\0text\0"s, "\1tag\0text\0"s}},
        {"", {"", "\4"s, "\4tag"s, std::string(5100, '\4')}},
    };
    ASSERT_TRUE(filter.build("tag", "tag:v+quiet:w", "v"));
    std::string all;
    for (auto& [expected, payloads] : cases) {
        for (const std::string& payload : payloads)
            line.process(devices[0], nodeOf(1700000000, 5000000, payload)->entry());
        EXPECT_EQ(sink.text(), all += expected);
    }
    ASSERT_TRUE(filter.setLineFormat("threadtime")); // which prints all of the header
    line.process(devices[0], nodeOf(1700000000, 5000000, "\4tag\0text\0"s)->entry());
    AndroidLogEntry parsed{1700000000, 5000000, ANDROID_LOG_INFO, 0, 17, 18, "tag", 4, 4, "text"};
    Text own(android_log_formatLogLine(filterState.mLogFormat, nullptr, 0, &parsed, nullptr));
    EXPECT_EQ(sink.text(), all + own.get());
}

/** On connections that hold everything from the start, so that each cycle finds an entry of both. */
TEST_F(AndroidTest, DevicesAreMergedByTimeAndAnnouncedOnceTheOutputIsOn) {
    faults.interruptedReads = 2;
    for (int nanoseconds : {5, 9, 9})
        send(0, nanoseconds, std::to_string(nanoseconds));
    send(1, 4, "4");
    send(1, 5, "system's 5");
    send(1, 0, "late, but from long before", -2000000000);
    state.mALogOutput = false;
    Worker worker = start(devices[0]);
    switchOn(state.mALogOutput, state.mALogSem);
    const std::string first = "--------- beginning of /dev/log_system\nI/t       : 4\n";
    const std::string rest = "I/t       : 5\nI/t       : late, but from long before\nI/t       : system's 5\n"
                             "I/t       : 9\nI/t       : 9\n";
    EXPECT_TRUE(sink.holds("I/t       : 4\n" + rest)) << sink.text();
    EXPECT_EQ(console(), first + "--------- beginning of /dev/log_main\n" + rest);
}

/** The last entry of each round is a lone one. */
TEST_F(AndroidTest, InterruptedReadsLoseNothingLoneEntriesComeSoonAndAnIdleReaderDoesNotPoll) {
    using Clock = std::chrono::steady_clock;
    state.mALogDevCount = 1; // so that no banner comes
    Worker worker = start(devices[0]);
    auto best = Clock::duration::max();
    std::string expected;
    for (int round = 0; round < 12; ++round) {
        faults.interruption = round % 2 == 0 ? EINTR : EAGAIN;
        faults.wholeReads = round / 2;
        faults.interruptedReads = round % 2 == 0 ? 1 + round % 3 : 1;
        auto begin = Clock::now();
        for (int i = 0; i < 6; ++i) {
            send(i % 2, i, std::to_string(i));
            expected += "I/t       : " + std::to_string(i) + "\n";
        }
        ASSERT_TRUE(sink.holds(expected)) << sink.text();
        best = std::min(best, Clock::now() - begin);
    }
    EXPECT_LT(best, std::chrono::milliseconds(250));
    EXPECT_EQ(console(), expected);
    int before = faults.selects;
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // time in which polling would show
    EXPECT_LE(faults.selects, before + 2);
}

/** Both devices get entries in one sequence of stamps, one after the other or many at a time. */
TEST_F(AndroidTest, OrderHoldsWhateverABatchBringsAndNothingIsAllocatedPerEntry) {
    state.mALogDevCount = 1;
    state.mALogToUart = false;
    Worker worker = start(devices[0]);
    std::mt19937 random(7);
    std::string expected;
    for (int i = 0, device = 0; i < 9000; ++i) {
        device = random() % 8 == 0 ? 1 - device : device;
        send(device, i, std::to_string(i));
        expected += "I/t       : " + std::to_string(i) + "\n";
        if (i % 3000 == 1000) {
            ASSERT_TRUE(sink.holds(expected)); // the next ones find the reader asleep
        }
    }
    EXPECT_TRUE(sink.holds(expected));
    EXPECT_LE(faults.allocations, 200U) << "as many as can be queued";
}

TEST_F(AndroidTest, MainIsClearedAndCancellationLeavesNothingBehindAtAnyWait) {
    reader.run();
    EXPECT_TRUE(logged("Unable to open log device '/dev/log_main': No such file"));
    EXPECT_FALSE(reader.clear());
    plugDevices();
    entry("main", 100, 0, 4, "t", "cleared");
    EXPECT_TRUE(eventually([&] { return readable(); }));
    EXPECT_TRUE(reader.clear() && !readable());
    for (int round = 0; round < 15; ++round) { // in turn: waiting for data, for output, for the sink
        std::atomic<bool> inside{false};
        sink.door = [&](auto) {
            for (inside = true; round % 3 == 2;)
                pause();
            return true;
        };
        state.mALogOutput = round % 3 != 1;
        faults.reads = 0;
        Worker worker = start();
        for (int i = 0; i < 3; ++i)
            entry(i == 1 ? "system" : "main", 100, i, 4, "t", std::string(5000, 'l'));
        auto announced = [&] {
            return console().find("--------- beginning of /dev/log_system\n") != std::string::npos;
        };
        EXPECT_TRUE(eventually([&] {
            return round % 3 == 1 ? faults.reads > 0 : inside.load() && (round % 3 == 2 || announced());
        }));
    }
    EXPECT_EQ(loggedTimes("logcat_cleanup logcat_cleanup dev="), 16)
        << "also of the first, which found no device";
}

/** From a file of entries that each fill a read, so that the device is never quiet. */
TEST_F(AndroidDeathTest, SilentDeviceHoldsBackNoMoreThanItMay) {
    const std::string entry =
        deviceEntry(100, 0, "\4t\0"s + std::string(kEntrySize - sizeof(platform::LoggerHeader) - 3, 'x'));
    FileDescriptor flood = openFile((home + "/flood").c_str(), O_CREAT | O_RDWR, 0600);
    for (int i = 0; i < 600; ++i)
        EXPECT_TRUE(writeAll(flood.get(), entry.data(), entry.size()));
    dup2(flood.get(), devices[0]->fd);
    lseek(flood.get(), 0, SEEK_SET);
    send(1, 0, "oldest", 1);
    sink.door = [&](auto) -> bool { _exit(lseek(flood.get(), 0, SEEK_CUR) == 128 * kEntrySize ? 7 : 8); };
    EXPECT_EXIT(reader.readLines(devices[0]), testing::ExitedWithCode(7), "");
}
