// SPDX-License-Identifier: Apache-2.0
#include "storage/SectionFiles.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Archive.h"
#include "storage/Layout.h"

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>

namespace vnlog {

namespace {

bool sectionNamed(const char* run, uint32_t number) {
    return nameTaken(sectionText(run, number).text) || nameTaken(sectionArchive(run, number).text) ||
           nameTaken(draftOf(sectionArchive(run, number).text).text);
}

/** Whether something has the name that can neither be used nor replaced: no regular file. */
bool isOdd(const char* path) {
    struct stat info;
    return lstat(path, &info) == 0 && !S_ISREG(info.st_mode);
}

/** Renames within a folder and brings that to the medium. */
bool renameSynced(const char* from, const char* to) {
    return std::rename(from, to) == 0 && syncFolderOf(to);
}

} // namespace

uint32_t freeSection(const char* run, uint32_t least) {
    for (uint32_t number = least; number < kNoNumber; ++number) {
        if (!sectionNamed(run, number))
            return number;
    }
    uint32_t number = 1; // out of order, but not lost
    while (sectionNamed(run, number))
        ++number;
    return number;
}

/** Compresses the text unless an archive has it already. */
SectionFiles::Settled SectionFiles::settle(const char* text, const SectionOrigin& origin) {
    Path archive = archiveOf(text);
    struct stat info;
    bool taken = lstat(archive.text, &info) == 0;
    if ((taken && !S_ISREG(info.st_mode)) || isOdd(draftOf(archive.text).text))
        return Settled::NameTaken;
    if (!taken)
        return mFiles.compress(text, origin) ? Settled::Done : Settled::Failed;
    logDebug("[%s] is compared with [%s]\n", archive.text, text);
    bool done = false;
    switch (comparePair(archive.text, text)) {
    case PairKind::Covers:
        done = syncPath(archive.text) && syncFolderOf(archive.text) && mFiles.removeFile(text);
        break;
    case PairKind::Damaged:
    case PairKind::Continued:
        done = mFiles.compress(text, origin);
        break;
    case PairKind::Different:
        return Settled::NameTaken;
    case PairKind::Unreadable:
        // An archive that this user may not read cannot be replaced.
        if ((errno == EACCES || errno == EPERM) && openOwnFile(text, O_RDONLY).valid())
            return Settled::NameTaken;
        break;
    }
    return done ? Settled::Done : Settled::Failed;
}

bool SectionFiles::finish(const char* run, uint32_t* number, const SectionOrigin& origin) {
    Settled settled = settle(sectionText(run, *number).text, origin);
    if (settled != Settled::NameTaken)
        return settled == Settled::Done;
    uint32_t free = freeSection(run, *number + 1);
    Path moved = sectionText(run, free);
    logError("the name of section %u of [%s] is taken, it becomes %u\n", *number, run, free);
    if (std::rename(sectionText(run, *number).text, moved.text) != 0)
        return false;
    *number = free;
    return syncFolderOf(moved.text) && mFiles.compress(moved.text, origin);
}

bool SectionFiles::finishOther(const char* text) {
    Settled settled = settle(text, {});
    if (settled == Settled::NameTaken)
        errno = EEXIST;
    return settled == Settled::Done;
}

bool SectionFiles::adoptOlder(const char* run) {
    Path archive = olderArchive(run), text = olderText(run);
    struct stat info;
    bool done = true;
    if (lstat(archive.text, &info) == 0 && S_ISREG(info.st_mode))
        done = renameSynced(archive.text, sectionArchive(run, freeSection(run, 1)).text);
    if (lstat(text.text, &info) == 0 && S_ISREG(info.st_mode))
        done = renameSynced(text.text, sectionText(run, freeSection(run, 1)).text) && done;
    return done;
}

} // namespace vnlog
