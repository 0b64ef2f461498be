#include "buffer/Losses.h"

#include "base/Text.h"

#include <algorithm>
#include <cstring>
#include <iterator>

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
    mBook.load()->counted[reason] += lines;
}

uint32_t Losses::untold(Loss why) const {
    auto reason = static_cast<uint32_t>(why);
    const LossBook& book = *mBook;
    return book.counted[reason] - book.told[mSide][reason];
}

void Losses::attach(LossBook* book, uint32_t side) {
    for (uint32_t reason = 0; reason < kLossReasons; ++reason)
        book->counted[reason] += untold(static_cast<Loss>(reason));
    mSide = side;
    mBook = book;
}

void Losses::detach(bool keep) {
    for (uint32_t reason = 0; reason < kLossReasons; ++reason) {
        mOwn.counted[reason] = keep ? untold(static_cast<Loss>(reason)) : 0;
        mOwn.told[0][reason] = 0;
    }
    mSide = 0;
    mBook = &mOwn;
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
