// SPDX-License-Identifier: Apache-2.0
#include "buffer/Ring.h"

#include "Fixture.h"

#include <sys/mman.h>
#include <sys/wait.h>

using namespace vnlog;

namespace {

/** The test is the medium and the consumer, which drains into a file that begins anew each time. */
class RingTest : public FolderTest, protected Medium {
  protected:
    RingTest() { state.mFlushThreadRunning = ring.create(); }
    ~RingTest() override { ring.release(); }
    uint32_t freeBytes() override { return ~0U; }
    PutResult put(const std::string& text) { return ring.put(text.data(), uint32_t(text.size())); }
    /** Makes a new ring, without space and with the post of a drain that nobody waited for. */
    void renew() {
        ring.release();
        EXPECT_TRUE(ring.create());
        EXPECT_EQ(take(1).count, 0u);
        EXPECT_EQ(put(std::string(kLogBufSize, 'f')).status, PutStatus::Stored);
    }
    int reportedWaits() { return loggedTimes("not enough log buffer for 1000 byte, free size 0 byte\n"); }
    /** How often the flush thread, which is not there, has been woken. */
    int posts() {
        int count = -1;
        EXPECT_EQ(sem_getvalue(&state.mLogBuf->sem_read, &count), 0);
        return count;
    }
    /** Begins anew with a memory file, after something has been done to it. */
    void adopt(const std::function<void()>& change = [] {}) {
        ring.release();
        ring.closeMemory();
        change();
        EXPECT_TRUE(ring.create(home.c_str()) && ring.persistent());
    }
    TakeResult take(uint32_t wanted) {
        EXPECT_EQ(ftruncate(file.get(), lseek(file.get(), 0, SEEK_SET)), 0);
        return ring.take(file.get(), wanted);
    }

    FileDescriptor file = openFile((home + "/out").c_str(), O_RDWR | O_CREAT, 0600);
    RingState state;
    Ring ring{state, *this};
};

} // namespace

TEST_F(RingTest, AgreesWithAQueueOfBytesWhateverIsPutOrTakenOrFails) {
    std::mt19937 random(7);
    auto upTo = [&](uint32_t limit) { return std::uniform_int_distribution<uint32_t>(0, limit)(random); };
    std::string content(2 * kLogBufSize, 0), queue;
    std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random()); });
    uint32_t drained = 0, lost = 0;
    for (int step = 0; step < 1500 && !HasFailure(); ++step) {
        auto used = static_cast<uint32_t>(queue.size()), space = kLogBufSize - used;
        if (upTo(1) == 0) {
            LossLines told;
            ring.losses().write(&told);
            uint32_t ahead = told.length, free = space - std::min(space, ahead);
            const uint32_t lengths[] = {upTo(3000), free, free + 1, upTo(kLogBufSize + 1)};
            std::string text = content.substr(upTo(kLogBufSize - 1), lengths[upTo(3)]);
            bool full = upTo(1) == 0;
            ring.drainFailed(full); // so that a writer without space comes back
            uint32_t size = uint32_t(text.size()), all = size + (ahead + size <= kLogBufSize ? ahead : 0);
            PutStatus expected = text.empty()                ? PutStatus::NotInService
                                 : text.size() > kLogBufSize ? PutStatus::TooLong
                                 : all <= space              ? PutStatus::Stored
                                 : full                      ? PutStatus::StorageFull
                                                             : PutStatus::Refused;
            EXPECT_EQ(put(text).status, expected);
            queue += expected == PutStatus::Stored ? std::string(told.text, all - size) + text : "";
            if (expected == PutStatus::Refused || expected == PutStatus::TooLong)
                lost += std::max(1U, uint32_t(std::count(text.begin(), text.end(), '\n')));
        } else {
            uint32_t wanted = upTo(upTo(1) == 0 ? 2000 : kLogBufSize) + 1, count = std::min(wanted, used);
            uint32_t first = std::min(count, kLogBufSize - drained % kLogBufSize); // the piece up to the end
            uint32_t cut = upTo(1), works = upTo(3); // one write of a byte only, writes before all fail
            uint32_t forFirst = std::min(first, 1 + cut), forAll = forFirst + (count > first ? 1 : 0);
            faults.shortWrite = static_cast<int>(cut);
            faults.writesUntilError = static_cast<int>(works);
            faults.writeError = EIO;
            uint32_t taken = take(wanted).count;
            faults.disarm();
            EXPECT_EQ(taken, works < forAll ? 0 : count);
            EXPECT_TRUE(readFile(home + "/out") == queue.substr(0, taken))
                << "nothing stays of a drain that failed";
            EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), static_cast<off_t>(taken)) << "goes on there";
            queue.erase(0, taken);
            drained += taken;
        }
        EXPECT_EQ(ring.used(), queue.size());
        EXPECT_EQ(ring.losses().total(Loss::Refused) + ring.losses().total(Loss::TooLong), lost);
    }
}

