// SPDX-License-Identifier: Apache-2.0
#include "CutMedium.h"
#include "StoreParts.h"

#include "config/ConfigFile.h"
#include "storage/ProcessFileWork.h"

#include <set>

using namespace vnlog;

namespace {

constexpr uint32_t kLine = 480, kSection = 10 * kLine, kBound = 1 << 20; ///< in bytes

/** A line that hardly compresses, and that nothing else is taken for; there are 200. */
const std::string& line(uint32_t number) {
    static std::vector<std::string> lines;
    for (uint32_t value = 1; lines.size() < 200;) {
        std::string text = std::to_string(1000 + lines.size());
        for (; text.size() < kLine - 1; text += static_cast<char>('!' + (value >> 16) % 90))
            value = value * 1664525 + 1013904223;
        lines.push_back(text + "\n");
    }
    return lines[std::min<size_t>(number, lines.size() - 1)];
}

/** Numbers of the whole lines in a text; before each may be what is left of another one. */
std::vector<uint32_t> linesIn(const std::string& text) {
    std::vector<uint32_t> numbers;
    for (size_t end = 0; (end = text.find('\n', end) + 1) != 0;) {
        std::string last = text.substr(end - std::min<size_t>(end, kLine), kLine);
        auto number = static_cast<uint32_t>(atoi(last.substr(0, 4).c_str()) - 1000);
        if (last == line(number))
            numbers.push_back(number);
    }
    return numbers;
}

std::string settings(ptrdiff_t number) {
    return "MAX_LOG_SIZE=1\nNUMBER=" + std::to_string(number) + "\n";
}

using Kept = CutMedium::Kept;
using Data = CutMedium::Data;

/** Lives of a store that are cut behind each of their steps, and the starts after that as well. */
class PowerCutTest : public FolderTest {
  protected:
    /** In memory where there is a file system for it: thousands of stores are written. */
    PowerCutTest() : FolderTest(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : fs::temp_directory_path()) {
        __android_log_set_logger([](const __android_logger_data*, const char*) {});
    }

    bool start(const std::string& at) {
        run = std::make_unique<StoreParts>(files, sectionSize());
        run->open(at);
        return run->run();
    }
    /** Saves so many lines more. A section is full when it holds ten, whatever its size is said to be. */
    SaveStatus save(uint32_t count) {
        StorageState& state = run->state;
        struct stat info {};
        if (state.mLogFd >= 0 && fstat(state.mLogFd, &info) == 0)
            state.mCurLogSize = state.mLogSectionSize - kSection + static_cast<uint32_t>(info.st_size);
        for (uint32_t end = last + count; last < end;)
            (void)run->ring.put(line(++last).c_str(), kLine);
        return run->store->save(run->ring.used()).status;
    }
    bool saved(uint32_t count) { return save(count) == SaveStatus::Saved; }
    /** The same, closed: from here on these and all before have to be there. */
    bool synced(uint32_t count) {
        bool done = saved(count);
        run->store->closeSection();
        if (CutMedium* life = CutMedium::recording)
            promised.emplace_back(life->steps(), last);
        return done;
    }
    bool saveSettings() {
        begun.push_back(CutMedium::recording.load()->steps());
        std::string text = settings(std::distance(begun.begin(), begun.end()));
        bool done = replaceConfiguration(cfg.c_str(), text.data(), text.size());
        acknowledged.push_back(CutMedium::recording.load()->steps());
        return done;
    }
    /** Leaves so little room that the next cut deletes a section of seven lines, and the one behind it. */
    void narrow() {
        room = static_cast<uint32_t>(storedArchiveBytes(logs)) + 500;
        run->state.mLogSectionSize = kBound - room;
    }
    /** Lets `act` go on from what lies there, cuts that everywhere, and leaves its end. */
    void cutEverywhere(const std::function<bool()>& act) {
        CutMedium life(home, readImage(home));
        ASSERT_TRUE(act());
        life.stop();
        run.reset();
        const Image end = readImage(home);
        ASSERT_EQ(life.image(life.steps(), Kept::All, Data::All), end)
            << "a change that the seam does not show";

        std::set<const Outcome*> cut;
        Due due;
        for (size_t step = 0; step <= life.steps(); ++step) {
            const auto& synced = restart(life.image(step, Kept::Synced, Data::None)).found;
            due.lines.insert(synced.begin(), synced.end());
            for (auto& [since, newest] : promised)
                for (uint32_t number = 1; since <= step && number <= newest; ++number)
                    due.lines.insert(number);
            dropDeleted(life, step, &due.lines);
            due.oldest =
                std::upper_bound(acknowledged.begin(), acknowledged.end(), step) - acknowledged.begin();
            due.newest = std::upper_bound(begun.begin(), begun.end(), step) - begun.begin();
            life.eachState(step, [&](const Image& image) {
                if (chosen())
                    cut.insert(judge(life, step, image, due));
            });
        }
        for (const Outcome* outcome : cut) {
            if (HasFailure())
                return;
            due = {{}, outcome->settings, outcome->settings};
            const CutMedium& start = *outcome->repair;
            for (size_t step = 0; step <= start.steps(); ++step) {
                dropDeleted(start, step, &(due.lines = outcome->found));
                for (Kept names : {Kept::Synced, Kept::All})
                    for (Data data : CutMedium::kData)
                        if (chosen())
                            judge(start, step, start.image(step, names, data), due);
            }
        }
        writeImage(home, end);
        printf("%zu steps, %zu states, %zu with those of the starts\n", life.steps(), cut.size(),
               outcomes.size());
    }

