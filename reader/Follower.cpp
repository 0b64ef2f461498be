// SPDX-License-Identifier: Apache-2.0
#include "reader/Follower.h"

#include "base/Clock.h"
#include "reader/Fragments.h"
#include "reader/RunHistory.h"
#include "reader/RunTail.h"
#include "reader/StoreFolder.h"
#include "reader/StreamParts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vnlog {

namespace {

constexpr int kLookMs = 50; ///< the longest time between two looks

bool holdsSections(int run) {
    std::vector<StoredSection> sections;
    return listSections(run, &sections) && !sections.empty();
}

} // namespace

class Follower::Work {
  public:
    explicit Work(Locate locate) : mLocate(std::move(locate)) {}

    bool begin(const StoreFolder& store, const LinePlace& after);
    bool inPresentRun() const;
    bool next(Record* record, int timeoutMs, int wakeUp);
    const StreamCounts& counts() const { return mCounts; }

  private:
    /** Where text goes on behind what was read. */
    struct Onward {
        enum class Kind : uint8_t { Nowhere, Section, Root, Run } kind = Kind::Nowhere;
        uint32_t section = 0;
        uint32_t run = 0;
        FileDescriptor folder; ///< of the run
    };
    /** A log folder that storing has moved to, as it was then. */
    struct MovedTo {
        std::string path;
        StoreFolder store;
        FileDescriptor logs, current; ///< none as long as they are not there

        bool open();
    };

    void openRun(uint32_t run, FileDescriptor folder);
    bool goBehind(const LinePlace& after);

    bool takeLine(Record* record);
    void startLine();
    bool give(std::string_view bytes, bool ended, Record* record);
    bool giveHeld(Record* record);
    bool giveRemark(Record* record);
    void beginClock();
    void readStory();

    Onward lookOnward();
    bool findRoot(Onward* onward);
    bool findRun(Onward* onward);
    bool findArchived(const std::vector<uint32_t>& runs, uint32_t* number) const;
    void goOnward(Onward onward);
    void enterSection(uint32_t section, bool joins);
    uint32_t deletedBefore(uint32_t section);
    bool tellFinding();

    void askWhere();
    bool wait(int64_t until, int wakeUp);

    Locate mLocate;
    std::string mLocated; ///< the last answer of mLocate
    int64_t mAsked = 0; ///< when that came
    std::deque<MovedTo> mRoots; ///< oldest first
    StoreFolder mStore; ///< that is read
    RunTail mTail; ///< the run that is read
    RunHistory mHistory;
    std::shared_ptr<const RunStory> mStory; ///< of the last record's run
    LineParser mParser;
    LineClock mClock;
    std::string_view mPiece; ///< of the text, what is left of it
    std::string mHeld; ///< what there is of the line that has begun
    std::string mRemark; ///< on the section that is read
    std::string mGiven; ///< what the last record points to
    FileDescriptor mLogs; ///< log folder of mStore
    FileDescriptor mEvents; ///< of the run's folder
    StreamCounts mCounts;
    LinePlace mPlace; ///< of the line that has begun
    LinePlace mRemarkPlace;
    LinePlace mAfter; ///< lines of its section up to it are passed over while mPassing
    uint32_t mNewest = 0; ///< archived run when the run that is read was begun
    uint32_t mExpected = 0; ///< the section that is to come next, 0 when that is unknown
    uint32_t mLines = 0; ///< that have begun in the section
    bool mStoryDue = false; ///< mStory is not yet that of the run that is read
    bool mClockDue = false; ///< the clock is still that of the section before
    bool mRestFirst = false; ///< what comes first in the section is no line of it
    bool mInLine = false; ///< a line has begun
    bool mFlush = false; ///< nothing more comes of that
    bool mTold = false; ///< the finding of the section that is read
    bool mPassing = false;
};

bool Follower::Work::begin(const StoreFolder& store, const LinePlace& after) {
    mStore = store;
    mLocated = store.logs();
    mAsked = steadyMilliseconds();
    mRoots.clear();
    mTail.open(kCurrentRun, FileDescriptor());
    mEvents = FileDescriptor();
    mNewest = mExpected = 0;
    mStory = nullptr;
    mCounts = {};
    mHeld.clear();
    mRemark.clear();
    mPiece = {};
    mPassing = mFlush = mInLine = mRestFirst = false;
    mLogs = openFile(mStore.logs().c_str(), O_RDONLY | O_DIRECTORY);
    if (!mLogs.valid())
        return false;
    if (after.section != 0 || after.line != 0)
        return goBehind(after);
    std::vector<uint32_t> runs;
    bool hasCurrent = false;
    FileDescriptor current = mStore.openRun(kCurrentRun);
    if (current.valid())
        openRun(kCurrentRun, std::move(current));
    else if (mStore.listRuns(&runs, &hasCurrent) && !runs.empty())
        mNewest = runs.back();
    return true;
}

