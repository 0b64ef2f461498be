// SPDX-License-Identifier: Apache-2.0
#include "reader/RunSections.h"

#include <utility>

namespace vnlog {

namespace {

constexpr int64_t kNanoseconds = 1000000; ///< in a millisecond

} // namespace

bool RunSections::open(uint32_t run, FileDescriptor folder) {
    close();
    mRun = run;
    mFolder = std::move(folder);
    return mFolder.valid() && listSections(mFolder.get(), &mSections);
}

void RunSections::close() {
    mFolder = FileDescriptor();
    mSections.clear();
    mKnown[0] = mKnown[1] = Known();
}

const SectionFacts* RunSections::facts(size_t index) {
    Known& known = mKnown[index % 2];
    if (known.index != index) {
        known = Known();
        known.index = index;
        const StoredSection& section = mSections[index];
        // Beside a text an archive may hold only a part of the section.
        FileDescriptor archive = section.archive && !section.text
                                     ? openStored(mFolder.get(), archiveName(section.number).text)
                                     : FileDescriptor();
        known.has = archive.valid() && readFacts(archive.get(), &known.facts);
    }
    return known.has ? &known.facts : nullptr;
}

bool RunSections::outside(size_t index, int64_t since, int64_t until) {
    if (since == INT64_MIN && until == INT64_MAX)
        return false;
    const SectionFacts* told = facts(index);
    if (told == nullptr || told->firstTime <= 0 || told->lastTime < told->firstTime)
        return false;
    const int64_t first = since / kNanoseconds, last = until / kNanoseconds; // rounded as facts are
    if (told->firstTime > last)
        return true;
    if (told->lastTime >= first || !told->openEnd)
        return told->lastTime < first;
    // The line that is cut at its end is not later than the last one of the next section.
    const SectionFacts* next =
        index + 1 < mSections.size() && follows(index + 1) ? facts(index + 1) : nullptr;
    return next != nullptr && next->lines > 0 && next->firstTime > 0 && next->lastTime < first;
}

bool RunSections::follows(size_t index) const {
    return index > 0 && mSections[index].number == mSections[index - 1].number + 1;
}

RunSections::Start RunSections::start(size_t index) {
    const SectionFacts* told = facts(index);
    if (told != nullptr && told->continuesKnown)
        return told->continues ? Start::Rest : Start::Line;
    if (!follows(index))
        return Start::Unknown;
    const SectionFacts* before = facts(index - 1);
    if (before == nullptr)
        return Start::Unknown;
    return before->openEnd ? Start::Rest : Start::Line;
}

} // namespace vnlog
