// SPDX-License-Identifier: Apache-2.0
#include "service/Status.h"

#include "base/Clock.h"
#include "base/Diagnostics.h"
#include "base/KeyValue.h"
#include "service/Parts.h"

#include <cstring>

namespace vnlog {

namespace {

constexpr uint32_t kLongStep = 5; ///< seconds after which a step of the store is no usual one

time_t wallClock() {
    return static_cast<time_t>(secondsOf(CLOCK_REALTIME));
}

std::string date(time_t time) {
    return time != 0 ? localDate(time) : "-";
}

/** The name of a run's folder; "-" for none. */
std::string run(uint32_t number, uint32_t runs) {
    return runs > 0 ? kRunName + ("_" + std::to_string(number)) : "-";
}

} // namespace

/** The lines of the answer. */
class Status::Lines {
  public:
    void add(const std::string& key, const std::string& value) {
        mText += key + "=";
        for (char c : value)
            mText += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
        mText += "\n";
    }
    void add(const std::string& key, const char* value) { add(key, std::string(value)); }
    void add(const std::string& key, uint64_t value) { add(key, std::to_string(value)); }
    void addFlag(const std::string& key, bool value) { add(key, value ? kYes : kNo); }
    void addProblem(const std::string& what) { add("problem." + std::to_string(++mProblems), what); }
    bool problems() const { return mProblems > 0; }
    const std::string& text() const { return mText; }

