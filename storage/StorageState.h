// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Flag.h"
#include "base/Mutex.h"

#include <cstdint>

namespace vnlog {

/** The role of the lock on the stored log: paths, numbers and the active section. */
struct StorageLock {
    static LockRole role;
};

/**
 * Where the stored log is, and the numbers that tell its extent. Sizes are in bytes, modulo 2^32, unless said
 * otherwise. Root and paths change only at start and inside a command, which may read them without the lock.
 */
struct StorageState {
    char* mSavePath VNLOG_GUARDED_BY(StorageLock::role) = nullptr; ///< storage root, owned
    /// What is configured, owned, while it cannot be opened and the default one is in force; else null.
    char* mConfiguredPath VNLOG_GUARDED_BY(StorageLock::role) = nullptr;
    uint32_t mCurLogSize VNLOG_GUARDED_BY(StorageLock::role) = 0; ///< active section file
    uint32_t mCurrentTotalSize VNLOG_GUARDED_BY(StorageLock::role) = 0; ///< finished sections of this run
    uint32_t mSliceNum VNLOG_GUARDED_BY(StorageLock::role) = 1; ///< number of the active section
    uint32_t mTailFolderNum VNLOG_GUARDED_BY(StorageLock::role) = 0; ///< oldest archived run
    uint32_t mHeadFolderNum VNLOG_GUARDED_BY(StorageLock::role) = 0; ///< newest archived run
    uint32_t mTotalLogSize VNLOG_GUARDED_BY(StorageLock::role) = 0; ///< all archived runs
    uint32_t mOldestFileNum VNLOG_GUARDED_BY(StorageLock::role) = 1; ///< oldest surviving section

    char mLogServiceDir[128] VNLOG_GUARDED_BY(StorageLock::role) = {};
    char mLastDirPrefix[128] VNLOG_GUARDED_BY(StorageLock::role) = {};
    char mCurrentDir[128] VNLOG_GUARDED_BY(StorageLock::role) = {};
    char mCurrentLogFile[128] VNLOG_GUARDED_BY(StorageLock::role) = {};
    char mStorageDataFile[128] VNLOG_GUARDED_BY(StorageLock::role) = {};

    int32_t mLogFd VNLOG_GUARDED_BY(StorageLock::role) = -1; ///< open section file
    Flag mStorageFull{false}; ///< storing was given up for want of room

    // Set by a start before the workers run, and by a command with the storage lock held as well.
    int32_t mMaxLogSize = 0; ///< bound of the stored log in MiB
    uint32_t mLogSectionSize = 0;
    uint32_t mLogDeleteSize = 0; ///< least amount deleted at a time
};

} // namespace vnlog
