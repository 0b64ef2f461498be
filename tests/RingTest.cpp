#include "buffer/Ring.h"

#include "Fixture.h"

#include <sys/mman.h>
#include <sys/wait.h>

using namespace vnlog;

namespace {

/** The test is the medium and the consumer, which drains into a file that begins anew each time. */
class RingTest : public FolderTest, protected Medium {
  protected:
    RingTest() {
        state.mFlushThreadRunning = ring.create();
        state.mFlushInterval = 0;
    }
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
    std::string linesAbout(const std::map<Loss, uint32_t>& losses) {
        std::string lines;
        for (Loss why : {Loss::StorageFull, Loss::Dropped, Loss::Refused, Loss::TooLong, Loss::Unread}) {
            if (losses.count(why) != 0)
                lines += "--------- " + std::to_string(losses.at(why)) +
                         " lines lost here: " + lossText(why) + '\n';
        }
        return lines;
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
    std::map<Loss, uint32_t> lost;
    auto lose = [&](Loss why, const std::string& text) {
        lost[why] += std::max(1U, uint32_t(std::count(text.begin(), text.end(), '\n')));
    };
    std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random()); });
    uint32_t drained = 0;
    for (int step = 0; step < 1500 && !HasFailure(); ++step) {
        auto used = static_cast<uint32_t>(queue.size()), space = kLogBufSize - used;
        if (upTo(1) == 0) {
            std::string ahead = linesAbout(lost);
            const uint32_t free = space - std::min(space, uint32_t(ahead.size()));
            const uint32_t lengths[] = {upTo(3000), free, free + 1, upTo(kLogBufSize + 1)};
            std::string text = content.substr(upTo(kLogBufSize - 1), lengths[upTo(3)]);
            bool full = upTo(1) == 0;
            ring.drainFailed(full); // so that a writer without space comes back
            if (ahead.size() + text.size() > kLogBufSize)
                ahead.clear(); // they wait for the next one
            PutStatus expected = text.empty()                ? PutStatus::NotInService
                                 : text.size() > kLogBufSize ? PutStatus::TooLong
                                 : ahead.size() + text.size() > space
                                     ? full ? PutStatus::StorageFull : PutStatus::Refused
                                     : PutStatus::Stored;
            EXPECT_EQ(put(text).status, expected);
            if (expected == PutStatus::Stored) {
                queue += ahead + text;
                if (!ahead.empty())
                    lost.clear();
            } else if (expected == PutStatus::TooLong || expected == PutStatus::Refused) {
                lose(expected == PutStatus::TooLong ? Loss::TooLong : Loss::Refused, text);
            } else if (upTo(9) == 0) {
                ring.losses().add(Loss::Unread, 1);
                lose(Loss::Unread, "");
            }
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

/** What is shared with the lives that are killed: what each of them has put, and lost, so far. */
struct Progress {
    std::atomic<uint32_t> life, lines[400], lost;
};

TEST_F(RingTest, KillAtAnyMomentLosesAndDoublesNothingThatWasTaken) {
    const std::string folder = home + "/run", stored = home + "/out";
    makeFolder(folder);
    ring.release();
    ring.closeMemory();
    auto shared = static_cast<Progress*>(
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    auto begin = [&] {
        EXPECT_TRUE(ring.create(folder.c_str()) && ring.persistent());
        file = openFile(stored.c_str(), O_RDWR);
        EXPECT_TRUE(!ring.interrupted() || ring.freeWritten(file.get()));
        lseek(file.get(), 0, SEEK_END);
        ring.announce();
    };
    std::mt19937 random(7);
    const int lives = 300;
    for (int life = 0; life < lives; ++life) {
        pid_t child = fork();
        if (child == 0) {
            begin();
            for (uint32_t step = 0;; ++step) {
                if (random() % 8 == 0) {
                    ring.losses().add(Loss::Unread, 1);
                    ++shared->lost;
                }
                const std::string number =
                    std::to_string(life) + ' ' + std::to_string(shared->lines[life] + 1);
                put(number + std::string(random() % 500, 'x') + '\n');
                ++shared->lines[life];
                faults.shortWrite = int(random() % 20000);
                faults.writeDelayUs = 20;
                if (ring.used() > 100000 || random() % 32 == 0)
                    ring.take(file.get(), uint32_t(random()) % kLogBufSize + 1);
            }
        }
        usleep(random() % 4000); // any moment will do
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        random.discard(1000);
    }
    begin();
    EXPECT_TRUE(ring.resumed());
    ring.take(file.get(), kLogBufSize);
    std::istringstream text(readFile(stored));
    std::vector<uint32_t> lines(lives);
    uint32_t told = 0, notes = 0;
    for (std::string line; std::getline(text, line);) {
        unsigned life = 0, number = 0, count = 0;
        if (sscanf(line.c_str(), "--------- %u lines lost", &count) == 1)
            told += count;
        else if (line.rfind("--------- the lines above were", 0) == 0)
            ++notes;
        else if (sscanf(line.c_str(), "%u %u", &life, &number) != 2 || life >= lines.size() ||
                 ++lines[life] != number)
            ADD_FAILURE() << line.substr(0, 40) << " is not the next line";
    }
    for (int life = 0; life < lives; ++life)
        EXPECT_TRUE(lines[life] == shared->lines[life] || lines[life] == shared->lines[life] + 1) << life;
    told += ring.losses().untold(Loss::Unread);
    EXPECT_TRUE(told >= shared->lost && told <= shared->lost + lives) << told << ' ' << shared->lost;
    EXPECT_GT(notes, 50u);
    munmap(shared, sizeof(Progress));
}

TEST_F(RingTest, DamagedMemoryFileShowsWholeLinesOnlyAndIsSharedByNobody) {
    const std::string folder = home + "/run", name = folder + "/ring", lines = "one\ntwo\nthree\n";
    makeFolder(folder);
    auto open = [&](auto breakIt) {
        ring.release();
        ring.closeMemory();
        breakIt();
        EXPECT_TRUE(ring.create(folder.c_str()));
        take(kLogBufSize);
        return readFile(home + "/out");
    };
    open([] {});
    put(std::string(1000, 'x') + '\n');
    put(lines);
    take(1001);
    put("half");
    const std::string saved = readFile(name);
    ASSERT_EQ(saved.size(), 131200u);
    for (size_t place = 0; place < 128; ++place) {
        for (int bits : {1, 16, 255}) {
            std::string found = open([&] {
                std::string broken = saved;
                broken[place] = static_cast<char>(broken[place] ^ bits);
                writeFile(name, broken);
            });
            EXPECT_TRUE(found == lines || (place < 24 && found.empty()))
                << place << ": " << found.substr(0, 40);
        }
    }
    for (size_t length : {0, 127, 131199, 131201})
        EXPECT_EQ(open([&] { writeFile(name, std::string(saved + "x").substr(0, length)); }), "");
    EXPECT_EQ(open([&] { writeFile(name, saved); }), lines);
    RingState otherState;
    Ring other(otherState, *this);
    EXPECT_TRUE(other.create(folder.c_str()) && ring.persistent() && !other.persistent());
    EXPECT_TRUE(logged("ring] is used by another service"));
    other.release();
}