bool Follower::Work::inPresentRun() const {
    return identityOf(mStore.openRun(kCurrentRun).get()) == identityOf(mTail.folder());
}

void Follower::Work::openRun(uint32_t run, FileDescriptor folder) {
    constexpr uint32_t kChanges = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_MOVE_SELF;
    mTail.open(run, std::move(folder));
    mPassing = false;
    mStoryDue = true;
    std::vector<uint32_t> runs;
    bool current = false;
    mNewest = mStore.listRuns(&runs, &current) && !runs.empty() ? runs.back() : 0;
    // Without the kernel's events looking now and then is enough.
    mEvents = FileDescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const std::string path = "/proc/self/fd/" + std::to_string(mTail.folder());
    if (mEvents.valid())
        (void)inotify_add_watch(mEvents.get(), path.c_str(), kChanges);
}

bool Follower::Work::goBehind(const LinePlace& after) {
    std::string text;
    StreamParts parts(mStore, mHistory);
    Scope scope{{after.run}};
    scope.fields = false;
    parts.begin(scope);
    if (!parts.openRun(after.run, &text))
        return false;
    const auto& sections = parts.sections.sections();
    const auto at = std::find_if(sections.begin(), sections.end(),
                                 [&](const StoredSection& s) { return s.number == after.section; });
    errno = ENOENT;
    if (at == sections.end())
        return false;
    const auto index = static_cast<size_t>(at - sections.begin());
    const bool rest =
        parts.beginsWithin(index, &text) || parts.sections.start(index) == RunSections::Start::Rest;
    openRun(after.run, FileDescriptor(dup(parts.sections.folder())));
    enterSection(after.section, false);
    mRestFirst = rest;
    mAfter = after;
    mPassing = true;
    return true;
}

bool Follower::Work::next(Record* record, int timeoutMs, int wakeUp) {
    const int64_t until = timeoutMs < 0 ? INT64_MAX : steadyMilliseconds() + timeoutMs;
    for (;;) {
        if (mFlush && giveHeld(record))
            return true;
        if (giveRemark(record) || takeLine(record))
            return true;
        if (mTail.read(&mPiece) || tellFinding())
            continue;
        // What lies onward is looked for before the end is, so that nothing can come in between.
        Onward onward = lookOnward();
        if (mTail.read(&mPiece))
            continue;
        if (onward.kind != Onward::Kind::Nowhere)
            goOnward(std::move(onward));
        else if (!wait(until, wakeUp))
            return false;
    }
}

/** Takes the next line of the piece. False when it has no end there. */
bool Follower::Work::takeLine(Record* record) {
    while (!mPiece.empty()) {
        if (!mInLine)
            startLine();
        const size_t newline = mPiece.find('\n');
        const size_t length = std::min(newline, mPiece.size());
        const size_t taken = std::min(length, Fragments::kLongest - mHeld.size());
        const bool ended = taken == length && newline != std::string_view::npos;
        mHeld.append(mPiece.substr(0, taken));
        mPiece.remove_prefix(taken + (ended ? 1 : 0));
        if (!ended && mHeld.size() < Fragments::kLongest)
            continue;
        mInLine = false;
        mGiven = std::exchange(mHeld, std::string());
        if (give(mGiven, ended, record))
            return true;
    }
    return false;
}

void Follower::Work::startLine() {
    mInLine = true;
    if (mClockDue)
        beginClock();
    mLines += mRestFirst ? 0 : 1;
    mPlace = {mTail.run(), mTail.section(), mRestFirst ? kRestLine : mLines};
    mRestFirst = false;
}

/** Fills in a record. False for a line that is passed over. */
bool Follower::Work::give(std::string_view bytes, bool ended, Record* record) {
    record->bytes = bytes;
    record->place = mPlace;
    record->ended = ended;
    record->context = false;
    record->story = mStory;
    mParser.parse(bytes, &record->line);
    record->time = mClock.timeOf(record->line);
    mPassing = mPassing && mPlace.section == mAfter.section && mPlace.line <= mAfter.line;
    return !mPassing;
}

/** Gives a line that will not be ended, if there is one. */
bool Follower::Work::giveHeld(Record* record) {
    mFlush = false;
    const bool given = std::exchange(mInLine, false) && !mHeld.empty();
    mGiven = std::exchange(mHeld, std::string());
    const bool wanted = given && give(mGiven, false, record);
    mParser.reset();
    return wanted;
}

