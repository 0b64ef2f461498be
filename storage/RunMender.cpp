// SPDX-License-Identifier: Apache-2.0
#include "storage/RunMender.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "storage/RunList.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr uint32_t kStrayCopies = 1000; ///< names that are tried for a run without sections

/** Removes a run's folder that is empty; moves one aside that holds nothing but foreign files. */
void dropRun(const char* run) {
    if (rmdir(run) == 0)
        return;
    logError("[%s] holds no section and is moved aside\n", run);
    uint32_t copy = 0;
    while (copy < kStrayCopies && nameTaken(strayFolder(run, copy).text))
        ++copy;
    if (std::rename(run, strayFolder(run, copy).text) != 0)
        logErrno();
}

} // namespace

void RunMender::mendAll(RoomMaker* room) {
    Listing listing(mState.mLogServiceDir);
    StoredEntry entry;
    while (listing.valid() && listing.next(&entry)) { // what is not listed now is so the next time
        Path run;
        if (entry.isRun() && listing.path(entry, &run))
            mend(run.text, room);
    }
}

void RunMender::mend(const char* run, RoomMaker* room) {
    RunContent content;
    if (!lookIntoRun(run, &content, Look::Names))
        return; // what the listing did not show may be what matters
    if (content.text || content.older || content.draft) {
        if (!closeTexts(run, room) || !lookIntoRun(run, &content, Look::Names))
            return;
    }
    if (!content.holdsSection() && !content.older) // an older log that could not be renamed is tried again
        dropRun(run);
}

bool RunMender::closeTexts(const char* run, RoomMaker* room) {
    Listing listing(run);
    StoredEntry entry;
    while (listing.valid() && listing.next(&entry)) {
        Path path;
        bool workable =
            listing.path(entry, &path) && std::strlen(path.text) <= kLongestWorkPath && shellSafe(path.text);
        if (entry.type != EntryType::File || !workable)
            continue;
        if (entry.kind == NameKind::Draft)
            (void)unlink(path.text); // one that stays is in nobody's way
        else if (isText(entry.kind))
            closeText(run, entry, path.text, room);
    }
    if (!listing.valid() || listing.failed()) {
        int error = errno;
        logError("fail to open [%s] dir error!\n", run);
        logErrno(error);
        errno = error;
        return false;
    }
    if (!mSections.adoptOlder(run))
        logErrno();
    return true;
}

void RunMender::closeText(const char* run, const StoredEntry& entry, const char* text, RoomMaker* room) {
    uint32_t number = entry.number;
    const SectionOrigin origin = recordedOrigin(mState.mLogServiceDir, run);
    for (;;) {
        bool done = entry.kind == NameKind::PlainText ? mSections.finish(run, &number, origin)
                                                      : mSections.finishOther(text);
        if (done)
            return;
        if (!lackOfRoom(errno) || room == nullptr || !room->freeOldest())
            break;
    }
    logError("init_Log_Storage fail to Compress [%s] log!\n", text);
}

} // namespace vnlog
