// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"
#include "platform/unix/UnixSocket.h"

#include <future>
#include <sys/socket.h>
#include <sys/wait.h>

using namespace vnlog::platform;

struct LoggerDriverTest : FolderTest {
    vnlog::FileDescriptor open(LoggerAccess access) { return openLogger((home + "/log").c_str(), access); }
};

TEST_F(LoggerDriverTest, WhoSaysNothingGivesWayAndWhoHasNoDescriptorWaits) {
    faults.threadsUntilError = 0;
    EXPECT_TRUE(!LoggerDriver().start({home + "/log"}) && errno == EAGAIN && !exists(home + "/log"));
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}));
    const int before = openDescriptors();
    auto reader = open(LoggerAccess::Read);
    ASSERT_TRUE(eventually([&] { return openDescriptors() == before + 2; })); // the driver has its end, too
    starveOfDescriptors(true);
    auto writer = open(LoggerAccess::Write); // takes the last one
    LoggerHeader entry{}; // without a payload
    ASSERT_TRUE(vnlog::writeAll(writer.get(), &entry, sizeof entry));
    starveOfDescriptors(false);
    EXPECT_EQ(read(reader.get(), &entry, sizeof entry), ssize_t{sizeof entry});
    auto answered = [&] { return controlLogger(writer.get(), kRequestSize) > 0; };
    std::vector<vnlog::FileDescriptor> silent(134); // 136 with the two, eight of them for their own process
    for (auto& stranger : silent) {
        EXPECT_TRUE(answered());
        stranger = connectPacketSocket((home + "/log").c_str());
    }
    EXPECT_TRUE(!answered() && eventually(answered)) << "only once they could have said something";
}

TEST_F(LoggerDriverTest, AReaderIsToldAllThatItLostButWhatAFlushRemoved) {
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}));
    const auto reader = open(LoggerAccess::ReadBatches);
    const auto write = [&](int count, const std::string& packet) {
        auto writer = open(LoggerAccess::Write);
        for (int i = 0; i < count; ++i)
            EXPECT_TRUE(vnlog::writeAll(writer.get(), packet.data(), packet.size()));
        shutdown(writer.get(), SHUT_WR);
        EXPECT_EQ(read(writer.get(), &count, 1), 0); // when everything is taken
    };
    const std::string large = deviceEntry(1, 1, std::string(5000, 'x'));
    write(200, large); // more than connection and device hold
    int known = controlLogger(reader.get(), kRequestReadable) / static_cast<int>(large.size());
    EXPECT_EQ(controlLogger(reader.get(), kRequestFlush), 0);
    write(200, large);
    write(70000, "no entry"); // more than one entry tells
    write(1, std::string(sizeof(LoggerHeader), '\0'));
    char bytes[kMaxLoggerBatch];
    LoggerHeader header{1, 0, 0, 0, 0, 0};
    for (ssize_t next = 0, end = 0; header.length > 0; next += sizeof header + header.length) {
        if (next == end)
            end = read(reader.get(), bytes, sizeof bytes), next = 0;
        std::memcpy(&header, bytes + next, sizeof header);
        known += header.padding + (header.length > 0 ? 1 : 0);
    }
    EXPECT_EQ(known, 200 + 200 + 70000);
}

TEST_F(LoggerDriverTest, OthersMayWriteButNeitherReadNorThrowAway) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root has others";
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}) && chmod(home.c_str(), 0755) == 0);
    const std::string entry = deviceEntry(1, 1, "kept");
    const pid_t other = fork();
    if (other == 0) {
        const bool changed = setresuid(65534, 65534, 65534) == 0;
        auto writer = open(LoggerAccess::Write), reader = open(LoggerAccess::ReadBatches);
        char byte;
        const bool written = vnlog::writeAll(writer.get(), entry.data(), entry.size());
        _exit(changed && written && read(reader.get(), &byte, 1) == 0 &&
                      controlLogger(writer.get(), kRequestReadable) > 0 &&
                      controlLogger(writer.get(), kRequestFlush) < 0
                  ? 0
                  : 1);
    }
    int status = -1;
    EXPECT_TRUE(waitpid(other, &status, 0) == other && status == 0);
    char bytes[kMaxLoggerEntry];
    auto reader = open(LoggerAccess::Read);
    EXPECT_EQ(read(reader.get(), bytes, sizeof bytes), static_cast<ssize_t>(entry.size()));
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
        size_t told = 0;
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
    for (auto [lossless, flushed] : {std::pair(true, false), {false, false}, {false, true}}) {
        LoggerDriver driver;
        ASSERT_TRUE(driver.start({home + "/log"}, held));
        vnlog::FileDescriptor readers[] = {open(LoggerAccess::ReadBatches), open(LoggerAccess::ReadBatches),
                                           open(LoggerAccess::Read)};
        auto fast = std::async(std::launch::async, readAll, readers[0].get(), false, true);
        auto slow = std::async(std::launch::async, readAll, readers[1].get(), true, true);
        auto single = std::async(std::launch::async, readAll, readers[2].get(), true, false);
        std::vector<std::future<void>> writers; // waited for by their end
        for (int i = 1; i < last; ++i)
            writers.push_back(std::async(std::launch::async, writeAll, i, entries, lossless || i % 2));
        for (int i = 0; i < 20 && flushed; ++i)
            EXPECT_EQ(controlLogger(readers[0].get(), kRequestFlush), 0);
        writers.clear();
        writeAll(last, 1, true);
        const auto late = readAll(open(LoggerAccess::Read).get(), false, false).first;
        const size_t sent = (last - 1) * (entries + refused) + 1;
        for (auto* reader : {&fast, &slow, &single}) {
            const auto [given, told] = reader->get();
            const size_t known = given.size() + told;
            EXPECT_TRUE(reader == &single ? told == 0 : known == sent || (flushed && known < sent));
            EXPECT_TRUE(given.size() >= late.size() &&
                        std::equal(late.rbegin(), late.rend(), given.rbegin()));
            EXPECT_TRUE(!lossless || given.size() == (last - 1) * entries + 1);
            std::map<int, int> before;
            for (auto [writer, number] : given)
                EXPECT_GT(number, std::exchange(before[writer], number));
        }
    }
}
