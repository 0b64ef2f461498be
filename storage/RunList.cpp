// SPDX-License-Identifier: Apache-2.0
#include "storage/RunList.h"

#include "base/Clock.h"
#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/FileSteps.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr const char* kKeys[kRunKeys] = {"run",   "event", "time", "uptime", "boot",    "version",
                                         "build", "from",  "step", "how",    "archived"};
constexpr const char* kEvents[] = {kRunStart, kRunStep, kRunEnd, kRunArchived};
constexpr off_t kLargest = 65536; ///< bytes; of a larger file the newest half of that is kept
constexpr int64_t kLeastStep = 61; ///< seconds
constexpr size_t kLongestWord = 64;

/** Keeps errno, and a thread from being cancelled: the file is opened in between, and so are others by libc.
 */
struct Aside {
    CancelGuard guard;
    int error = errno;
    ~Aside() { errno = error; }
};

int64_t clockOffset() {
    return secondsOf(CLOCK_REALTIME) - secondsOf(CLOCK_BOOTTIME);
}

/** Milliseconds of a clock of the system. */
int64_t millisecondsOf(clockid_t clock) {
    timespec now{};
    (void)clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/** A text as a value: "-" for none. */
std::string word(const char* text) {
    std::string value(text != nullptr ? text : "", text != nullptr ? strnlen(text, kLongestWord) : 0);
    for (char& c : value)
        c = static_cast<unsigned char>(c) <= ' ' || c == '\x7f' ? '_' : c;
    return value.empty() ? "-" : value;
}

std::string bootId(const char* systemRoot) {
    Path path;
    formatText(path.text, "%s/proc/sys/kernel/random/boot_id", systemRoot);
    Stream file = openForReading(path.text);
    if (file == nullptr && systemRoot[0] != '\0')
        return bootId("");
    char line[kLongestWord] = {};
    bool read = file != nullptr && std::fgets(line, sizeof line, file.get()) != nullptr;
    line[std::strcspn(line, "\n")] = '\0';
    return word(read ? line : nullptr);
}

Path listPath(const char* logs) {
    return entryPath(logs, kRunListFile);
}

bool readAll(int file, off_t from, std::string* text, size_t size) {
    size_t count = 0;
    text->resize(size);
    bool done = lseek(file, from, SEEK_SET) >= 0 && readPiece(file, text->data(), size, &count);
    text->resize(count);
    return done;
}

} // namespace

uint32_t RunLine::number(RunKey key) const {
    const std::string& digits = (*this)[key];
    bool ours = !digits.empty() && digits.size() < 10 &&
                digits.find_first_not_of("0123456789") == std::string::npos; // as the numbers of folders
    return ours ? static_cast<uint32_t>(std::strtoul(digits.c_str(), nullptr, 10)) : 0;
}

std::string printRunLine(const RunLine& line) {
    std::string text;
    for (size_t key = 0; key < kRunKeys; ++key)
        if (!line.values[key].empty())
            text += (text.empty() ? "" : " ") + std::string(kKeys[key]) + "=" + line.values[key];
    return text;
}

bool parseRunLine(std::string_view text, RunLine* line) {
    *line = {};
    std::string whole(text);
    for (size_t at = 0; at <= text.size();) {
        size_t end = std::min(text.find(' ', at), text.size()), sign = std::min(text.find('=', at), end);
        auto key =
            static_cast<size_t>(std::find(kKeys, kKeys + kRunKeys, text.substr(at, sign - at)) - kKeys);
        if (key == kRunKeys || sign == end)
            return false;
        line->values[key] = text.substr(sign + 1, end - sign - 1);
        at = end + 1;
    }
    // That alone is whole which is printed like this.
    return line->number(RunKey::Run) > 0 && printRunLine(*line) == whole &&
           std::find(std::begin(kEvents), std::end(kEvents), (*line)[RunKey::Event]) != std::end(kEvents) &&
           std::all_of(whole.begin(), whole.end(), [](unsigned char c) { return c >= ' ' && c != 0x7f; });
}

/** What the file holds. */
struct RunList::Found {
    std::string kept; ///< all but the lines of runs that are gone
    bool whole = true; ///< that is all
    bool known = true; ///< the file has been read, or there is none
    RunLine last; ///< of the newest run: its last line
};

/** The newest lines of the file. False when it cannot be read. */
bool RunList::load(const char* logs, std::string* text, bool* whole) {
    FileDescriptor file = openOwnFile(listPath(logs).text, O_RDONLY);
    struct stat info;
    if (!file.valid())
        return errno == ENOENT;
    if (fstat(file.get(), &info) != 0)
        return false;
    *whole = info.st_size <= kLargest;
    off_t size = *whole ? info.st_size : kLargest / 2;
    if (!readAll(file.get(), info.st_size - size, text, static_cast<size_t>(size)))
        return false;
    if (!*whole)
        text->erase(0, text->find('\n') + 1);
    return true;
}

