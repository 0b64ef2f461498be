// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Files.h"
#include "buffer/Ring.h"
#include "storage/StorageState.h"

namespace vnlog {

/** The file system that holds the storage root, as the ring asks about it. */
class StorageMedium final : public Medium {
  public:
    StorageMedium(const StorageState& state, Mutex<StorageLock>& lock) : mState(state), mLock(lock) {}

    uint32_t freeBytes() override VNLOG_EXCLUDES(StorageLock::role) {
        LockGuard<StorageLock> lock(mLock);
        return freeSpace(mState.mSavePath);
    }

  private:
    const StorageState& mState;
    Mutex<StorageLock>& mLock;
};

} // namespace vnlog
