// SPDX-License-Identifier: Apache-2.0
#include "storage/SectionFacts.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <unistd.h>
#include <zlib.h>

namespace vnlog {

namespace {

constexpr char kIdentity[] = {'V', 'L'}; ///< of the subfield
constexpr uint8_t kVersion = 1;
constexpr size_t kLongestBoot = 64;
constexpr uint32_t kPriorities = 8;
constexpr size_t kLongestRest = 8192; ///< of a line whose end has not come: no entry is as long

/** The parts of the payload; each has this byte and its length in front. */
enum Part : uint8_t {
    kRun = 1,
    kBoot = 2,
    kPoints = 3,
    kZone = 4,
    kTimes = 5,
    kLines = 6,
    kCounts = 7,
    kLosses = 8,
};

// Bits of the last byte of kLines.
constexpr uint8_t kLostKnown = 1, kContinues = 2, kContinuesKnown = 4, kOpenEnd = 8;

// Bytes of what a part has, or has several of.
constexpr size_t kNumberSize = 4, kPointSize = 16, kTimesSize = 24, kLinesSize = 9, kCountSize = 5,
                 kLossesSize = 8;
constexpr size_t kPayloadStart = 1 + kNumberSize; ///< version and checksum
static_assert(size_t{kLineSources} * kPriorities * kCountSize <= UINT8_MAX, "a part's length is one byte");

void put(std::string* to, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i)
        to->push_back(static_cast<char>(value >> (8 * i)));
}

void putTime(std::string* to, int64_t value) {
    put(to, static_cast<uint64_t>(value), 8);
}

void putPart(std::string* to, Part part, const std::string& content) {
    if (content.empty())
        return;
    put(to, part, 1);
    put(to, content.size(), 1);
    *to += content;
}

/** Takes little-endian numbers from the front of a text that has them. */
class Bytes {
  public:
    explicit Bytes(std::string_view text) : mText(text) {}
    size_t left() const { return mText.size(); }

    std::string_view take(size_t count) {
        std::string_view taken = mText.substr(0, count);
        mText.remove_prefix(taken.size());
        return taken;
    }
    uint64_t takeNumber(size_t bytes) {
        uint64_t value = 0;
        std::string_view taken = take(bytes);
        for (size_t i = taken.size(); i-- > 0;)
            value = value << 8 | static_cast<unsigned char>(taken[i]);
        return value;
    }
    uint32_t takeSmall() { return static_cast<uint32_t>(takeNumber(kNumberSize)); }
    int64_t takeTime() { return static_cast<int64_t>(takeNumber(8)); }

  private:
    std::string_view mText;
};

bool within(int64_t value, int64_t least, int64_t most) {
    return value >= least && value <= most;
}

bool takeBoot(std::string_view text, std::string* boot) {
    *boot = text;
    return text.size() <= kLongestBoot && std::all_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) > ' ' && static_cast<unsigned char>(c) < 0x7f;
           });
}

bool takePoints(Bytes bytes, std::vector<ClockPoint>* points) {
    if (bytes.left() % kPointSize != 0 || bytes.left() > kMostPoints * kPointSize)
        return false;
    points->clear();
    while (bytes.left() > 0) {
        ClockPoint point;
        point.since = bytes.takeTime();
        point.offset = bytes.takeTime();
        if (!within(point.since, points->empty() ? 0 : points->back().since, kLatestTime) ||
            !within(point.offset, -kLatestTime, kLatestTime))
            return false;
        points->push_back(point);
    }
    return true;
}

bool takeTimes(Bytes bytes, SectionFacts* facts) {
    if (bytes.left() != kTimesSize)
        return false;
    facts->reference = bytes.takeTime();
    facts->firstTime = bytes.takeTime();
    facts->lastTime = bytes.takeTime();
    return within(facts->reference, 0, kLatestTime) && within(facts->firstTime, 0, facts->lastTime) &&
           facts->lastTime <= kLatestTime;
}

bool takeLines(Bytes bytes, SectionFacts* facts) {
    if (bytes.left() != kLinesSize)
        return false;
    facts->lines = bytes.takeSmall();
    facts->forms = bytes.takeSmall();
    const auto bits = static_cast<uint8_t>(bytes.takeNumber(1));
    facts->lostKnown = (bits & kLostKnown) != 0;
    facts->continues = (bits & kContinues) != 0;
    facts->continuesKnown = (bits & kContinuesKnown) != 0;
    facts->openEnd = (bits & kOpenEnd) != 0;
    return true;
}

