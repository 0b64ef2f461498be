// SPDX-License-Identifier: Apache-2.0
#include "buffer/Losses.h"

#include "base/Text.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sched.h>

namespace vnlog {

namespace {

/** In the order in which they are told. */
constexpr struct {
    Loss why;
    const char* text;
} kReasons[] = {
    {Loss::StorageFull, "the storage was full"},
    {Loss::Dropped, "dropped by a stop"},
    {Loss::Refused, "the storage could not be written"},
    {Loss::TooLong, "longer than the log buffer"},
    {Loss::Unread, "the driver dropped them before they were read"},
};
static_assert(std::size(kReasons) == kLossReasons);

} // namespace

const char* lossText(Loss why) {
    for (const auto& reason : kReasons) {
        if (reason.why == why)
            return reason.text;
    }
    return "";
}

uint32_t countLines(const char* text, uint32_t length) {
    return std::max(1U, static_cast<uint32_t>(std::count(text, text + length, '\n')));
}

void Losses::add(Loss why, uint32_t lines) {
    auto reason = static_cast<uint32_t>(why);
    mTotal[reason] += lines;
    ++mAdding; // before the look at the book, which stays until it is back
    mBook.load()->counted[reason] += lines;
    --mAdding;
}

uint32_t Losses::untold(Loss why) const {
    auto reason = static_cast<uint32_t>(why);
    const LossBook& book = *mBook;
    return book.counted[reason] - book.told[mSide][reason];
}

void Losses::attach(LossBook* book, uint32_t side) {
    mSide = side;
    mBook = book;
    awaitAdders();
    for (uint32_t reason = 0; reason < kLossReasons; ++reason)
        book->counted[reason] += mOwn.counted[reason].exchange(0);
}

void Losses::detach(bool keep) {
    const LossBook* book = mBook.exchange(&mOwn);
    awaitAdders();
    uint32_t side = mSide.exchange(0);
    for (uint32_t reason = 0; keep && reason < kLossReasons; ++reason)
        mOwn.counted[reason] += book->counted[reason] - book->told[side][reason];
}

/** Waits until nobody adds to the book from before, which takes a few instructions. */
void Losses::awaitAdders() const {
    while (mAdding != 0)
        sched_yield();
}

void Losses::write(LossLines* lines) const {
    for (const auto& reason : kReasons) {
        uint32_t count = untold(reason.why);
        if (count == 0)
            continue;
        char line[sizeof lines->text / kLossReasons];
        formatText(line, "--------- %u lines lost here: %s\n", count, reason.text);
        size_t length = std::strlen(line);
        std::memcpy(lines->text + lines->length, line, length);
        lines->length += static_cast<uint32_t>(length);
        lines->counts[static_cast<uint32_t>(reason.why)] = count;
    }
}

uint32_t Losses::prepare(const LossLines& lines) {
    LossBook& book = *mBook;
    uint32_t before = mSide, next = 1 - before;
    for (uint32_t reason = 0; reason < kLossReasons; ++reason)
        book.told[next][reason] = book.told[before][reason] + lines.counts[reason];
    return next;
}

} // namespace vnlog
