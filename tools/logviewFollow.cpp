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
        : mView(view), mSelection(view.query, view.sink, view.options.before, view.options.after) {}
    /** Shows the last lines that are there. */
    void showTail();
    /** Goes on until the user or the output ends it. False with errno set when that cannot be done. */
    [[nodiscard]] bool follow();
    Viewed viewed() const { return {mSelection.wanted(), mCounts}; }

  private:
    bool findEnd();
    std::string logFolder();
    void take(const Record& record);

    View& mView;
    Selection mSelection;
    LinePlace mEnd; ///< the last whole line of the present run, section 0 for none
    vnlog::StreamCounts mCounts;
};

/** Finds the last whole line that is there. False when the present run has none yet. */
bool Following::findEnd() {
    vnlog::Scope scope;
    scope.runs = {vnlog::kCurrentRun};
    scope.fields = false;
    vnlog::LineStream stream(mView.store.folder, mView.history);
    stream.beginBackward(scope);
    for (Record record; stream.next(&record);) {
        if (!record.ended || record.line.source == LineSource::Reader)
            continue;
        mEnd = record.place;
        return true;
    }
    return false;
}

void Following::showTail() {
    const bool all = !mView.options.lines.has_value() && mView.options.query.since != INT64_MIN;
    const uint32_t lines = mView.options.lines.value_or(kFollowedTail);
    const bool present = findEnd();
    vnlog::LineStream stream(mView.store.folder, mView.history);
    Tail tail;
    if (!all && lines > 0)
        tail = findTail(mView, lines);
    if (all) {
        stream.begin(mView.scope);
    } else if (tail.any) {
        mSelection.beginWith(tail.first);
        stream.beginAt(mView.scope, tail.context);
    } else {
        return;
    }
    auto follows = [&](const LinePlace& place) { // is shown later
        return place.run == vnlog::kCurrentRun && (!present || !reached(mEnd, place));
    };
    for (Record record; goesOn(mView) && stream.next(&record) && !follows(record.place);)
        mSelection.take(record);
    mCounts = stream.counts();
}

std::string Following::logFolder() {
    std::string error;
    if (!mView.store.ofService)
        return mView.store.folder.logs();
    std::string root = vnlog::storeOfSystem(&error);
    return root.empty() ? root : root + "/" + vnlog::kLogFolder;
}

void Following::take(const Record& record) {
    if (record.place.section != mEnd.section)
        mView.history.read(logFolder()); // a new run may have begun
    mEnd = record.place;
    mSelection.take(record);
}

bool Following::follow() {
    EndSignals signals;
    vnlog::Follower follower([this] { return logFolder(); });
    if (!follower.begin(mEnd))
        return false;
    Record record;
    for (uint32_t taken = 0; goesOn(mView) && (taken % kLinesBetweenLooks != 0 || !signals.came()); ++taken) {
        bool there = follower.next(&record, 0, -1);
        if (!there) {
            mView.sink.pause();
            (void)mView.out.flush();
            there = follower.next(&record, kLookMs, signals.descriptor());
        }
        if (there)
            take(record);
        else if (signals.came() || readerGone())
            break;
    }
    return true;
}

} // namespace

Viewed followLines(View& view) {
    Following following(view);
    following.showTail();
    Viewed viewed = {0, {}};
    if (!following.follow()) {
        std::fprintf(stderr, "%s: cannot follow %s: %s\n", kViewer, view.store.root.c_str(),
                     std::strerror(errno));
        viewed.failed = true;
        return viewed;
    }
    return following.viewed();
}