bool Follower::Work::giveRemark(Record* record) {
    if (mRemark.empty())
        return false;
    if (mClockDue)
        beginClock();
    mGiven = kReaderStart + std::exchange(mRemark, std::string());
    StreamParts::describeRemark(mGiven, mRemarkPlace, record);
    record->story = mStory;
    return true;
}

void Follower::Work::beginClock() {
    mClockDue = false;
    readStory();
    SectionFacts told;
    if (mTail.archive() >= 0 && readFacts(mTail.archive(), &told))
        mClock.beginSection(told.clock());
    else
        mClock.beginSection(clockFacts(mStory.get(), mTail.modified(), 0));
}

/** Reads what the list tells of the run that is read. Where it tells nothing now, what it told before holds.
 */
void Follower::Work::readStory() {
    if (std::exchange(mStoryDue, false))
        mStory = std::make_shared<RunStory>();
    uint32_t number = mTail.run();
    // A run that is found under way behind this was so before, and the list's last one.
    mHistory.read(mStore.logs());
    if (number == kCurrentRun && !inPresentRun()) {
        std::vector<uint32_t> runs;
        bool hasCurrent = false;
        if (!mStore.listRuns(&runs, &hasCurrent) || !findArchived(runs, &number))
            return;
        mHistory.read(mStore.logs());
    }
    if (const RunStory* story = mHistory.find(number))
        mStory = std::make_shared<RunStory>(*story);
}

/** Looks where text goes on behind the section that is read. */
Follower::Work::Onward Follower::Work::lookOnward() {
    Onward onward;
    if (!findRoot(&onward))
        (void)findRun(&onward);
    // A run that has ended has all its sections by now.
    uint32_t section = 0;
    if (mTail.findNext(&section)) {
        onward.kind = Onward::Kind::Section;
        onward.section = section;
    }
    return onward;
}

/** Whether its run is there. It is held, for it may be archived before the section under the root before is
 * full. */
bool Follower::Work::MovedTo::open() {
    if (!logs.valid() && store.open(path.c_str()))
        logs = openFile(store.logs().c_str(), O_RDONLY | O_DIRECTORY);
    if (logs.valid() && !current.valid())
        current = store.openRun(kCurrentRun);
    return current.valid();
}

/** Finds out whether storing has gone on under another root. */
bool Follower::Work::findRoot(Onward* onward) {
    for (; !mRoots.empty(); mRoots.pop_front()) {
        MovedTo& root = mRoots.front();
        const bool there = root.open();
        if (root.logs.valid() && identityOf(root.logs.get()) == identityOf(mLogs.get())) {
            mStore = root.store; // it has another path, or storing has come back
            continue;
        }
        if (there && holdsSections(root.current.get())) {
            onward->kind = Onward::Kind::Root;
            return true;
        }
        if (mRoots.size() == 1)
            return false;
    }
    return false;
}

/** Finds out whether the run has ended and another one has begun. */
bool Follower::Work::findRun(Onward* onward) {
    if (!mLogs.valid())
        return false;
    FileDescriptor current = mStore.openRun(kCurrentRun);
    const bool under = mTail.isOpen() && mTail.run() == kCurrentRun;
    if (under && current.valid() && identityOf(current.get()) == identityOf(mTail.folder()))
        return false;
    std::vector<uint32_t> runs;
    bool hasCurrent = false;
    if (mStore.listRuns(&runs, &hasCurrent)) {
        uint32_t number = mTail.isOpen() && !under ? mTail.run() : mNewest;
        if (under)
            (void)findArchived(runs, &number);
        FileDescriptor logs = openFile(mStore.logs().c_str(), O_RDONLY | O_DIRECTORY);
        const bool anew = logs.valid() && identityOf(logs.get()) != identityOf(mLogs.get());
        const auto behind = std::upper_bound(runs.begin(), runs.end(), anew ? 0 : number);
        onward->folder = behind != runs.end() ? mStore.openRun(*behind) : FileDescriptor();
        onward->run = onward->folder.valid() ? *behind : kCurrentRun;
    }
    if (!onward->folder.valid())
        onward->folder = std::move(current); // opened before the runs were listed: none is left out
    onward->kind = onward->folder.valid() ? Onward::Kind::Run : Onward::Kind::Nowhere;
    return onward->folder.valid();
}

