#include "storage/ShellFileWork.h"

#include "base/Files.h"
#include "base/Text.h"
#include "storage/Archive.h"
#include "storage/FileSteps.h"
#include "storage/Shell.h"

#include <cerrno>

namespace vnlog {

namespace {

constexpr int kSeconds = 60; ///< that a command may take
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

/** The command's result is that of sync, and cp also fails for what has vanished meanwhile: the trees tell. A
 * second time is for a text that has become an archive. */
bool copyOnce(const char* from, const char* into, const char* copy, Newer newer) {
    timespec since{};
    clock_gettime(CLOCK_REALTIME_COARSE, &since);
    if (!runFileCommand(kSeconds, "cp -rf --remove-destination %s/ %s/;sync", from, into))
        return false;
    if (copyHolds(from, copy, since, newer))
        return true;
    int error = errno;
    errno = availableBytes(into) < kNearlyFull ? ENOSPC : error;
    return false;
}

} // namespace

bool ShellFileWork::compress(const char* text) {
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
    bool done = canCopy(from, into) && (copyOnce(from, into, copy.text, Newer::Present) ||
                                        copyOnce(from, into, copy.text, Newer::Exempt));
    int error = errno;
    *totals = {};
    addUpTree(AT_FDCWD, copy.text, totals);
    errno = error;
    return reported(done, "copy", from);
}

} // namespace vnlog