bool takeCounts(Bytes bytes, SectionFacts* facts) {
    if (bytes.left() % kCountSize != 0)
        return false;
    while (bytes.left() > 0) {
        const auto place = static_cast<uint32_t>(bytes.takeNumber(1));
        const uint32_t count = bytes.takeSmall();
        if (place < kLineSources * kPriorities) // of another source a later version may tell
            facts->counts[place / kPriorities][place % kPriorities] = count;
    }
    return true;
}

/** Takes a part in; one that it does not know is passed over. */
bool takePart(uint8_t part, std::string_view content, SectionFacts* facts) {
    Bytes bytes(content);
    switch (part) {
    case kRun:
        facts->origin.run = bytes.takeSmall();
        return content.size() == kNumberSize;
    case kBoot:
        return takeBoot(content, &facts->origin.boot);
    case kPoints:
        return takePoints(bytes, &facts->origin.points);
    case kZone:
        facts->origin.zone = static_cast<int32_t>(bytes.takeSmall());
        facts->origin.zoneKnown = true;
        return content.size() == kNumberSize && within(facts->origin.zone, -kFarthestZone, kFarthestZone);
    case kTimes:
        return takeTimes(bytes, facts);
    case kLines:
        return takeLines(bytes, facts);
    case kCounts:
        return takeCounts(bytes, facts);
    case kLosses:
        facts->lostBefore = bytes.takeSmall();
        facts->lostHere = bytes.takeSmall();
        return content.size() == kLossesSize;
    default:
        return true;
    }
}

/** Of the parts: whoever trusts the facts passes whole sections over. */
uint32_t checksum(std::string_view parts) {
    return static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(parts.data()), static_cast<uInt>(parts.size())));
}

/** Reads the payload. It has each part once at most, and those that a reader cannot be without. */
bool takePayload(std::string_view payload, SectionFacts* facts) {
    Bytes bytes(payload);
    if (payload.size() < kPayloadStart || bytes.takeNumber(1) != kVersion ||
        bytes.takeSmall() != checksum(payload.substr(kPayloadStart)))
        return false;
    uint32_t seen = 0;
    while (bytes.left() > 0) {
        if (bytes.left() < 2)
            return false;
        const auto part = static_cast<uint8_t>(bytes.takeNumber(1));
        const auto size = static_cast<size_t>(bytes.takeNumber(1));
        const uint32_t bit = part < 32 ? 1U << part : 0;
        if (bytes.left() < size || (seen & bit) != 0 || !takePart(part, bytes.take(size), facts))
            return false;
        seen |= bit;
    }
    uint64_t counted = 0;
    for (const auto& source : facts->counts)
        for (uint32_t count : source)
            counted += count;
    constexpr uint32_t kNeeded = 1U << kTimes | 1U << kLines;
    return (seen & kNeeded) == kNeeded && counted <= facts->lines;
}

std::string encodeLines(const SectionFacts& facts) {
    std::string lines;
    put(&lines, facts.lines, kNumberSize);
    put(&lines, facts.forms, kNumberSize);
    put(&lines,
        (facts.lostKnown ? kLostKnown : 0U) | (facts.continues ? kContinues : 0U) |
            (facts.continuesKnown ? kContinuesKnown : 0U) | (facts.openEnd ? kOpenEnd : 0U),
        1);
    return lines;
}

std::string encodeCounts(const SectionFacts& facts) {
    std::string counts;
    for (uint32_t place = 0; place < kLineSources * kPriorities; ++place) {
        const uint32_t count = facts.counts[place / kPriorities][place % kPriorities];
        if (count == 0)
            continue;
        put(&counts, place, 1);
        put(&counts, count, kNumberSize);
    }
    return counts;
}

std::string encodePoints(const std::vector<ClockPoint>& points) {
    std::string text;
    for (size_t i = points.size() - std::min(points.size(), kMostPoints); i < points.size(); ++i) {
        putTime(&text, points[i].since);
        putTime(&text, points[i].offset);
    }
    return text;
}