    std::vector<std::string> roots{root}; ///< on which a start has to work
    uint32_t room = 0; ///< for all archives in bytes; with 0 it is plenty
    std::unique_ptr<StoreParts> run;

  private:
    /** What a start has made of an image. */
    struct Outcome {
        std::set<uint32_t> found, left; ///< lines, before and after
        bool full = true; ///< for one section more the oldest would have to go
        ptrdiff_t settings = 0; ///< number of those in log.cfg; 0 for no file, too large for damaged ones
        std::unique_ptr<CutMedium> repair; ///< what was done for it
    };

    /** What has to be there after a cut, and the oldest and newest settings that can be. */
    struct Due {
        std::set<uint32_t> lines;
        ptrdiff_t oldest = 0, newest = 0;
    };

    /** In a slow build a few of the states, at random; in others all. */
    bool chosen() {
        static std::mt19937 random{std::random_device{}()};
        return !VNLOG_SLOW || std::getenv("VNLOG_LONG_TESTS") != nullptr || random() % 16 == 0;
    }

    /** Takes the lines out that are gone for the bound. */
    void dropDeleted(const CutMedium& life, size_t step, std::set<uint32_t>* lines) {
        if (room == 0)
            return;
        const auto& there = restart(life.image(step, Kept::All, Data::All)).found;
        for (auto line = lines->begin(); line != lines->end();)
            line = there.count(*line) > 0 ? std::next(line) : lines->erase(line);
    }

    /** Starts on an image that a cut behind the step of a life leaves. */
    const Outcome* judge(const CutMedium& life, size_t step, const Image& image, const Due& due) {
        if (HasFailure())
            return nullptr;
        const Outcome& outcome = restart(image);
        EXPECT_TRUE(lossAllowed(outcome, due.lines));
        EXPECT_TRUE(outcome.settings >= due.oldest && outcome.settings <= due.newest) << outcome.settings;
        if (!HasFailure())
            return &outcome;
        std::string text;
        for (auto& [path, content] : image)
            text += "\n    " + path + (content ? "=" + std::to_string(content->size()) : "/");
        ADD_FAILURE() << "cut behind step " << step << ", " << life.name(step) << text;
        return nullptr;
    }

    /** Starts on an image, once on each that is the same. */
    Outcome& restart(const Image& image) {
        auto [found, isNew] = outcomes.try_emplace(image);
        Outcome& outcome = found->second;
        if (!isNew)
            return outcome;
        writeImage(home, image);
        for (auto& [path, content] : image) {
            std::string end = fs::path(path).extension(), file = home + "/" + path;
            for (uint32_t number : linesIn(end == ".gz" ? readGzip(file) : end == ".txt" ? *content : ""))
                outcome.found.insert(number);
        }
        outcome.repair = std::make_unique<CutMedium>(home, image);
        for (const std::string& at : roots)
            startOn(at, &outcome);
        outcome.repair->stop();
        std::string text = exists(cfg) ? readFile(cfg) : settings(0);
        while (outcome.settings <= static_cast<ptrdiff_t>(begun.size()) && text != settings(outcome.settings))
            ++outcome.settings;
        return outcome;
    }

    /** A start on this root with all that it has to make of it. */
    void startOn(const std::string& at, Outcome* outcome) {
        StoreParts started(files, sectionSize());
        started.open(at);
        ASSERT_TRUE(started.run());
        const StorageState& state = started.state;
        for (auto& it : fs::recursive_directory_iterator(state.mLogServiceDir))
            EXPECT_TRUE(it.is_directory() || it.path().extension() == ".gz" || it.path().stem() == "runs");
        std::vector<uint32_t> lines = linesIn(storedText(state.mLogServiceDir));
        EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end()));
        for (uint32_t number : lines)
            EXPECT_TRUE(outcome->left.insert(number).second) << "a line is there twice";

