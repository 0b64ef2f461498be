// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "storage/FileWork.h"

#include <ctime>
#include <functional>
#include <sys/stat.h>

/* What the forms of file work have in common. Any thread that is not cancelled meanwhile. */
namespace vnlog {

/** What stands behind the last slash of a path. */
const char* lastName(const char* path);

/** Passes `done` on; a failure is reported as "fail to <what> [<path>]" with the reason that errno tells. */
bool reported(bool done, const char* what, const char* path);

/** A text to be compressed, and the new empty file that is to become its archive. */
struct Draft {
    const char* textPath;
    const char* path;
    int text; ///< both are open descriptors that the caller keeps
    int file;
    struct stat info; ///< of the text
};

/**
 * FileWork::compress for a form that makes the archive's bytes by `fill`, which returns false with errno set
 * when it cannot. Reports a failure.
 */
bool compressByDraft(const char* text, const std::function<bool(const Draft&)>& fill);

/** What FileWork::moveFolder asks of its two paths. False with errno set. */
bool canMove(const char* from, const char* to);

/** Whether something other than a link is at `path`. False with errno set. */
bool isNoLink(const char* path);

/** openFile for an entry of an open folder, or AT_FDCWD; a link there is refused. */
[[nodiscard]] FileDescriptor openEntry(int folder, const char* name, int flags, mode_t mode = 0);

/** Whether both are one file. */
bool same(const struct stat& one, const struct stat& other);

/** Adds up a tree; what cannot be looked at is left out. */
void addUpTree(int parent, const char* name, CopyTotals* totals);
/** Adds up the regular files of a tree that a copy of it has, with their sizes there. */
void addUpCopied(int parent, const char* name, int copyParent, const char* copyName, CopyTotals* totals);

/**
 * Whether `copy` has all files and links of the tree `from`, itself left out, that were last changed before
 * `made`, and each file that was last changed before `since` in its full length (both CLOCK_REALTIME_COARSE,
 * as of the files' times). False with errno set.
 */
[[nodiscard]] bool copyHolds(const char* from, const char* copy, timespec since, timespec made);

} // namespace vnlog
