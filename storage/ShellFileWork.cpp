// SPDX-License-Identifier: Apache-2.0
#include "storage/ShellFileWork.h"

#include "base/Files.h"
#include "base/Text.h"
#include "storage/Archive.h"
#include "storage/FileSteps.h"
#include "storage/Shell.h"

#include <cerrno>
#include <limits>

namespace vnlog {

namespace {

constexpr int kSeconds = 60; ///< that a command may take
constexpr int kMoreLooks = 5; ///< for what has come in the place of a file that was to be copied
constexpr uint32_t kNearlyFull = 65536; ///< free bytes with which a failure counts as one of space

/** The two files alone decide: gzip also reports mere warnings, and what it may have left out it does not. */
bool fillByGzip(const Draft& draft) {
    (void)runFileCommand(kSeconds, "gzip -c %s > %s", draft.textPath, draft.path);
    if (archiveHolds(draft.path, draft.textPath))
        return true;
    errno = freeSpace(draft.path) < kNearlyFull ? ENOSPC : EIO;
    return false;
}

/** Whether cp may make the folder there: it would follow a link. */
bool canCopy(const char* from, const char* into) {
    Path copy = entryPath(into, lastName(from));
    return pathExists(from) && pathExists(into) && (isNoLink(copy.text) || errno == ENOENT);
}

timespec now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME_COARSE, &time);
    return time;
}

/** The commands' results are those of sync, and cp also fails for what has vanished meanwhile: the trees
 * tell. A text that has become an archive while a command ran is missing in both forms, but not after
 * another. */
bool copyUntilWhole(const char* from, const char* into, const char* copy) {
    const timespec since = now(), never{std::numeric_limits<time_t>::max(), 0};
    if (!runFileCommand(kSeconds, "cp -rf --remove-destination %s/ %s/;sync", from, into))
        return false;
    if (copyHolds(from, copy, since, never))
        return true;
    const timespec made = now();
    for (int look = 0; look < kMoreLooks; ++look) {
        if (!runFileCommand(kSeconds, "cp -rn %s/ %s/;sync", from, into))
            return false;
        if (copyHolds(from, copy, since, made))
            return true;
    }
    int error = errno;
    errno = availableBytes(into) < kNearlyFull ? ENOSPC : error;
    return false;
}

} // namespace

bool ShellFileWork::compress(const char* text, const SectionOrigin&) {
    return compressByDraft(text, fillByGzip);
}

bool ShellFileWork::removeFile(const char* path) {
    return reported(runFileCommand(kSeconds, "rm -f %s", path), "remove", path);
}

bool ShellFileWork::removeTree(const char* path) {
    return reported(runFileCommand(kSeconds, "rm -rf %s", path), "remove", path);
}

bool ShellFileWork::removeAll(const char* beginning) {
    Path folder;
    bool within = *lastName(beginning) == '\0'; // then the folder is the last place, which must be no link
    formatText(folder.text, "%.*s", static_cast<int>(lastName(beginning) - beginning) - 1, beginning);
    bool done = within && !isNoLink(folder.text) ? errno == ENOENT
                                                 : runFileCommand(kSeconds, "rm -rf %s*", beginning);
    return reported(done, "remove all of", beginning);
}

bool ShellFileWork::moveFolder(const char* from, const char* to) {
    return reported(canMove(from, to) && runFileCommand(kSeconds, "mv -f %s/ %s/", from, to), "move", from);
}

bool ShellFileWork::copyTree(const char* from, const char* into, CopyTotals* totals) {
    Path copy = entryPath(into, lastName(from));
    bool done = canCopy(from, into) && copyUntilWhole(from, into, copy.text);
    int error = errno;
    *totals = {};
    addUpCopied(AT_FDCWD, from, AT_FDCWD, copy.text, totals);
    errno = error;
    return reported(done, "copy", from);
}

} // namespace vnlog