        uint64_t archives = storedArchiveBytes(state.mLogServiceDir);
        EXPECT_LE(archives + state.mLogSectionSize, kBound);
        RunTotals runs;
        ASSERT_TRUE(countRuns(state.mLogServiceDir, &runs));
        // One more would take its bytes, and on the medium a block, as would its run's folder and the current
        // one.
        uint64_t section = state.mLogSectionSize, blocks = runs.onMedium + 3 * 4096 + 16384;
        outcome->full =
            outcome->full && (archives + kSection + section > kBound || blocks + 2 * section > 2 * kBound);
        std::ostringstream counted;
        counted << archives << ' ' << (runs.count > 0 ? runs.newest : state.mHeadFolderNum) << ' '
                << (runs.count > 0 ? runs.oldestHolding : state.mHeadFolderNum) << ' '
                << (runs.count > 0 ? runs.oldestSection : state.mOldestFileNum);
        EXPECT_EQ(readFile(state.mStorageDataFile), dataText(counted.str()));
    }

    /** Whether only the oldest is missing, and not one section more than the bound demands. */
    bool lossAllowed(const Outcome& outcome, const std::set<uint32_t>& synced) const {
        std::vector<uint32_t> missing;
        std::set_difference(synced.begin(), synced.end(), outcome.left.begin(), outcome.left.end(),
                            std::back_inserter(missing));
        return missing.empty() ||
               (outcome.full && (outcome.left.empty() || missing.back() < *outcome.left.begin()));
    }

    /** So that what is to be free for the archives is. */
    uint32_t sectionSize() const { return room > 0 ? kBound - room : kSection; }

    ProcessFileWork files; // of which the seam shows all
    uint32_t last = 0; ///< line that was saved
    std::vector<std::pair<size_t, uint32_t>> promised; ///< since which step up to which line all are safe
    std::vector<size_t> begun, acknowledged; ///< how many steps before and after each save of settings
    std::map<Image, Outcome> outcomes;
};

} // namespace

TEST_F(PowerCutTest, CutOfASection) {
    cutEverywhere([&] { return start(root) && synced(7) && saved(7) && synced(3) && saved(9); });
}

TEST_F(PowerCutTest, Start) {
    for (int runs = 0; runs < 2; ++runs)
        ASSERT_TRUE(start(root) && saved(25) && saved(10) && saved(5));
    cutEverywhere([&] { return start(root) && start(root) && synced(4) && start(root); });
}

TEST_F(PowerCutTest, DeletionFromOldRuns) {
    ASSERT_TRUE(start(root) && saved(7) && start(root) && saved(7) && saved(7) && saved(5));
    ASSERT_TRUE(start(root) && saved(10) && saved(10) && saved(10) && saved(10));
    narrow();
    cutEverywhere([&] { return saved(10); });
    EXPECT_FALSE(exists(logs + "/last_1") || exists(logs + "/last_2/log_1.txt.gz"));
}

TEST_F(PowerCutTest, DeletionFromTheCurrentRun) {
    ASSERT_TRUE(start(root) && saved(7) && start(root) && saved(10) && saved(10) && saved(10) && saved(10) &&
                saved(10));
    narrow();
    cutEverywhere([&] { return saved(10); });
    EXPECT_FALSE(exists(logs + "/last_1") || exists(logs + "/current/log_1.txt.gz"));
}

TEST_F(PowerCutTest, RootChange) {
    roots.push_back(home + "/other");
    makeFolder(roots[1]);
    ASSERT_TRUE(start(roots[1]) && saved(7) && saved(7) && start(root) && synced(7));
    cutEverywhere([&] { return (void)run->store->changeRoot(roots[1].c_str()), synced(7); });
}

TEST_F(PowerCutTest, RootChangeWithAnOpenSection) {
    roots.push_back(home + "/other");
    makeFolder(roots[1]);
    ASSERT_TRUE(start(root) && saved(8));
    cutEverywhere([&] {
        EXPECT_EQ(run->store->changeRoot(roots[1].c_str()), RootChangeStatus::Done);
        return save(5) == SaveStatus::RootMoved && synced(0);
    });
}

TEST_F(PowerCutTest, Settings) {
    cutEverywhere([&] { return saveSettings() && saveSettings() && saveSettings(); });
}