  private:
    std::string mText;
    unsigned mProblems = 0;
};

std::string Status::status() {
    look();
    Lines problems, lines;
    addProblems(&problems);
    addStoring(&lines);
    addStorage(&lines);
    addCounts(&lines);
    addService(&lines);
    Lines works;
    works.addFlag("works", !problems.problems());
    return works.text() + problems.text() + lines.text();
}

std::string Status::statusMeanwhile() {
    Lines lines;
    lines.addFlag("works", false);
    lines.addProblem("a command that was given before does not come to its end");
    addMedium(&lines);
    addCounts(&lines);
    return lines.text();
}

/** What is known without the command lock. */
void Status::addCounts(Lines* lines) {
    lines->add("buffer.bytes", mParts.ring.used());
    lines->addFlag("buffer.survives_a_crash", mParts.ring.persistent());
    addSource(lines, "kernel", mParts.kernelReader.counts().totals(), mService.mKLogOutput);
    addSource(lines, "android", mParts.androidLine.counts().totals(), mService.mALogOutput);
    addLosses(lines);
    addWork(lines);
}

void Status::beginRun() {
    mStarted = wallClock();
    mStartUptime = secondsOf(CLOCK_BOOTTIME); // which goes on while the device sleeps
    mStoring = storing();
    mSince = mStarted;
}

void Status::look() {
    if (mRoot != mParts.store.root()) {
        mRoot = mParts.store.root();
        mExtentSeen = false;
        mParts.flusher.beginAfresh();
    }
    mParts.lastWords.settle();
    Storing now = storing();
    if (now != mStoring)
        mSince = now == Storing::NotWritable ? static_cast<time_t>(mParts.ring.failingSince()) : wallClock();
    mStoring = now;
}

Status::Storing Status::storing() const {
    if (mService.mStorageFull || mParts.intake.givenUp())
        return mService.mStorageFull ? Storing::Full : Storing::SwitchedOff;
    if (!mService.mKLogToFile && !mService.mALogToFile)
        return Storing::SwitchedOff;
    if (!mService.mFlushThreadRunning)
        return mParts.comeback.awaitsStorage() ? Storing::NotPrepared : Storing::NoThread;
    return mParts.ring.failingSince() != 0 ? Storing::NotWritable : Storing::Works;
}

const char* Status::text(Storing storing) {
    switch (storing) {
    case Storing::Works:
        return "storing";
    case Storing::SwitchedOff:
        return "switched off";
    case Storing::Full:
        return "the storage is full";
    case Storing::NotPrepared:
        return "the storage cannot be used";
    case Storing::NoThread:
        return "there is no thread that writes";
    case Storing::NotWritable:
        return "the storage cannot be written";
    }
    return "";
}

/** All that is switched on and does not work. */
void Status::addProblems(Lines* lines) {
    if (mStoring != Storing::Works && mStoring != Storing::SwitchedOff)
        lines->addProblem("nothing is stored: " + std::string(text(mStoring)));
    addMedium(lines);
    if (const char* root = mParts.store.awaitedRoot())
        lines->addProblem("the configured storage root " + std::string(root) + " cannot be opened");
    if (mService.mKLogOutput && mService.mKLogThreadRunning && !mParts.kernelReader.counts().reading())
        lines->addProblem("the kernel's log is not read");
    if (mService.mALogOutput && mService.mLogcatThreadRunning && !mParts.androidLine.counts().reading())
        lines->addProblem("Android's log is not read");
    int failure = mParts.console.lastFailure();
    if (mService.mALogToUart && failure != 0) {
        char reason[128];
        lines->addProblem(std::string("the console takes nothing: ") +
                          strerror_r(failure, reason, sizeof reason));
    }
}

/** What is wrong with the medium. */
void Status::addMedium(Lines* lines) {
    if (uint32_t seconds = mParts.flusher.busySeconds(); seconds >= kLongStep)
        lines->addProblem("the medium has not answered for " + std::to_string(seconds) + " seconds");
    if (mParts.flusher.syncFails())
        lines->addProblem("the medium cannot be synced");
}

void Status::addStoring(Lines* lines) {
    lines->addFlag("storing.works", mStoring == Storing::Works);
    lines->add("storing.state", text(mStoring));
    lines->add("storing.since", date(mSince));
}

void Status::addStorage(Lines* lines) {
    bool fresh = mParts.store.extent(&mExtent); // else what was found the last time is told
    mExtentSeen = mExtentSeen || fresh;
    const StoreExtent& extent = mExtent;
    lines->add("storage.root", mRoot);
    const char* awaited = mParts.store.awaitedRoot();
    lines->add("storage.awaited_root", awaited != nullptr ? awaited : "-");
    lines->addFlag("storage.busy", !fresh);
    const std::pair<const char*, uint64_t> numbers[] = {{"free_bytes", extent.freeBytes},
                                                        {"stored_bytes", extent.bytes},
                                                        {"bound_bytes", extent.bound},
                                                        {"runs", extent.runs},
                                                        {"sections_of_this_run", extent.sections}};
    for (const auto& [name, number] : numbers)
        lines->add(std::string("storage.") + name, mExtentSeen ? std::to_string(number) : "-");
    lines->add("storage.oldest_run", run(extent.oldestRun, mExtentSeen ? extent.runs : 0));
    lines->add("storage.newest_run", run(extent.newestRun, mExtentSeen ? extent.runs : 0));
}

void Status::addSource(Lines* lines, const char* group, const SourceTotals& totals, bool reading) {
    const std::string key = group + std::string(".");
    lines->addFlag(key + "on", reading);
    const std::pair<const char*, uint64_t> counts[] = {
        {"read", totals.read},         {"filtered", totals.filtered}, {"stored", totals.stored},
        {"refused", totals.refused},   {"queued", totals.queued},     {"shown", totals.shown},
        {"not_shown", totals.notShown}};
    for (const auto& [name, count] : counts)
        lines->add(key + name, count);
}

void Status::addLosses(Lines* lines) {
    const std::pair<const char*, Loss> reasons[] = {{"refused", Loss::Refused},
                                                    {"storage_full", Loss::StorageFull},
                                                    {"too_long", Loss::TooLong},
                                                    {"dropped_by_a_stop", Loss::Dropped},
                                                    {"before_they_were_read", Loss::Unread}};
    for (const auto& [name, why] : reasons)
        lines->add(std::string("lost.") + name, mParts.ring.losses().total(why));
}

void Status::addWork(Lines* lines) {
    FlushCounts flushes = mParts.flusher.counts();
    StoreCounts store = mParts.store.counts();
    lines->add("work.flushes", flushes.flushes);
    lines->add("work.cuts", store.cuts);
    lines->add("work.deletions", store.deletions);
    lines->add("work.failures", uint64_t{flushes.failures});
    LastError error = lastError();
    lines->add("error.last", error.text.empty() ? "-" : error.text);
    lines->add("error.time", date(error.time));
    lines->add("error.reports", error.count);
}

void Status::addService(Lines* lines) {
    lines->add("service.version", VNLOG_VERSION);
    lines->add("service.started", date(mStarted));
    lines->add("service.uptime_seconds", static_cast<uint64_t>(secondsOf(CLOCK_BOOTTIME) - mStartUptime));
}

} // namespace vnlog
