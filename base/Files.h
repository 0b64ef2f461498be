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

/** Whether anything is at `path`. */
bool pathExists(const char* path);

} // namespace vnlog
