// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/LineStream.h"
#include "reader/Query.h"
#include "tools/logviewOptions.h"
#include "tools/logviewStore.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

/* Which lines of a store are shown, and in which order. */

/** Hands on the lines that a query wants, each with its neighbours. One thread. */
class Selection {
  public:
    /** All must outlive the object. `before` and `after` are in the order in which lines are taken. */
    Selection(vnlog::Query& query, vnlog::RecordSink& sink, uint32_t before, uint32_t after)
        : mQuery(query), mSink(sink), mBefore(before), mAfter(after) {}

    /** Takes at most so many more wanted lines, with what follows them. */
    void limit(uint32_t wanted) { mMost = wanted; }
    /** The lines up to this place, which comes later, are shown as neighbours alone. */
    void beginWith(const vnlog::LinePlace& place);
    void take(const vnlog::Record& record);
    /** Whether no further line can be shown. */
    bool done() const { return mWanted == mMost && mFollowing == 0; }
    /** Lines that were wanted, without the reader's remarks. */
    uint32_t wanted() const { return mWanted; }

  private:
    /** A line that is kept until it is known whether it is shown. */
    struct Kept {
        explicit Kept(const vnlog::Record& whole);
        /** The bytes that it takes. */
        size_t size() const { return sizeof *this + bytes.capacity() + tag.capacity(); }
        vnlog::Record record;
        std::string bytes, tag;
        size_t textAt = 0; ///< where the line's text begins in `bytes`
    };

    bool wants(const vnlog::Record& record);
    void show(const vnlog::Record& record, bool context);
    void showKept();
    void showDropped();
    void keep(const vnlog::Record& record);

    vnlog::Query& mQuery;
    vnlog::RecordSink& mSink;
    const uint32_t mBefore, mAfter;
    uint32_t mMost = UINT32_MAX;
    uint32_t mWanted = 0;
    uint32_t mFollowing = 0; ///< lines still to be shown behind the last one that was wanted
    bool mWaiting = false; ///< for mFirst
    vnlog::LinePlace mFirst;
    std::deque<Kept> mKept;
    size_t mKeptBytes = 0;
    uint32_t mDropped = 0; ///< lines in front of those that are kept that could not be kept
    bool mSkipped = false; ///< lines were left out since the last one that was shown
    bool mShown = false;
};

/** What showing lines needs. All outlive it. */
struct View {
    const ViewOptions& options;
    OpenStore& store;
    vnlog::RunHistory& history;
    vnlog::Scope scope;
    vnlog::Query& query;
    vnlog::RecordSink& sink;
    vnlog::TextOut& out;
};

/** What became of it. */
struct Viewed {
    uint32_t lines = 0; ///< wanted ones that were shown
    vnlog::StreamCounts counts;
    bool failed = false; ///< lines could not be followed, reported
};

/** Whether a place is at another one or behind it. */
bool reached(const vnlog::LinePlace& place, const vnlog::LinePlace& wanted);

/** Whether it makes sense to go on. */
bool goesOn(const View& view);

/** Where the last lines begin that are wanted, so many of them. */
struct Tail {
    bool any = false;
    vnlog::LinePlace first; ///< the first that is wanted
    vnlog::LinePlace context; ///< where its neighbours in front of it begin
    vnlog::StreamCounts counts; ///< of looking for it
};
/** Looks for it in a pass of the query, and begins another for showing it, by the same stream. */
Tail findTail(const View& view, uint32_t lines, vnlog::LineStream& stream);

/** Shows lines that are there, and those of the present run as they come. */
Viewed followLines(View& view);
/** Shows the lines as the options want it, and finishes the sink. */
Viewed showLines(View& view);
