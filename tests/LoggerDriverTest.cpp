#include "Fixture.h"

#include <future>
#include <sys/socket.h>

using namespace vnlog::platform;

struct LoggerDriverTest : FolderTest {
    vnlog::FileDescriptor open(LoggerAccess access) { return openLogger((home + "/log").c_str(), access); }
};

TEST_F(LoggerDriverTest, OneClientTooManyIsHungUpOn) {
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}));
    vnlog::FileDescriptor writer = open(LoggerAccess::Write);
    std::vector<vnlog::FileDescriptor> readers(140);
    for (auto& reader : readers)
        reader = open(LoggerAccess::Read);
    LoggerHeader entry{}; // without a payload
    EXPECT_TRUE(vnlog::writeAll(writer.get(), &entry, sizeof entry));
    auto served = [&](auto& reader) { return read(reader.get(), &entry, sizeof entry) == sizeof entry; };
    EXPECT_EQ(std::count_if(readers.begin(), readers.end(), served), 135)
        << "eight of them because they are of its own process";
}

TEST_F(LoggerDriverTest, ReadersGetTheSameEntriesInOrder) {
    const int entries = 1000, last = 5, held = 65536;
    auto entryOf = [](int writer, int number) { // the stamp tells which it is
        return deviceEntry(number, writer, std::string(std::minstd_rand(1U + writer * number)() % 5101, 'x'));
    };
    auto writeAll = [&](int writer, int count, bool lossless) {
        auto device = open(lossless ? LoggerAccess::WriteLossless : LoggerAccess::Write);
        std::string entry;
        for (int i = 1; i <= count; ++i) {
            entry = entryOf(writer, i);
            EXPECT_TRUE(vnlog::writeAll(device.get(), entry.data(), entry.size()));
        }
        shutdown(device.get(), SHUT_WR);
        EXPECT_EQ(read(device.get(), entry.data(), 1), 0); // when everything is taken
    };
    auto readAll = [&](int device, bool slowly) {
        std::vector<std::pair<int, int>> given; // writer and number
        std::string bytes;
        for (LoggerHeader header{}; !HasFailure() && header.nanoseconds != last;) {
            bytes.resize(kMaxLoggerBatch);
            bytes.resize(static_cast<size_t>(read(device, bytes.data(), bytes.size())));
            for (size_t start = 0, count = 0; start < bytes.size(); start += sizeof header + header.length) {
                std::memcpy(&header, &bytes[start], sizeof header);
                given.emplace_back(header.nanoseconds, header.seconds);
                std::string entry = entryOf(header.nanoseconds, header.seconds);
                EXPECT_EQ(bytes.compare(start, slowly ? bytes.size() : entry.size(), entry), 0);
                EXPECT_LT(count++, kMostBatched);
            }
            EXPECT_TRUE(!slowly || controlLogger(device, kRequestSize) == held);
        }
        return given;
    };
    for (bool lossless : {true, false}) {
        LoggerDriver driver;
        ASSERT_TRUE(driver.start({home + "/log"}, held));
        auto first = open(LoggerAccess::ReadBatches), second = open(LoggerAccess::Read);
        auto fast = std::async(std::launch::async, readAll, first.get(), false);
        auto slow = std::async(std::launch::async, readAll, second.get(), true);
        std::vector<std::future<void>> writers; // waited for by their end
        for (int i = 1; i < last; ++i)
            writers.push_back(std::async(std::launch::async, writeAll, i, entries, lossless || i % 2));
        for (int i = 0; i < 20 && !lossless; ++i)
            EXPECT_EQ(controlLogger(first.get(), kRequestFlush), 0);
        writers.clear();
        writeAll(last, 1, true);
        auto late = readAll(open(LoggerAccess::Read).get(), false);
        for (const auto& given : {fast.get(), slow.get()}) {
            EXPECT_TRUE(given.size() >= late.size() &&
                        std::equal(late.rbegin(), late.rend(), given.rbegin()));
            EXPECT_TRUE(!lossless || given.size() == (last - 1) * entries + 1);
            std::map<int, int> before;
            for (auto [writer, number] : given)
                EXPECT_GT(number, std::exchange(before[writer], number));
        }
    }
}
