// SPDX-License-Identifier: Apache-2.0
#include "sources/FinishRequest.h"

#include "base/Diagnostics.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace vnlog {

FinishRequest::FinishRequest() : mWakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void FinishRequest::make() {
    mMade = true; // first, so that whoever wakes up finds it
    uint64_t one = 1;
    if (mWakeUp.valid())
        (void)!write(mWakeUp.get(), &one, sizeof one); // fails only where it is readable already
}

void FinishRequest::reportRest(const char* reader) {
    logError("%s: more than %u byte came during the stop, the rest is not read\n", reader, kMostBytes);
}

void FinishRequest::withdraw() {
    mMade = false;
    uint64_t posts;
    if (mWakeUp.valid())
        (void)!read(mWakeUp.get(), &posts, sizeof posts);
}

} // namespace vnlog