/** The line about a run's folder tells whether it is gone. What is no line of ours stays. */
RunList::Found RunList::read(const char* logs) {
    Found found;
    std::string text;
    found.known = load(logs, &text, &found.whole);
    const Path prefix = entryPath(logs, kRunName);
    std::set<uint32_t> gone;
    forEachRunLine(text, [&](std::string_view, const RunLine* line) {
        if (line == nullptr)
            return;
        if (line->number(RunKey::Run) >= found.last.number(RunKey::Run))
            found.last = *line;
        uint32_t archived = line->number(RunKey::Archived);
        if (archived > 0 && !nameTaken(runFolder(prefix.text, archived).text))
            gone.insert(line->number(RunKey::Run));
    });
    found.whole = found.whole && gone.empty();
    forEachRunLine(text, [&](std::string_view line, const RunLine* parsed) {
        if (parsed == nullptr || gone.count(parsed->number(RunKey::Run)) == 0)
            found.kept.append(line).append("\n");
    });
    return found;
}

namespace {

/** The number in the list of the run in a folder of that name, 0 when the list does not tell. */
uint32_t wantedRun(const std::string& text, const ParsedName& folder) {
    uint32_t newest = 0, wanted = 0;
    forEachRunLine(text, [&](std::string_view, const RunLine* line) {
        if (line == nullptr)
            return;
        const uint32_t run = line->number(RunKey::Run);
        const bool archived = (*line)[RunKey::Event] == kRunArchived;
        if (folder.kind == NameKind::Run)
            wanted = archived && line->number(RunKey::Archived) == folder.number ? run : wanted;
        else if (folder.kind == NameKind::Current && run >= newest)
            wanted = archived ? 0 : run; // what is archived is there no more
        newest = std::max(newest, run);
    });
    return wanted;
}

/** Takes from a line about a run what it tells of the run's clock. */
void takeClock(const RunLine& line, SectionOrigin* origin) {
    const std::string& event = line[RunKey::Event];
    int64_t seconds = 0;
    int32_t zone = 0;
    if (!readLocalDate(line[RunKey::Time], &seconds, &zone))
        return;
    origin->zone = zone;
    origin->zoneKnown = true;
    const int64_t uptime = line.number(RunKey::Uptime);
    if (event == kRunStart)
        origin->points = {{0, (seconds - uptime) * 1000}};
    else if (event == kRunStep)
        origin->points.push_back({uptime * 1000, (seconds - uptime) * 1000});
    if (origin->points.size() > kMostPoints)
        origin->points.erase(origin->points.begin());
}

} // namespace

SectionOrigin recordedOrigin(const char* logs, const char* run) {
    Aside aside;
    SectionOrigin origin;
    try {
        std::string text;
        bool whole = true;
        if (!RunList::load(logs, &text, &whole))
            return {};
        const uint32_t wanted = wantedRun(text, parseName(lastName(run)));
        forEachRunLine(text, [&](std::string_view, const RunLine* line) {
            if (line == nullptr || wanted == 0 || line->number(RunKey::Run) != wanted)
                return;
            origin.run = wanted;
            if ((*line)[RunKey::Event] == kRunStart)
                origin.boot = (*line)[RunKey::Boot] == "-" ? "" : (*line)[RunKey::Boot];
            takeClock(*line, &origin);
        });
        origin.rough = origin.points.size() == 1;
    } catch (const std::bad_alloc&) {
        return {};
    }
    return origin;
}

/** Does a piece of work, for which there may be no memory: nothing else is to suffer from that. */
template <typename Work> void RunList::attempt(Work work) {
    Aside aside;
    try {
        work();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        report(kRunListFile, false);
    }
}

void RunList::begin(const char* logs, uint32_t newest, uint32_t archived, const char* from) {
    attempt([&] { writeStart(logs, newest, archived, from); });
}

void RunList::writeStart(const char* logs, uint32_t newest, uint32_t archived, const char* from) {
    Found found = read(logs);
    std::string text;
    uint32_t last = found.last.number(RunKey::Run);
    const std::string& event = found.last[RunKey::Event];
    if (last > 0 && event != kRunArchived) {
        RunLine line;
        line[RunKey::Run] = std::to_string(last);
        line[RunKey::Event] = kRunArchived;
        line[RunKey::How] = event == kRunEnd ? found.last[RunKey::How] : kRunNoEnd;
        line[RunKey::Archived] = std::to_string(archived);
        text = printRunLine(line) + "\n";
    }
    if (from == nullptr)
        describeStart();
    uint32_t before = found.known ? (last > 0 ? last : newest) : std::max(newest, mStart.number(RunKey::Run));
    mStart[RunKey::Run] = std::to_string(before + 1);
    if (from == nullptr)
        mStart[RunKey::From].clear();
    else if (mStart[RunKey::From].empty())
        mStart[RunKey::From] = from;
    text += printRunLine(mStart) + "\n";
    if (found.whole || !found.known)
        append(logs, text);
    else
        replace(logs, found.kept + text);
}

