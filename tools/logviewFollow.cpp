// SPDX-License-Identifier: Apache-2.0
#include "base/Handles.h"
#include "reader/FindStore.h"
#include "reader/Follower.h"
#include "storage/Layout.h"
#include "tools/logviewLines.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

using vnlog::LinePlace;
using vnlog::LineSource;
using vnlog::Record;

namespace {

constexpr uint32_t kLinesBetweenLooks = 256; ///< at what the user wants, while lines come without a pause
constexpr uint32_t kFollowedTail = 10;
constexpr int kLookMs = 1000; ///< how often it is looked whether somebody still reads, while no lines come

/** Whether nobody reads standard output any more. */
bool readerGone() {
    pollfd looked = {STDOUT_FILENO, 0, 0};
    return poll(&looked, 1, 0) > 0 && (looked.revents & (POLLERR | POLLHUP)) != 0;
}

/** The signals that end following in good order; they are blocked from here on and can be read. */
class EndSignals {
  public:
    EndSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (int number : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction before {};
            if (sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
                sigaddset(&signals, number); // one that is ignored is to be outlived on purpose
        }
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        mDescriptor = vnlog::FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
    }
    int descriptor() const { return mDescriptor.get(); }
    bool came() const {
        pollfd looked = {mDescriptor.get(), POLLIN, 0};
        return poll(&looked, 1, 0) > 0;
    }

  private:
    vnlog::FileDescriptor mDescriptor;
};

/** Shows the present run's lines as they come. One thread. */
class Following {
  public:
    explicit Following(View& view)
        : mView(view), mSelection(view.query, view.sink, view.options.before, view.options.after),
          mPast(view.store.folder, view.history), mFollower([this] { return logFolder(); }) {}
    /** Takes hold of the lines that are there, and of all that come behind them. False with errno set. */
    [[nodiscard]] bool begin();
    /** Shows the last lines that were there. */
    void showPast();
    /** Shows what comes until the user or the output ends it. */
    void follow();
    Viewed viewed() const;

  private:
    void findEnd();
    void beginPast();
    std::string logFolder();

    View& mView;
    Selection mSelection;
    LinePlace mEnd; ///< the last whole line of the present run, line 0 for none
    bool mAnyPast = false;
    vnlog::LineStream mPast; ///< of the lines up to there
    vnlog::Follower mFollower; ///< of those behind it
};

/** Finds the last whole line that is there. */
void Following::findEnd() {
    mEnd = LinePlace();
    vnlog::Scope scope;
    scope.runs = {vnlog::kCurrentRun};
    scope.fields = false;
    vnlog::LineStream stream(mView.store.folder, mView.history);
    stream.beginBackward(scope);
    for (Record record; stream.next(&record);) {
        if (!record.ended || record.line.source == LineSource::Reader)
            continue;
        mEnd = record.place;
        return;
    }
}

bool Following::begin() {
    for (;;) {
        findEnd();
        if (mFollower.begin(mView.store.folder, mEnd)) {
            beginPast();
            if (mFollower.inPresentRun())
                return true; // all of it looked at the same run
        } else if (errno != ENOENT || mEnd.line == 0) {
            return false;
        }
    }
}

/** Goes to the first of the lines that are shown of those that are there. */
void Following::beginPast() {
    const bool all = !mView.options.lines.has_value() && mView.options.query.since != INT64_MIN;
    const uint32_t lines = mView.options.lines.value_or(kFollowedTail);
    bool current = false;
    if (mView.options.runs.empty() && mView.store.folder.listRuns(&mView.scope.runs, &current) && current)
        mView.scope.runs.push_back(vnlog::kCurrentRun);
    Tail tail;
    if (!all && lines > 0)
        tail = findTail(mView, lines, mPast);
    mAnyPast = all || tail.any;
    if (tail.any) {
        mSelection.beginWith(tail.first);
        mPast.beginAt(mView.scope, tail.context);
    } else if (all) {
        mPast.begin(mView.scope);
    }
}

void Following::showPast() {
    auto present = [](const LinePlace& place) { return place.run == vnlog::kCurrentRun; };
    auto isBehind = [&](const LinePlace& place) { return present(place) && !reached(mEnd, place); };
    for (Record record; mAnyPast && goesOn(mView) && mPast.next(&record) && !isBehind(record.place);) {
        mSelection.take(record);
        mAnyPast = !present(record.place) || !reached(record.place, mEnd);
    }
}

Viewed Following::viewed() const {
    vnlog::StreamCounts counts = mPast.counts();
    const vnlog::StreamCounts& later = mFollower.counts();
    counts.damaged += later.damaged;
    counts.vanished += later.vanished;
    counts.unreadable += later.unreadable;
    return {mSelection.wanted(), counts};
}

std::string Following::logFolder() {
    std::string error;
    if (!mView.store.ofService)
        return mView.store.folder.logs();
    std::string root = vnlog::storeOfSystem(&error);
    return root.empty() ? root : root + "/" + vnlog::kLogFolder;
}

void Following::follow() {
    EndSignals signals;
    Record record;
    for (uint32_t taken = 0; goesOn(mView) && (taken % kLinesBetweenLooks != 0 || !signals.came()); ++taken) {
        bool there = mFollower.next(&record, 0, -1);
        if (!there) {
            mView.sink.pause();
            (void)mView.out.flush();
            there = mFollower.next(&record, kLookMs, signals.descriptor());
        }
        if (there)
            mSelection.take(record);
        else if (signals.came() || readerGone())
            break;
    }
}

} // namespace

Viewed followLines(View& view) {
    Following following(view);
    if (!following.begin()) {
        std::fprintf(stderr, "%s: cannot follow %s: %s\n", kViewer, view.store.root.c_str(),
                     std::strerror(errno));
        Viewed viewed = {0, {}};
        viewed.failed = true;
        return viewed;
    }
    following.showPast();
    following.follow();
    return following.viewed();
}
