// SPDX-License-Identifier: Apache-2.0
#include "reader/BackwardLines.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vnlog {

namespace {

constexpr size_t kLines = 4096; ///< that are kept at a time
constexpr uint32_t kLastWindow = UINT32_MAX;

} // namespace

void BackwardLines::begin() {
    mRunsLeft = mParts.scope.runs.size();
    mLeft = 0;
    mInside = mBehindLeftOut = false;
    mWindow = 0;
    mLines.clear();
    mExtra.clear();
    mBehind = mHead = Rest();
}

bool BackwardLines::next(Record* record) {
    for (;;) {
        if (!mExtra.empty()) {
            mGiven = std::move(mExtra.front());
            mExtra.pop_front();
            if (mGiven.remark) {
                mParts.describeRemark(mGiven.text, mGiven.place, record);
            } else {
                mParts.describeRest(mGiven.text, mGiven.place, mGiven.ended, record);
                record->time = mGiven.time; // the clock is that of another section by now
            }
            return true;
        }
        if (!mLines.empty()) {
            *record = mLines.back();
            mLines.pop_back();
            return true;
        }
        if (mInside && mWindow > 0)
            readWindow(mWindow - 1);
        else if (!goBack())
            return false;
    }
}

/** Goes to the section or the run before. False when nothing is left. */
bool BackwardLines::goBack() {
    if (mInside)
        mBehind = std::exchange(mHead, Rest());
    mInside = false;
    if (mLeft > 0) {
        --mLeft;
        enter();
        return true;
    }
    giveRestUp();
    if (mRunsLeft == 0) {
        mParts.sections.close();
        return !mExtra.empty();
    }
    std::string remark;
    const uint32_t run = mParts.scope.runs[--mRunsLeft];
    if (!mParts.openRun(run, &remark) && !remark.empty())
        mExtra.push_back({remark, {run, 0, 0}, true, true, {}});
    mLeft = mParts.sections.sections().size();
    mBehindLeftOut = false;
    return true;
}

/** Reads a section's last lines. */
void BackwardLines::enter() {
    if (mParts.outside(mLeft)) {
        mBehind = Rest(); // it goes with the line
        mBehindLeftOut = true;
        return;
    }
    mHeadKind = mParts.beginsWithin(mLeft, &mCutLine)                      ? Head::Within
                : mParts.sections.start(mLeft) == RunSections::Start::Rest ? Head::Rest
                                                                           : Head::Line;
    mInside = true;
    readWindow(kLastWindow);
    mBehindLeftOut = mBehindLeftOut && mEmpty;
}

/** Keeps a part of the lines of a section: the one of that number, or the last. */
void BackwardLines::readWindow(uint32_t wanted) {
    constexpr size_t kTextSize = 2 * Fragments::kLongest; // a line that is joined fits in any case
    if (mText == nullptr)
        mText = allocateText(kTextSize);
    mParser = mParts.parser;
    mWindow = mLine = 0;
    mUsed = 0;
    mLines.clear();
    mTags.clear();
    const bool last = wanted == kLastWindow;
    std::string fragment;
    if (last ? mParts.openSection(mLeft) : mParts.reopenSection(mLeft)) {
        mParts.beginClock();
        if (!keepAll(wanted, &fragment))
            return;
    }
    if (last)
        finishSection(std::move(fragment), wanted);
    else
        tellShorter(wanted);
}

/** Deals with a section of which less can be read than the first time. */
void BackwardLines::tellShorter(uint32_t wanted) {
    if (mWindow < wanted)
        mLines.clear(); // they have their turn
    const TextState state = mParts.fragments.text().state();
    mWindow = state == TextState::Whole || state == TextState::Damaged ? wanted : 0;
    const std::string finding = mParts.countFinding();
    if (!finding.empty())
        mExtra.push_back({finding, place(mLeft, mLine), true, true, {}});
}

/** Keeps the lines that are wanted; `last` becomes one without an end. False when more follow those. */
bool BackwardLines::keepAll(uint32_t wanted, std::string* last) {
    Fragment fragment;
    mEmpty = true;
    for (bool first = true; mParts.fragments.next(&fragment); first = false) {
        mEmpty = false;
        if (first && mHeadKind != Head::Line)
            takeHead(fragment, wanted);
        else if (!fragment.ended && !fragment.cut)
            last->assign(fragment.bytes);
        else if (!keep(fragment.bytes, fragment.ended, false, wanted))
            return false;
    }
    return true;
}

