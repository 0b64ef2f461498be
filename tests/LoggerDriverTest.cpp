#include "Fixture.h"
#include "platform/unix/UnixSocket.h"

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

TEST_F(LoggerDriverTest, WhoSaysNothingGivesWayAndWhoHasNoDescriptorWaits) {
    faults.threadsUntilError = 0;
    EXPECT_TRUE(!LoggerDriver().start({home + "/log"}) && errno == EAGAIN && !exists(home + "/log"));
    faults.threadsUntilError = -1;
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}));
    auto reader = open(LoggerAccess::Read);
    starveOfDescriptors(true);
    auto writer = open(LoggerAccess::Write); // takes the last one
    LoggerHeader entry{};
    EXPECT_TRUE(vnlog::writeAll(writer.get(), &entry, sizeof entry));
    starveOfDescriptors(false);
    EXPECT_EQ(read(reader.get(), &entry, sizeof entry), ssize_t{sizeof entry});
    std::vector<vnlog::FileDescriptor> silent(134);
    for (auto& stranger : silent)
        stranger = connectPacketSocket((home + "/log").c_str());
    EXPECT_EQ(controlLogger(writer.get(), kRequestSize), -1) << "while they may still say something";
    EXPECT_TRUE(eventually([&] { return controlLogger(writer.get(), kRequestSize) > 0; }));
    EXPECT_TRUE(vnlog::writeAll(writer.get(), &entry, sizeof entry))
        << "a client that said once what it is stays";
    EXPECT_EQ(read(reader.get(), &entry, sizeof entry), ssize_t{sizeof entry});
}

TEST_F(LoggerDriverTest, MoreLossesThanOneEntryTellsAreToldWithTheNext) {
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}));
    auto reader = open(LoggerAccess::ReadBatches), writer = open(LoggerAccess::WriteLossless);
    for (int i = 0; i < 70000; ++i)
        EXPECT_TRUE(vnlog::writeAll(writer.get(), "no entry", 8));
    LoggerHeader entry{};
    for (int told : {65535, 70000 - 65535, 0}) {
        EXPECT_TRUE(vnlog::writeAll(writer.get(), &entry, sizeof entry));
        EXPECT_EQ(read(reader.get(), &entry, sizeof entry), ssize_t{sizeof entry});
        EXPECT_EQ(entry.padding, told);
    }
}

TEST_F(LoggerDriverTest, WhatAFlushRemovesIsNotLost) {
    const int sent = 400;
    int known = 0;
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}));
    auto reader = open(LoggerAccess::ReadBatches);
    LoggerHeader end{}, header{};
    std::string bytes = deviceEntry(1, 1, std::string(5000, 'x'));
    for (bool flushed : {true, false}) {
        auto writer = open(LoggerAccess::Write);
        for (int i = 0; i < sent / 2; ++i) // more than connection and device hold
            EXPECT_TRUE(vnlog::writeAll(writer.get(), bytes.data(), bytes.size()));
        shutdown(writer.get(), SHUT_WR);
        EXPECT_EQ(read(writer.get(), &header, 1), 0);
        if (flushed) {
            known = controlLogger(reader.get(), kRequestReadable) / static_cast<int>(bytes.size());
            EXPECT_EQ(controlLogger(reader.get(), kRequestFlush), 0);
        }
    }
    EXPECT_TRUE(vnlog::writeAll(open(LoggerAccess::Write).get(), &end, sizeof end));
    do {
        bytes.resize(kMaxLoggerBatch);
        bytes.resize(static_cast<size_t>(read(reader.get(), bytes.data(), bytes.size())));
        for (size_t start = 0; start < bytes.size(); start += sizeof header + header.length) {
            std::memcpy(&header, &bytes[start], sizeof header);
            known += header.padding + (header.length > 0 ? 1 : 0);
        }
    } while (header.length > 0);
    EXPECT_EQ(known, sent);
}

