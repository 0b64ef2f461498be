#include "Fixture.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/** Kills the service at random moments and looks at what the next start makes of what it finds. */
class CrashTest : public ServiceTest {
  protected:
    /** Finished sections, oldest first, by their text's beginning: which run and line they start with. */
    std::vector<std::string> finishedSections(bool mustBeWhole) {
        std::map<std::pair<unsigned long, unsigned long>, std::string> sections;
        for (auto& folder : fs::directory_iterator(logs)) {
            std::string run = folder.path().filename();
            unsigned long age = run == "current" ? ~0UL : std::stoul(run.substr(run.find('_') + 1));
            for (auto& entry : fs::directory_iterator(folder)) {
                std::string name = entry.path().filename();
                std::string text = entry.path();
                bool archive = entry.path().extension() == ".gz";
                // While the text is there, gzip has not finished the archive.
                if (!archive || exists(text.substr(0, text.size() - 3)))
                    continue;
                std::string content = mustBeWhole || isWhole(entry.path()) ? readGzip(entry.path()) : "";
                sections[{age, std::stoul(name.substr(4))}] = content.substr(0, content.find('\n'));
            }
        }
        std::vector<std::string> ordered;
        for (auto& [key, text] : sections)
            ordered.push_back(text);
        return ordered;
    }
    static bool isWhole(const fs::path& path) {
        return system(("gzip -t " + path.string() + " 2>/dev/null").c_str()) == 0;
    }
    /** Runs the writer and kills it, with or without its shell commands, after a while. */
    void runAndKill(int run, std::mt19937& random) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        pid_t child = fork();
        if (child == 0) {
            setpgid(0, 0);
            dup2(ends[1], 1);
            close(ends[0]);
            close(ends[1]);
            freopen("/dev/null", "w", stderr);
            std::string command = std::string("exec ") + CRASH_WRITER + " " + std::to_string(run);
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
        for (auto& entry : fs::recursive_directory_iterator(logs))
            sum += entry.is_regular_file() ? entry.file_size() + 100 : 0;
        return sum;
    }
    bool removesNothingUnneeded(const std::vector<std::string>& before, const std::vector<std::string>& after,
                                uint64_t bytesBefore) {
        // What is left must be the end of what was there, then what the start itself has compressed.
        for (size_t dropped = 0; dropped <= before.size(); ++dropped) {
            size_t kept = before.size() - dropped;
            if (kept <= after.size() && std::equal(before.begin() + dropped, before.end(), after.begin()))
                return dropped == 0 || bytesBefore + 65536 > 1048576;
        }
        return false;
    }
};

} // namespace

TEST_F(CrashTest, KillAtAnyMomentLosesNoFinishedSection) {
    bool longMode = std::getenv("VNLOG_LONG_TESTS") != nullptr;
    unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    configure();
    prctl(PR_SET_CHILD_SUBREAPER, 1); // of the shell commands that a killed service leaves
    int kills = longMode ? 200 : 8;
    for (int run = 1; run <= kills && !HasFailure(); ++run) {
        runAndKill(run, random);
        std::vector<std::string> before = exists(logs) ? finishedSections(false) : std::vector<std::string>();
        uint64_t bytesBefore = exists(logs) ? bytesToCome() : 0;
        start(false, false);
        std::vector<std::string> after = finishedSections(true);
        EXPECT_TRUE(removesNothingUnneeded(before, after, bytesBefore))
            << "run " << run << " seed " << seed << ": " << before.size() << " sections before, "
            << after.size() << " after, " << bytesBefore << " bytes";
        EXPECT_LE(storedBytes() + service().mLogSectionSize, 1048576u) << "run " << run << " seed " << seed;
        EXPECT_EQ(storedBytes(), service().mTotalLogSize) << "run " << run << " seed " << seed;
        EXPECT_EQ(service().mMaxLogSize, 1) << "the settings were lost in run " << run << " seed " << seed;
        if (HasFailure())
            puts(runCommand("ls -lR " + root + "; cat " + root + "/log_storage.dat").c_str());
        stop();
    }
}

TEST_F(CrashTest, BookkeepingBrokenAnywhereIsMended) {
    configure();
    for (unsigned k = 3; k <= 5; ++k)
        makeSection("last_2", k, "older " + std::to_string(k) + "\n");
    makeSection("last_3", 1, "newer\n");
    std::string text = stored();
    auto total = static_cast<uint32_t>(storedBytes());
    setStorageData(total, 3, 2, 3);
    std::string whole = storageData();
    auto startsWith = [&](const std::string& data) {
        fs::remove(root + "/log_storage.dat");
        writeFile(root + "/log_storage.dat", data);
        start(false, false);
        EXPECT_TRUE(stored() == text) << data;
        bool same =
            service().mHeadFolderNum == 3 && service().mTailFolderNum == 2 && service().mOldestFileNum == 3;
        stop();
        return same;
    };
    for (size_t length = 0; length < whole.size(); ++length)
        startsWith(whole.substr(0, length));
    for (size_t at = 0; at < whole.size(); ++at) {
        for (char bit : {1, 2, 4, 16, 64}) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ bit);
            startsWith(damaged);
        }
    }
    EXPECT_TRUE(startsWith(whole));
    EXPECT_TRUE(startsWith("")) << "rebuilt from the names";
}
