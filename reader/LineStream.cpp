// SPDX-License-Identifier: Apache-2.0
#include "reader/LineStream.h"

#include "reader/BackwardLines.h"
#include "reader/ForwardLines.h"

namespace vnlog {

class LineStream::Work {
  public:
    Work(const StoreFolder& folder, const RunHistory& history) : parts(folder, history) {}

    StreamParts parts;
    ForwardLines forward{parts};
    BackwardLines backward{parts};
    bool reverse = false;
};

LineStream::LineStream(const StoreFolder& folder, const RunHistory& history)
    : mWork(std::make_unique<Work>(folder, history)) {}

LineStream::~LineStream() = default;

void LineStream::begin(const Scope& scope) {
    mWork->reverse = false;
    mWork->parts.begin(scope);
    mWork->forward.begin(nullptr);
}

void LineStream::beginBackward(const Scope& scope) {
    mWork->reverse = true;
    mWork->parts.begin(scope);
    mWork->backward.begin();
}

void LineStream::beginAt(const Scope& scope, const LinePlace& place) {
    mWork->reverse = false;
    mWork->parts.begin(scope);
    mWork->forward.begin(&place);
}

bool LineStream::next(Record* record) {
    return mWork->reverse ? mWork->backward.next(record) : mWork->forward.next(record);
}

const StreamCounts& LineStream::counts() const {
    return mWork->parts.counts;
}

} // namespace vnlog
