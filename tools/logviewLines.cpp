// SPDX-License-Identifier: Apache-2.0
#include "tools/logviewLines.h"

#include "reader/StreamParts.h"

#include <algorithm>

using vnlog::LinePlace;
using vnlog::LineSource;
using vnlog::Record;

namespace {

constexpr size_t kMostKept = size_t{2} * 1024 * 1024; ///< bytes that lines may take that may become context

} // namespace

bool reached(const LinePlace& place, const LinePlace& wanted) {
    auto age = [](const LinePlace& p) { return p.run == vnlog::kCurrentRun ? UINT32_MAX : p.run; };
    if (age(place) != age(wanted))
        return age(place) > age(wanted);
    return place.section != wanted.section ? place.section > wanted.section : place.line >= wanted.line;
}

Selection::Kept::Kept(const Record& whole) : record(whole), bytes(whole.bytes), tag(whole.line.tag) {
    if (!whole.line.text.empty())
        textAt = static_cast<size_t>(whole.line.text.data() - whole.bytes.data());
}

void Selection::beginWith(const LinePlace& place) {
    mWaiting = true;
    mFirst = place;
}

bool Selection::wants(const Record& record) {
    if (mWaiting && reached(record.place, mFirst))
        mWaiting = false;
    return !mWaiting && mWanted < mMost && mQuery.matches(record) && mSink.shows(record);
}

void Selection::take(const Record& record) {
    if (wants(record)) {
        mWanted += record.line.source != LineSource::Reader ? 1 : 0;
        showKept();
        show(record, false);
        mFollowing = mAfter;
    } else if (mFollowing > 0) {
        --mFollowing;
        show(record, true);
    } else if (mBefore > 0) {
        keep(record);
    } else {
        mSkipped = true;
    }
}

void Selection::keep(const Record& record) {
    mKept.emplace_back(record);
    mKeptBytes += mKept.back().size();
    while (mKept.size() > mBefore || (mKeptBytes > kMostKept && mKept.size() > 1)) {
        mDropped += mKept.size() > mBefore ? 0 : 1;
        mKeptBytes -= mKept.front().size();
        mKept.pop_front();
        mSkipped = true;
    }
}

/** Tells of neighbours that could not be kept. */
void Selection::showDropped() {
    auto room = static_cast<uint32_t>(mBefore - mKept.size());
    if (uint32_t missing = std::min(mDropped, room)) {
        std::string text =
            vnlog::kReaderStart + std::to_string(missing) +
            (missing == 1 ? " line of context is left out here, for it takes too much memory"
                          : " lines of context are left out here, for they take too much memory");
        Record remark;
        vnlog::StreamParts::describeRemark(text, {}, &remark);
        show(remark, true);
    }
    mDropped = 0;
}

void Selection::showKept() {
    showDropped();
    for (Kept& kept : mKept) {
        kept.record.bytes = kept.bytes;
        kept.record.line.tag = kept.tag;
        kept.record.line.text = kept.record.bytes.substr(kept.textAt, kept.record.line.text.size());
        show(kept.record, true);
    }
    mKept.clear();
    mKeptBytes = 0;
}

void Selection::show(const Record& record, bool context) {
    if (mSkipped && mShown && (mBefore > 0 || mAfter > 0))
        mSink.separate();
    mSkipped = false;
    mShown = true;
    if (!context)
        return mSink.put(record);
    Record neighbour = record;
    neighbour.context = true;
    mSink.put(neighbour);
}

bool goesOn(const View& view) {
    return view.out.error() == 0 && !view.query.tooSlow();
}

Tail findTail(const View& view, uint32_t lines, vnlog::LineStream& stream) {
    stream.beginBackward(view.scope);
    Tail tail;
    Record record;
    uint32_t wanted = 0, before = 0, givenUp = 0;
    while (goesOn(view) && (wanted < lines || before < view.options.before) && stream.next(&record)) {
        if (record.line.source == LineSource::Reader)
            continue;
        if (wanted < lines && view.query.matches(record) && view.sink.shows(record)) {
            ++wanted;
            before = 0;
            givenUp = view.query.givenUp();
            tail.any = true;
            tail.first = tail.context = record.place;
        } else if (tail.any && before < view.options.before) {
            ++before;
            tail.context = record.place;
        }
    }
    view.query.beginPass(givenUp);
    tail.counts = stream.counts();
    return tail;
}

namespace {

/** Shows what the stream, which stands at its beginning, gives. */
void drain(View& view, vnlog::LineStream& stream, Selection& selection) {
    Record record;
    while (goesOn(view) && !selection.done() && stream.next(&record))
        selection.take(record);
}

Viewed showReverse(View& view) {
    vnlog::LineStream stream(view.store.folder, view.history);
    Selection selection(view.query, view.sink, view.options.after, view.options.before);
    selection.limit(view.options.lines.value_or(UINT32_MAX));
    stream.beginBackward(view.scope);
    drain(view, stream, selection);
    return {selection.wanted(), stream.counts()};
}

Viewed showForward(View& view) {
    vnlog::LineStream stream(view.store.folder, view.history);
    Selection selection(view.query, view.sink, view.options.before, view.options.after);
    if (view.options.lines.has_value()) {
        Tail tail = findTail(view, *view.options.lines, stream);
        if (!tail.any)
            return {0, tail.counts};
        selection.limit(*view.options.lines);
        selection.beginWith(tail.first);
        stream.beginAt(view.scope, tail.context);
    } else {
        stream.begin(view.scope);
    }
    drain(view, stream, selection);
    return {selection.wanted(), stream.counts()};
}

} // namespace

Viewed showLines(View& view) {
    Viewed viewed = view.options.follow    ? followLines(view)
                    : view.options.reverse ? showReverse(view)
                                           : showForward(view);
    view.sink.finish();
    return viewed;
}
