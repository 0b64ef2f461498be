// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

/* Questions about files and folders. Any thread. */
namespace vnlog {

enum class FolderState { Empty, NotEmpty, Unreadable };

/** Whether the folder holds anything; one that cannot be opened is reported. */
FolderState folderState(const char* path);

/**
 * Sum in bytes of the sizes of the folder's own entries, modulo 2^32; not recursive, symbolic links followed.
 * False, reported, when the folder cannot be listed; `sum` is 0 then.
 */
[[nodiscard]] bool folderSize(const char* path, uint32_t* sum);

/** Size of a file in bytes, modulo 2^32; 0 when it cannot be examined. */
uint32_t fileSize(const char* path);

/** Free bytes of the file system that holds `path`, at most 4294967295; 0, reported, when it cannot tell. */
uint32_t freeSpace(const char* path);

/** The same without that limit, and only what this user may take; not reported. */
uint64_t availableBytes(const char* path);

enum class OwnFolder { Missing, Ours, Refused };

/**
 * Whether there is a folder of this process's user or of root at `path`. Anything else there is refused and
 * reported, a link as well; errno tells why, as it does when it cannot be told. Write rights of others on a
 * folder of this user's are taken away.
 */
OwnFolder ownFolder(const char* path);

/** Whether this is what a call gives (errno) that finds no room on the medium. */
bool lackOfRoom(int error);
/** Whether a call that gave this errno may succeed later: descriptors or memory were missing, or reading
 * failed. */
bool mayPass(int error);

/** Whether there is anything at `path`, be it a link to nowhere. */
bool nameTaken(const char* path);

/** Whether `path` leads to anything, links followed. */
bool pathExists(const char* path);

} // namespace vnlog