/** Finds the number under which the run that is read was archived. */
bool Follower::Work::findArchived(const std::vector<uint32_t>& runs, uint32_t* number) const {
    const FileIdentity own = identityOf(mTail.folder());
    const auto found = std::find_if(runs.rbegin(), runs.rend(), [&](uint32_t run) {
        return identityOf(mStore.openRun(run).get()) == own;
    });
    if (found != runs.rend())
        *number = *found;
    return found != runs.rend();
}

void Follower::Work::goOnward(Onward onward) {
    const uint32_t before = mTail.section();
    const bool whole = mTail.state() == TextState::Whole;
    uint32_t section = 0;
    switch (onward.kind) {
    case Onward::Kind::Nowhere:
        break;
    case Onward::Kind::Section:
        enterSection(onward.section, whole && onward.section == before + 1);
        break;
    case Onward::Kind::Root:
        mStore = mRoots.front().store;
        mLogs = std::move(mRoots.front().logs);
        openRun(kCurrentRun, std::move(mRoots.front().current));
        mRoots.pop_front();
        if (mTail.findNext(&section)) // sections are numbered on where the run goes on
            enterSection(section, whole && section >= before && section <= before + 1);
        break;
    case Onward::Kind::Run:
        mFlush = true;
        mExpected = 1;
        mLogs = openFile(mStore.logs().c_str(), O_RDONLY | O_DIRECTORY);
        openRun(onward.run, std::move(onward.folder));
        break;
    }
}

/** Goes to a section, which goes on with the line that is held, or does not. */
void Follower::Work::enterSection(uint32_t section, bool joins) {
    if (const uint32_t deleted = deletedBefore(section)) {
        mRemark = std::to_string(deleted) + (deleted == 1 ? " section was" : " sections were") +
                  " deleted before " + (deleted == 1 ? "it" : "they") + " could be read";
        mRemarkPlace = {mTail.run(), mExpected, 0};
        mCounts.vanished += deleted;
    }
    mFlush = mFlush || !joins;
    (void)mTail.enter(section); // what is wrong is told when it is to be read
    mExpected = section + 1;
    mTold = false;
    mLines = 0;
    mClockDue = true;
}

/** How many sections are missing in front of the next one. */
uint32_t Follower::Work::deletedBefore(uint32_t section) {
    if (mExpected == 0 || section <= mExpected)
        return 0;
    if (mExpected == 1) { // a run that was not seen beginning
        readStory();
        if (mStory->continued)
            return 0;
    }
    return section - mExpected;
}

/** Has a remark made of what is wrong with the section, once. */
bool Follower::Work::tellFinding() {
    if (mTold || !countState(mTail.state(), &mCounts))
        return false;
    mTold = true;
    mFlush = mFlush || mTail.state() != TextState::Unreadable; // that may be only for now
    mRemark = mTail.finding();
    mRemarkPlace = {mTail.run(), mTail.section(), mLines};
    return true;
}

void Follower::Work::askWhere() {
    mAsked = steadyMilliseconds();
    std::string answer = mLocate();
    if (!answer.empty() && answer != mLocated) {
        mLocated = answer;
        if (mLogs.valid()) {
            mRoots.emplace_back();
            mRoots.back().path = answer;
            (void)mRoots.back().open(); // it may come
        }
    }
    if (!mLogs.valid() && mStore.open(mLocated.c_str()))
        mLogs = openFile(mStore.logs().c_str(), O_RDONLY | O_DIRECTORY);
}

/** Waits until something may have come. False: the time is over, or the other descriptor can be read. */
bool Follower::Work::wait(int64_t until, int wakeUp) {
    const int64_t left = until - steadyMilliseconds();
    pollfd waited[] = {{mEvents.get(), POLLIN, 0}, {wakeUp, POLLIN, 0}};
    (void)poll(waited, 2, static_cast<int>(std::clamp<int64_t>(left, 0, kLookMs)));
    char events[4096];
    while (waited[0].revents != 0 && read(mEvents.get(), events, sizeof events) > 0) {
    }
    if (steadyMilliseconds() - mAsked >= kLookMs)
        askWhere();
    return waited[1].revents == 0 && left > 0;
}

Follower::Follower(Locate locate) : mWork(std::make_unique<Work>(std::move(locate))) {}

Follower::~Follower() = default;

bool Follower::begin(const StoreFolder& store, const LinePlace& after) {
    return mWork->begin(store, after);
}

bool Follower::inPresentRun() const {
    return mWork->inPresentRun();
}

bool Follower::next(Record* record, int timeoutMs, int wakeUp) {
    return mWork->next(record, timeoutMs, wakeUp);
}

const StreamCounts& Follower::counts() const {
    return mWork->counts();
}

} // namespace vnlog
