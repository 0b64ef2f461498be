// SPDX-License-Identifier: Apache-2.0
#include "reader/ForwardLines.h"

#include <utility>

namespace vnlog {

void ForwardLines::begin(const LinePlace* place) {
    mRunAt = mNext = 0;
    mOpen = mFirst = mHolds = mHeldDone = mSeeking = false;
    mBefore = Before::Read;
    mPlace = LinePlace();
    mRemark.clear();
    mRest.clear();
    if (place == nullptr)
        return;
    const auto& runs = mParts.scope.runs;
    auto age = [](uint32_t run) { return run == kCurrentRun ? UINT32_MAX : run; };
    while (mRunAt < runs.size() && age(runs[mRunAt]) < age(place->run))
        ++mRunAt;
    mFrom = *place;
    mSeeking = true;
}

bool ForwardLines::next(Record* record) {
    for (;;) {
        if (mHeldDone) {
            if (giveHeld(record))
                return true;
            continue;
        }
        if (!mRest.empty()) {
            mGiven.clear();
            std::swap(mGiven, mRest);
            if (giveRest(mGiven, mRestEnded, record))
                return true;
            continue;
        }
        if (!mRemark.empty())
            return giveRemark(record);
        if (!mOpen) {
            if (!goOn())
                return false;
            continue;
        }
        Fragment fragment;
        if (!mParts.fragments.next(&fragment))
            endSection();
        else if (mFirst ? takeHead(fragment, record) : takeLine(fragment, record))
            return true;
    }
}

/** Goes to the next section, or ends the line that none goes on with. False when nothing is left. */
bool ForwardLines::goOn() {
    RunSections& sections = mParts.sections;
    const bool left = mNext < sections.sections().size();
    const bool joins = left && mHolds && sections.follows(mNext);
    if (mHolds && !joins) {
        mHeldDone = true;
        mHeldEnded = false;
        return true;
    }
    if (!left)
        return nextRun();
    if (!joins && mParts.outside(mNext))
        mBefore = Before::LeftOut;
    else
        enter(mNext, joins);
    ++mNext;
    return true;
}

bool ForwardLines::nextRun() {
    const auto& runs = mParts.scope.runs;
    mNext = 0;
    if (mRunAt >= runs.size()) {
        mParts.sections.close();
        return false;
    }
    const uint32_t run = runs[mRunAt++];
    mPlace = {run, 0, 0};
    if (!mParts.openRun(run, &mRemark))
        return true;
    mBefore = Before::Read;
    const auto& sections = mParts.sections.sections();
    if (!mSeeking || run != mFrom.run)
        return true;
    while (mNext < sections.size() && sections[mNext].number < mFrom.section)
        ++mNext;
    mBefore = Before::LeftOut;
    return true;
}

void ForwardLines::enter(size_t index, bool joins) {
    mHead = headOf(index, joins);
    mPlace = {mParts.sections.run(), mParts.sections.sections()[index].number, 0};
    mOpen = mParts.openSection(index);
    mFirst = mClockDue = mOpen;
    mLeavesRest = mHead == Head::LeftOut;
    if (!mOpen)
        endSection();
}

/** Tells what the first fragment of a section is, and readies the parser for it. */
ForwardLines::Head ForwardLines::headOf(size_t index, bool joins) {
    if (joins)
        return Head::Joins;
    const bool sought = mSeeking && mParts.sections.run() == mFrom.run &&
                        mParts.sections.sections()[index].number == mFrom.section;
    if (sought && mFrom.line == kRestLine) // one that was too long for its line, too, has such a place
        return Head::Rest;
    const bool follows = mParts.sections.follows(index);
    if (mBefore == Before::LeftOut && follows) {
        if (mParts.beginsWithin(index, &mCutLine))
            return Head::LeftOut;
    } else if (mBefore == Before::Broken || !follows) {
        mParts.parser.reset();
    }
    return mParts.sections.start(index) == RunSections::Start::Rest ? Head::Rest : Head::Line;
}

void ForwardLines::endSection() {
    mOpen = false;
    mRemark = mParts.countFinding();
    mBefore = !mRemark.empty() ? Before::Broken : mLeavesRest ? Before::LeftOut : Before::Read;
    if (mRemark.empty() || !mHolds)
        return;
    mHeldDone = true; // what follows is no part of it
    mHeldEnded = false;
}

/** Takes a section's first fragment. True when it gives a record. */
bool ForwardLines::takeHead(const Fragment& fragment, Record* record) {
    mFirst = false;
    switch (mHead) {
    case Head::Line:
        return takeLine(fragment, record);
    case Head::Joins:
        joinHeld(fragment);
        return false;
    case Head::LeftOut:
        mLeavesRest = !fragment.ended && !fragment.cut;
        if (!mCutLine.empty() && mParts.scope.fields) {
            mCutLine.append(fragment.bytes);
            LogLine line;
            mParts.parser.parse(mCutLine, &line);
        }
        return false;
    case Head::Rest:
        break;
    }
    return giveRest(fragment.bytes, fragment.ended, record);
}

/** Gives what is known to be the rest of a line that is not there. False when it is passed over. */
bool ForwardLines::giveRest(std::string_view bytes, bool ended, Record* record) {
    if (mClockDue)
        beginClock();
    mParts.parser.reset();
    mParts.describeRest(bytes, {mPlace.run, mPlace.section, kRestLine}, ended, record);
    return !mSeeking || !passedOver(record->place);
}

void ForwardLines::joinHeld(const Fragment& fragment) {
    const bool tooLong = mHeld.size() + fragment.bytes.size() > Fragments::kLongest;
    if (tooLong)
        mRest.assign(fragment.bytes);
    else
        mHeld.append(fragment.bytes);
    mHeldEnded = fragment.ended && !tooLong;
    mRestEnded = fragment.ended;
    mHeldDone = fragment.ended || fragment.cut || tooLong;
    if (mHeldDone && mParts.outside(mNext - 1)) {
        mOpen = false; // only that line was wanted of it
        mBefore = Before::LeftOut;
    }
}

bool ForwardLines::takeLine(const Fragment& fragment, Record* record) {
    ++mPlace.line;
    if (mClockDue)
        beginClock();
    if (!fragment.ended && !fragment.cut) {
        mHeld.assign(fragment.bytes);
        mHeldPlace = mPlace;
        mHolds = true;
        return false;
    }
    mParts.describe(mParts.parser, fragment.bytes, mPlace, fragment.ended, record);
    return !mSeeking || !passedOver(mPlace);
}

/** Gives the line that was held. False when it is passed over. */
bool ForwardLines::giveHeld(Record* record) {
    std::swap(mGiven, mHeld);
    mHeld.clear();
    mHolds = mHeldDone = false;
    mParts.describe(mParts.parser, mGiven, mHeldPlace, mHeldEnded, record);
    return !mSeeking || !passedOver(mHeldPlace);
}

bool ForwardLines::giveRemark(Record* record) {
    std::swap(mGiven, mRemark);
    mRemark.clear();
    mParts.describeRemark(mGiven, mPlace, record);
    return true;
}

void ForwardLines::beginClock() {
    mClockDue = false;
    mParts.beginClock();
}

bool ForwardLines::passedOver(const LinePlace& place) const {
    return place.run == mFrom.run && place.section == mFrom.section && place.line < mFrom.line;
}

} // namespace vnlog