std::string encodeParts(const SectionFacts& facts) {
    std::string payload, run, zone, times, losses;
    if (facts.origin.run > 0)
        put(&run, facts.origin.run, kNumberSize);
    putPart(&payload, kRun, run);
    putPart(&payload, kBoot, facts.origin.boot.substr(0, kLongestBoot));
    putPart(&payload, kPoints, encodePoints(facts.origin.points));
    if (facts.origin.zoneKnown)
        put(&zone, static_cast<uint32_t>(facts.origin.zone), kNumberSize);
    putPart(&payload, kZone, zone);
    putTime(&times, facts.reference);
    putTime(&times, facts.firstTime);
    putTime(&times, facts.lastTime);
    putPart(&payload, kTimes, times);
    putPart(&payload, kLines, encodeLines(facts));
    putPart(&payload, kCounts, encodeCounts(facts));
    if (facts.lostBefore > 0 || facts.lostHere > 0) {
        put(&losses, facts.lostBefore, kNumberSize);
        put(&losses, facts.lostHere, kNumberSize);
    }
    putPart(&payload, kLosses, losses);
    return payload;
}

bool preadAll(int file, char* to, size_t count, off_t from) {
    while (count > 0) {
        const ssize_t got = pread(file, to, count, from);
        if (got <= 0)
            return false;
        to += got;
        from += got;
        count -= static_cast<size_t>(got);
    }
    return true;
}

} // namespace

ClockFacts SectionFacts::clock() const {
    return {origin.points, origin.zoneKnown, origin.zone, reference, firstTime};
}

std::string encodeFacts(const SectionFacts& facts) {
    const std::string parts = encodeParts(facts);
    std::string extra(kIdentity, sizeof kIdentity);
    put(&extra, kPayloadStart + parts.size(), 2);
    put(&extra, kVersion, 1);
    put(&extra, checksum(parts), kNumberSize);
    return extra + parts;
}

namespace {

/** Finds the payload in an extra field. */
bool findPayload(std::string_view extra, std::string_view* payload) {
    Bytes bytes(extra);
    while (bytes.left() >= sizeof kIdentity + 2) {
        const std::string_view identity = bytes.take(sizeof kIdentity);
        const auto size = static_cast<size_t>(bytes.takeNumber(2));
        if (bytes.left() < size)
            return false;
        *payload = bytes.take(size);
        if (identity == std::string_view(kIdentity, sizeof kIdentity))
            return true;
    }
    return false;
}

/** Reads the extra field of an archive's first header. */
bool readExtra(int archive, std::string* extra) {
    constexpr char kStart[] = {'\x1f', '\x8b', 8}; // the format's mark, deflate
    constexpr uint8_t kExtraFollows = 4, kReserved = 0xe0;
    char header[12];
    if (!preadAll(archive, header, sizeof header, 0) || std::memcmp(header, kStart, sizeof kStart) != 0 ||
        (header[3] & kExtraFollows) == 0 || (header[3] & kReserved) != 0)
        return false;
    extra->resize(static_cast<size_t>(Bytes(std::string_view(header + 10, 2)).takeNumber(2)));
    return preadAll(archive, extra->data(), extra->size(), sizeof header);
}

} // namespace

bool decodeFacts(std::string_view extra, SectionFacts* facts) {
    std::string_view payload;
    if (!findPayload(extra, &payload))
        return false;
    *facts = {};
    return takePayload(payload, facts);
}

bool readFacts(int archive, SectionFacts* facts) {
    std::string extra;
    return readExtra(archive, &extra) && decodeFacts(extra, facts);
}

bool hasDamagedFacts(int archive) {
    std::string extra;
    std::string_view payload;
    SectionFacts facts;
    return readExtra(archive, &extra) && findPayload(extra, &payload) && !payload.empty() &&
           payload[0] == kVersion && !takePayload(payload, &facts);
}

// --- Summing up

namespace {

uint32_t formBit(LineForm form) {
    return 1U << static_cast<uint32_t>(form);
}

uint32_t sum(uint32_t one, uint32_t other) {
    return one + std::min(other, UINT32_MAX - one);
}

} // namespace

void SectionSummary::begin(const SectionOrigin& origin, uint32_t number, const SectionFacts* before,
                           int64_t modified) {
    mFacts = {};
    mFacts.origin = origin;
    mFacts.reference = within(modified, 0, kLatestTime) ? modified : 0;
    if (!origin.zoneKnown)
        takeEnvironmentZone();
    mFacts.lostKnown = before != nullptr ? before->lostKnown : number == 1;
    mFacts.continuesKnown = before != nullptr || number == 1;
    mBefore = mEarliest = 0;
    if (before != nullptr) {
        mFacts.lostBefore = sum(before->lostBefore, before->lostHere);
        mFacts.continues = before->openEnd;
        mBefore = before->lastTime;
        // An entry in the long form may go on whose heading is not in this text, nor in one before without
        // forms.
        bool entry = before->forms == 0 || (before->forms & formBit(LineForm::Long)) != 0;
        mEarliest = entry ? std::min(before->firstTime, mBefore) : mBefore;
    }
    ClockFacts clock = mFacts.clock();
    clock.begin = mBefore;
    mClock.beginSection(clock);
    mParser.reset();
    mRest.clear();
    mWithin = mFacts.continues;
    mDated = mUndatedFirst = false;
}

