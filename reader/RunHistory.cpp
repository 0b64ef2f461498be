// SPDX-License-Identifier: Apache-2.0
#include "reader/RunHistory.h"

#include "base/Clock.h"
#include "base/Handles.h"
#include "storage/Layout.h"
#include "storage/RunList.h"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr off_t kMostRead = 1 << 20;
constexpr size_t kMostRuns = 8192; ///< the newest are kept
constexpr char kUnknown[] = "-"; ///< a value of the list that nobody knew

/** What the lines of a run tell, one after the other. */
struct ListedRun {
    RunStory story;
    bool archived = false;
    uint32_t folder = 0; ///< M of last_M, 0 for none
};

std::string knownValue(const std::string& value) {
    return value == kUnknown ? "" : value;
}

/** The kernel's log counts from the boot as the uptime does, but that it stands still while the device
 * sleeps, of which the list tells nothing. */
void addPoint(const RunLine& line, int64_t time, std::vector<ClockPoint>* points) {
    constexpr int64_t kMilliseconds = 1000;
    const std::string& uptime = line[RunKey::Uptime];
    if (uptime.empty() || (line.number(RunKey::Uptime) == 0 && uptime != "0"))
        return;
    int64_t since = line.number(RunKey::Uptime);
    while (!points->empty() && points->back().since >= since * kMilliseconds)
        points->pop_back(); // two in one second: the later holds
    points->push_back({since * kMilliseconds, (time - since) * kMilliseconds});
}

void takeLine(const RunLine& line, ListedRun* run) {
    const std::string& event = line[RunKey::Event];
    RunStory& story = run->story;
    if (event == kRunStart)
        *run = {};
    story.number = line.number(RunKey::Run);
    int64_t time = 0;
    if (readLocalDate(line[RunKey::Time], &time, &story.zone)) {
        story.zoneKnown = true;
        addPoint(line, time, &story.points);
        if (event == kRunStart)
            story.start = time;
        else if (event == kRunEnd)
            story.end = time;
    }
    if (event == kRunStart) {
        story.boot = knownValue(line[RunKey::Boot]);
        story.version = knownValue(line[RunKey::Version]);
        story.build = knownValue(line[RunKey::Build]);
        story.continued = !line[RunKey::From].empty();
    }
    story.steps += event == kRunStep ? 1 : 0;
    if (!line[RunKey::How].empty())
        story.how = line[RunKey::How];
    if (event == kRunArchived) {
        run->archived = true;
        run->folder = line.number(RunKey::Archived);
    }
}

/** The newest bytes of a file, as many as are read at most. */
std::string readEnd(const std::string& path) {
    std::string text;
    FileDescriptor file = openFile(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    struct stat info {};
    if (!file.valid() || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return text;
    off_t size = std::min(info.st_size, kMostRead);
    size_t count = 0;
    text.resize(static_cast<size_t>(size));
    bool read = lseek(file.get(), info.st_size - size, SEEK_SET) >= 0 &&
                readPiece(file.get(), text.data(), text.size(), &count);
    text.resize(read ? count : 0);
    return text;
}

} // namespace

void RunHistory::read(const std::string& logs) {
    parse(readEnd(logs + "/" + kRunListFile));
}

void RunHistory::parse(std::string_view list) {
    std::map<uint32_t, ListedRun> runs;
    forEachRunLine(list, [&](std::string_view, const RunLine* line) {
        if (line == nullptr)
            return;
        takeLine(*line, &runs[line->number(RunKey::Run)]);
        if (runs.size() > kMostRuns)
            runs.erase(runs.begin());
    });
    mStories.clear();
    if (!runs.empty() && !runs.rbegin()->second.archived)
        mStories[kCurrentRun] = runs.rbegin()->second.story;
    for (auto& [number, run] : runs) // ascending: the newest run of a folder remains
        if (run.folder > 0)
            mStories[run.folder] = std::move(run.story);
}

const RunStory* RunHistory::find(uint32_t run) const {
    auto found = mStories.find(run);
    return found != mStories.end() ? &found->second : nullptr;
}

} // namespace vnlog
