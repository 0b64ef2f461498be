#pragma once

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

} // namespace vnlog