/** Takes the zone that this device has at the time of the text, so that others date its lines alike. */
void SectionSummary::takeEnvironmentZone() {
    const auto time = static_cast<time_t>(mFacts.reference / 1000);
    struct tm local {};
    mFacts.origin.zoneKnown = localtime_r(&time, &local) != nullptr;
    mFacts.origin.zone = mFacts.origin.zoneKnown ? static_cast<int32_t>(local.tm_gmtoff) : 0;
}

void SectionSummary::add(std::string_view text) {
    while (!text.empty()) {
        const size_t length = std::min(text.find('\n'), text.size());
        const bool whole = length < text.size();
        const std::string_view line = text.substr(0, length);
        text.remove_prefix(length + (whole ? 1 : 0));
        if (whole && mRest.empty()) {
            takeLine(line);
            continue;
        }
        mRest.append(line.substr(0, kLongestRest - std::min(kLongestRest, mRest.size())));
        if (!whole)
            return;
        takeLine(mRest);
        mRest.clear();
    }
}

void SectionSummary::takeLine(std::string_view line) {
    ++mFacts.lines;
    if (mWithin) { // its beginning, which tells the rest, is in another section
        mWithin = false;
        ++mFacts.counts[static_cast<size_t>(LineSource::Unknown)][0];
        return;
    }
    LogLine parsed;
    mParser.parse(line, &parsed);
    ++mFacts.counts[static_cast<size_t>(parsed.source)][parsed.priority];
    mFacts.forms |= formBit(parsed.form);
    mFacts.lostHere = sum(mFacts.lostHere, parsed.lost);
    if (!takeTime(parsed))
        mUndatedFirst = mUndatedFirst || !mDated;
}

/** Notes when a line was written. False when it does not tell. */
bool SectionSummary::takeTime(const LogLine& line) {
    const LineTime time = mClock.timeOf(line);
    if (time.basis != TimeBasis::Line && time.basis != TimeBasis::Kernel)
        return false;
    constexpr int64_t kMillisecond = 1000000;
    const int64_t begun = time.nanoseconds / kMillisecond;
    const int64_t over = begun + (time.nanoseconds % kMillisecond > 0 ? 1 : 0);
    mFacts.firstTime = mDated ? std::min(mFacts.firstTime, begun) : begun;
    mFacts.lastTime = mDated ? std::max(mFacts.lastTime, over) : over;
    mDated = true;
    return true;
}

SectionFacts SectionSummary::end() {
    mFacts.openEnd = !mRest.empty() || mWithin; // an empty section lies within a line as a whole
    if (mFacts.openEnd && !mWithin)
        takeOpenLine();
    if (mUndatedFirst && mDated && mEarliest > 0)
        mFacts.firstTime = std::min(mFacts.firstTime, mEarliest);
    if (!mDated) {
        mFacts.firstTime = mEarliest > 0 ? mEarliest : mFacts.reference;
        mFacts.lastTime = std::max(mFacts.firstTime, mFacts.reference);
    }
    // Where a line lies outside of what can be noted, or was dated by nothing that is noted, nothing is said.
    if (mFacts.reference == 0 || mFacts.firstTime <= 0 || mFacts.lastTime > kLatestTime)
        mFacts.firstTime = mFacts.lastTime = 0;
    return mFacts;
}

/** Dates the line that the section ends within. Where its beginning here does not tell, the whole line may,
 * and it was written no later than the text was changed. */
void SectionSummary::takeOpenLine() {
    LogLine parsed;
    mParser.parse(mRest, &parsed);
    if (takeTime(parsed)) {
        mFacts.forms |= formBit(parsed.form);
        return;
    }
    mUndatedFirst = mUndatedFirst || !mDated;
    if (mDated)
        mFacts.lastTime = std::max(mFacts.lastTime, mFacts.reference);
}

} // namespace vnlog