TEST_F(RingTest, WaitEndsWithADrainAFullMediumAFailingDrainTheReleaseOrTheThread) {
    const std::pair<PutStatus, std::function<void(std::thread & writer)>> rows[] = {
        {PutStatus::Stored, [&](auto&) { take(1200); }},
        {PutStatus::StorageFull, [&](auto&) { ring.drainFailed(true); }},
        {PutStatus::Refused, [&](auto&) { ring.drainFailed(false); }},
        {PutStatus::NotInService, [](auto& writer) { pthread_cancel(writer.native_handle()); }},
        {PutStatus::Closed, [&](auto&) { ring.release(); }},
    };
    for (auto& [expected, endOneWait] : rows) {
        renew();
        forgetLog();
        std::vector<std::thread> writers;
        std::vector<PutStatus> ends(2, PutStatus::NotInService); // of those that are cancelled
        for (int i = 0; i < 2; ++i) {
            writers.emplace_back([&, end = &ends[i]] { *end = put(std::string(1000, 'w')).status; });
            EXPECT_TRUE(eventually([&] { return reportedWaits() + int(ring.unsaidWaits()) > i; }));
        }
        for (auto& writer : writers)
            endOneWait(writer);
        for (auto& writer : writers)
            writer.join();
        EXPECT_EQ(ends, std::vector<PutStatus>(2, expected));
        EXPECT_EQ(reportedWaits() + int(ring.unsaidWaits()), 2) << "once for each";
        EXPECT_EQ(ring.waiting() + ring.inside(), 0u);
    }
}

TEST_F(RingTest, FlushThreadIsWokenOnceAndOnlyWhenThereIsWork) {
    state.mFlushInterval = 0;
    put(std::string(kFlushThreshold, 'x'));
    EXPECT_EQ(posts(), 0);
    for (int i = 0; i < 3; ++i)
        put("x");
    EXPECT_EQ(posts(), 1) << "above the threshold";
    EXPECT_TRUE(ring.waitForWork());
    put("x");
    EXPECT_EQ(posts(), 0) << "it looks again before it waits";
    EXPECT_TRUE(ring.waitForWork()) << "without a post, for there is more than the threshold";
    take(kLogBufSize);
    for (Flag* wanted : {&state.mFlushAll, &state.mFlushSwitch}) {
        std::thread consumer([&] { EXPECT_TRUE(ring.waitForWork()); });
        *wanted = true;
        put("x");
        consumer.join();
        take(kLogBufSize);
        *wanted = false;
    }
    EXPECT_EQ(posts(), 0);
}

TEST_F(RingTest, KillAtAnyMomentLosesAndDoublesNothing) {
    constexpr uint32_t kLives = 300;
    using Shared = std::atomic<uint32_t>; // lines put in each life; at the end those lost in all lives
    auto done =
        static_cast<Shared*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    auto begin = [&] {
        adopt();
        file = openFile((home + "/out").c_str(), O_RDWR);
        EXPECT_TRUE(!ring.interrupted() || ring.freeWritten(file.get()));
        lseek(file.get(), 0, SEEK_END);
        ring.announce();
    };
    std::mt19937 random(7);
    for (uint32_t life = 0; life < kLives; ++life, random.discard(1000)) {
        pid_t child = fork();
        if (child == 0)
            begin(), alarm(60);
        while (child == 0) {
            ring.losses().add(Loss::Unread, 1);
            ++done[kLives];
            std::string line = std::to_string(life) + ' ' + std::to_string(done[life] + 1);
            put(line.append(random() % 500, 'x') + '\n');
            ++done[life];
            faults.shortWrite = int(random() % 20000);
            faults.writeDelayUs = 20;
            if (ring.used() > 100000 || random() % 32 == 0)
                ring.take(file.get(), uint32_t(random()) % kLogBufSize + 1);
        }
        usleep(random() % 4000);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    begin();
    ring.take(file.get(), kLogBufSize);
    std::istringstream text(readFile(home + "/out"));
    std::vector<uint32_t> lines(kLives);
    uint32_t told = ring.losses().untold(Loss::Unread), count = 0, life = 0;
    for (std::string line; std::getline(text, line);) {
        if (line[0] == '-')
            told += sscanf(line.c_str(), "--------- %u lines lost", &count) == 1 ? count : 0;
        else if (sscanf(line.c_str(), "%u %u", &life, &count) != 2 || count != ++lines.at(life))
            ADD_FAILURE() << line.substr(0, 40);
    }
    for (life = 0; life < kLives; ++life) // the kill may have come before the last was counted
        EXPECT_LE(lines[life] - done[life], 1u) << life;
    EXPECT_LE(told - done[kLives], kLives);
}

TEST_F(RingTest, DamagedMemoryFileShowsWholeLinesOnlyAndIsSharedByNobody) {
    const std::string name = home + "/ring", lines = "one\ntwo\nthree\n";
    adopt();
    put(std::string(1000, 'x') + '\n' + lines);
    take(1001);
    put("half");
    const std::string saved = readFile(name);
    auto found = [&](const std::string& content) {
        adopt([&] { writeFile(name, content); });
        take(kLogBufSize);
        return readFile(home + "/out");
    };
    for (size_t test = 0; test < 3 * 128; ++test) {
        std::string broken = saved;
        broken[test / 3] ^= "\001\020\377"[test % 3];
        EXPECT_EQ(found(broken), test / 3 < 24 ? "" : lines) << test;
    }
    for (size_t length : {0, 127, 131199, 131200, 131201})
        EXPECT_EQ(found((saved + "x").substr(0, length)), length == 131200 ? lines : "");
    ring.release();
    Ring other(state, *this);
    EXPECT_TRUE(other.create(home.c_str()) && !other.persistent() && logged("is used by another service"));
    other.release();
}