/** Takes the rest of a line with which a section begins. */
void BackwardLines::takeHead(const Fragment& fragment, uint32_t wanted) {
    if (mHeadKind == Head::Rest) {
        (void)keep(fragment.bytes, fragment.ended, true, wanted); // there is room for the first one
        return;
    }
    mHead.there = true;
    mHead.ended = fragment.ended;
    mHead.open = !fragment.ended && !fragment.cut;
    mHead.bytes.assign(fragment.bytes);
    Record alone;
    mHead.place = place(mLeft, kRestLine);
    mParts.describeRest(mHead.bytes, mHead.place, mHead.ended, &alone);
    mHead.time = alone.time;
    if (mCutLine.empty() || !mParts.scope.fields)
        return;
    LogLine line;
    mParser.parse(mCutLine + mHead.bytes, &line);
}

/** Keeps a line. False when it belongs behind those that are wanted. */
bool BackwardLines::keep(std::string_view bytes, bool ended, bool rest, uint32_t wanted) {
    if (!mLines.empty() && (mLines.size() == kLines || mUsed + bytes.size() > Fragments::kLongest)) {
        if (mWindow == wanted)
            return false;
        ++mWindow;
        mLines.clear();
        mTags.clear();
        mUsed = 0;
    }
    char* kept = mText.get() + mUsed;
    std::copy_n(bytes.data(), bytes.size(), kept);
    mUsed += bytes.size();
    mLines.emplace_back();
    Record& record = mLines.back();
    const std::string_view line(kept, bytes.size());
    if (rest) {
        mParts.describeRest(line, place(mLeft, kRestLine), ended, &record);
        return true;
    }
    mParts.describe(mParser, line, place(mLeft, ++mLine), ended, &record);
    if (record.line.inside)
        keepTag(&record.line);
    return true;
}

/** Keeps the tag of an entry, which the parser forgets with the next one. */
void BackwardLines::keepTag(LogLine* line) {
    if (mTags.empty() || mTags.back() != line->tag)
        mTags.emplace_back(line->tag);
    line->tag = mTags.back();
}

/** Completes the last line of a section, and tells what is wrong with it. */
void BackwardLines::finishSection(std::string last, uint32_t wanted) {
    const std::string finding = mParts.countFinding();
    if (mEmpty && mHeadKind == Head::Within && finding.empty()) { // the line goes on behind it
        mHead = std::exchange(mBehind, Rest());
        return;
    }
    const bool open = !last.empty() || mHead.open;
    if (finding.empty() && open && mBehindLeftOut)
        fetchRest();
    const size_t length = last.size() + (mHead.open ? mHead.bytes.size() : 0) + mBehind.bytes.size();
    const bool joins = finding.empty() && open && mBehind.there && length <= Fragments::kLongest;
    if (!joins)
        giveRestUp();
    if (!finding.empty())
        mExtra.push_back({finding, place(mLeft, mLine), true, true, {}});
    if (mHead.open) {
        mHead.bytes += mBehind.bytes;
        mHead.ended = mBehind.ended;
    } else if (open) {
        last += mBehind.bytes;
        (void)keep(last, mBehind.ended, false, wanted); // the last window grows
    }
    mBehind = Rest();
}

/** Reads the rest of a line in the sections behind, which are none of the scope. */
void BackwardLines::fetchRest() {
    const RunSections& sections = mParts.sections;
    for (size_t index = mLeft + 1; index < sections.sections().size() && sections.follows(index); ++index) {
        Fragment fragment;
        if (!mParts.fragments.open(sections.folder(), sections.run(), sections.sections()[index]))
            return;
        if (!mParts.fragments.next(&fragment)) {
            if (mParts.fragments.text().state() != TextState::Whole)
                return;
            continue; // it is empty
        }
        mBehind.there = true;
        mBehind.ended = fragment.ended;
        mBehind.bytes += fragment.bytes;
        if (fragment.ended || fragment.cut || mBehind.bytes.size() > Fragments::kLongest)
            return;
    }
}

/** Gives the rest of a line whose beginning cannot be read as a line of its own. */
void BackwardLines::giveRestUp() {
    if (mBehind.there && !mBehindLeftOut)
        mExtra.push_back({mBehind.bytes, mBehind.place, false, mBehind.ended, mBehind.time});
    mBehind = Rest();
}

LinePlace BackwardLines::place(size_t index, uint32_t line) const {
    return {mParts.sections.run(), mParts.sections.sections()[index].number, line};
}

} // namespace vnlog