/** A line about the present run, and about now. */
RunLine RunList::lineNow(const char* event) const {
    RunLine line;
    line[RunKey::Run] = mStart[RunKey::Run];
    line[RunKey::Event] = event;
    line[RunKey::Time] = localDate(static_cast<time_t>(secondsOf(CLOCK_REALTIME)));
    line[RunKey::Uptime] = std::to_string(secondsOf(CLOCK_BOOTTIME));
    return line;
}

void RunList::describeStart() {
    mOffset = clockOffset();
    mPoints.clear();
    watchKernelClock();
    mStart = lineNow(kRunStart);
    mStart[RunKey::Boot] = bootId(mSystemRoot.path);
    mStart[RunKey::Version] = VNLOG_VERSION;
    mStart[RunKey::Build] = word(std::getenv("VNLOG_BUILD_ID"));
}

void RunList::end(const char* logs, const char* how) {
    if (!begun())
        return;
    attempt([&] {
        watchClock(logs);
        RunLine line = lineNow(kRunEnd);
        line[RunKey::How] = how;
        append(logs, printRunLine(line) + "\n");
    });
    if (std::strcmp(how, kRunMoved) != 0)
        forget();
}

/**
 * Follows the clock that stamps the kernel's lines, which stands still while the system sleeps: a sleep puts
 * the wall clock ahead of it as a step does. What it drifts moves the newest point.
 */
void RunList::watchKernelClock() {
    constexpr int64_t kLeastDifference = 1000;
    const int64_t since = millisecondsOf(CLOCK_MONOTONIC), offset = millisecondsOf(CLOCK_REALTIME) - since;
    if (!mPoints.empty() && std::abs(mPoints.back().offset - offset) < kLeastDifference) {
        mPoints.back().offset = offset;
        return;
    }
    if (mPoints.size() == kMostPoints)
        mPoints.erase(mPoints.begin());
    mPoints.push_back({mPoints.empty() ? 0 : since, offset});
}

SectionOrigin RunList::origin() {
    SectionOrigin origin;
    if (!begun())
        return origin;
    attempt([&] {
        watchKernelClock();
        origin.run = mStart.number(RunKey::Run);
        if (mStart[RunKey::Boot] != "-")
            origin.boot = mStart[RunKey::Boot];
        origin.points = mPoints;
    });
    return origin; // the zone is that of the environment
}

void RunList::watchClock(const char* logs) {
    if (begun())
        attempt([&] { watchKernelClock(); });
    int64_t offset = clockOffset(), step = offset - mOffset;
    mOffset = offset;
    if (!begun() || std::abs(step) < kLeastStep)
        return;
    attempt([&] {
        RunLine line = lineNow(kRunStep);
        line[RunKey::Step] = std::to_string(step);
        append(logs, printRunLine(line) + "\n");
    });
}

void RunList::trim(const char* logs) {
    attempt([&] {
        Found found = read(logs);
        if (!found.whole && found.known)
            replace(logs, found.kept);
    });
}

/** Appends lines, on one of their own where the last was cut off. */
void RunList::append(const char* logs, const std::string& text) {
    Path path = listPath(logs);
    FileDescriptor file = openOwnFile(path.text, O_RDWR | O_CREAT | O_APPEND, kRunListMode);
    off_t size = file.valid() ? lseek(file.get(), 0, SEEK_END) : -1;
    std::string last;
    bool cut = size > 0 && readAll(file.get(), size - 1, &last, 1) && last != "\n";
    std::string lines = (cut ? "\n" : "") + text;
    report(path.text, size >= 0 && writeAll(file.get(), lines.data(), lines.size()) &&
                          fsync(file.get()) == 0 && (size > 0 || syncFolderOf(path.text)));
}

void RunList::replace(const char* logs, const std::string& text) {
    Path path = listPath(logs), draft = draftOf(path.text);
    FileDescriptor file = openOwnFile(draft.text, O_WRONLY | O_CREAT | O_TRUNC, kRunListMode);
    bool written = file.valid() && writeAll(file.get(), text.data(), text.size()) && fsync(file.get()) == 0;
    int error = errno;
    if (!written)
        (void)unlink(draft.text);
    errno = error;
    report(path.text, written && rename(draft.text, path.text) == 0); // either name is good after a cut
}

void RunList::report(const char* path, bool done) {
    if (done || mReported)
        return;
    mReported = true;
    logError("[%s] cannot be written; storing goes on without it\n", path);
    logErrno();
}

} // namespace vnlog