TEST_F(LoggerDriverTest, ReadersGetTheSameEntriesInOrder) {
    const int entries = 1000, last = 5, held = 65536, refused = entries / 10;
    auto entryOf = [](int writer, int number) { // the stamp tells which it is
        return deviceEntry(number, writer, std::string(std::minstd_rand(1U + writer * number)() % 5101, 'x'));
    };
    auto writeAll = [&](int writer, int count, bool lossless) {
        auto device = open(lossless ? LoggerAccess::WriteLossless : LoggerAccess::Write);
        std::string entry;
        for (int i = 1; i <= count; ++i) {
            entry = entryOf(writer, i);
            entry[2] = 1; // a padding, which is the driver's
            for (size_t cut = i % 10 == 0 ? 2 : 1; cut-- > 0;) // one byte short it is no entry
                EXPECT_TRUE(vnlog::writeAll(device.get(), entry.data(), entry.size() - cut));
        }
        shutdown(device.get(), SHUT_WR);
        EXPECT_EQ(read(device.get(), entry.data(), 1), 0); // when everything is taken
    };
    auto readAll = [&](int device, bool slowly, bool batches) {
        std::vector<std::pair<int, int>> given; // writer and number
        std::string bytes;
        int told = 0;
        for (LoggerHeader header{}; !HasFailure() && header.nanoseconds != last;) {
            bytes.resize(kMaxLoggerBatch);
            bytes.resize(static_cast<size_t>(read(device, bytes.data(), bytes.size())));
            for (size_t start = 0, count = 0; start < bytes.size(); start += sizeof header + header.length) {
                std::memcpy(&header, &bytes[start], sizeof header);
                given.emplace_back(header.nanoseconds, header.seconds);
                std::string entry = entryOf(header.nanoseconds, header.seconds);
                told += header.padding;
                bytes[start + 2] = bytes[start + 3] = 0;
                EXPECT_EQ(bytes.compare(start, batches ? entry.size() : bytes.size(), entry), 0);
                EXPECT_LT(count++, kMostBatched);
            }
            EXPECT_TRUE(!slowly || controlLogger(device, kRequestSize) == held);
        }
        return std::pair(given, told);
    };
    enum { Lossless, Lossy, Flushed };
    for (int kind : {Lossless, Lossy, Flushed}) {
        const bool lossless = kind == Lossless;
        LoggerDriver driver;
        ASSERT_TRUE(driver.start({home + "/log"}, held));
        auto first = open(LoggerAccess::ReadBatches), second = open(LoggerAccess::Read);
        auto third = open(LoggerAccess::ReadBatches);
        auto fast = std::async(std::launch::async, readAll, first.get(), false, true);
        auto single = std::async(std::launch::async, readAll, second.get(), true, false);
        auto slow = std::async(std::launch::async, readAll, third.get(), true, true);
        std::vector<std::future<void>> writers; // waited for by their end
        for (int i = 1; i < last; ++i)
            writers.push_back(std::async(std::launch::async, writeAll, i, entries, lossless || i % 2));
        for (int i = 0; i < 20 && kind == Flushed; ++i)
            EXPECT_EQ(controlLogger(first.get(), kRequestFlush), 0);
        writers.clear();
        writeAll(last, 1, true);
        const auto late = readAll(open(LoggerAccess::Read).get(), false, false).first;
        const int sent = (last - 1) * (entries + refused) + 1;
        for (auto* reader : {&fast, &slow, &single}) {
            const auto [given, told] = reader->get();
            const int known = static_cast<int>(given.size()) + told;
            EXPECT_TRUE(reader == &single ? told == 0 : known == sent || (kind == Flushed && known < sent));
            EXPECT_TRUE(given.size() >= late.size() &&
                        std::equal(late.rbegin(), late.rend(), given.rbegin()));
            EXPECT_TRUE(!lossless || given.size() == (last - 1) * entries + 1);
            std::map<int, int> before;
            for (auto [writer, number] : given)
                EXPECT_GT(number, std::exchange(before[writer], number));
        }
    }
}
