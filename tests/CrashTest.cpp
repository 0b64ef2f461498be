#include "Fixture.h"

#include <sys/prctl.h>
#include <sys/wait.h>

namespace {

/** Kills the service at random moments and looks at what the next start makes of what it finds. */
class CrashTest : public ServiceTest {
  protected:
    /** Runs the writer and kills it, with or without its shell commands, after a while. */
    void runAndKill(int run, std::mt19937& random) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        pid_t child = fork();
        if (child == 0) {
            setpgid(0, 0);
            dup2(ends[1], 1);
            std::string command = std::string("exec 2>/dev/null ") + CRASH_WRITER + " " + std::to_string(run);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        setpgid(child, child);
        close(ends[1]);
        if (random() % 4 != 0) { // else it is killed while it starts
            char text[16];
            EXPECT_GT(read(ends[0], text, sizeof text), 0) << "the service does not start";
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 120000));
        kill(random() % 2 == 0 ? -child : child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself with " << WEXITSTATUS(status);
        close(ends[0]);
        // A shell command that outlived the service ends first, as it would have to before a restart.
        EXPECT_TRUE(eventually([&] { return waitpid(-1, nullptr, WNOHANG) < 0; }));
    }
    /** What the store can come to hold at most when the start has compressed what is left to compress. */
    uint64_t bytesToCome() {
        uint64_t sum = 0;
        for (auto& entry : fs::recursive_directory_iterator(root)) // the log folder may not be there yet
            sum += entry.is_regular_file() ? entry.file_size() + 100 : 0;
        return sum;
    }
};

} // namespace

TEST_F(CrashTest, KillAtAnyMomentLosesNothingButTheOldest) {
    unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    configure();
    prctl(PR_SET_CHILD_SUBREAPER, 1); // of the shell commands that a killed service leaves
    int kills = std::getenv("VNLOG_LONG_TESTS") != nullptr ? 200 : 8;
    for (int run = 1; run <= kills && !HasFailure(); ++run) {
        SCOPED_TRACE("run " + std::to_string(run) + ", seed " + std::to_string(seed));
        runAndKill(run, random);
        std::string before = stored();
        bool overBound = bytesToCome() + 65536 > 1048576;
        start(false, false);
        std::string after = stored();
        ASSERT_LE(after.size(), before.size());
        EXPECT_EQ(before.compare(before.size() - after.size(), after.size(), after), 0) << "not its end";
        EXPECT_TRUE(after.size() == before.size() || overBound) << "deleted without need";
        EXPECT_LE(storedBytes() + service().mLogSectionSize, 1048576u);
        EXPECT_EQ(storedBytes(), service().mTotalLogSize);
        EXPECT_EQ(service().mMaxLogSize, 1) << "the settings were lost";
        stop();
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}
