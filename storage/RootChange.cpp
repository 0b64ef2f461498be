// SPDX-License-Identifier: Apache-2.0
#include "storage/RootChange.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Layout.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace vnlog {

namespace {

constexpr bool isUsableBehindSystemRoot(const platform::Places& places) {
    return platform::kMaxSystemRoot + std::string_view(places.storageRoot).size() <= kMaxRootLength;
}
static_assert(isUsableBehindSystemRoot(platform::kDevicePlaces) &&
                  isUsableBehindSystemRoot(platform::kMachinePlaces),
              "the default root is usable");

void derivePaths(StorageState* state) VNLOG_REQUIRES(StorageLock::role) {
    formatText(state->mLogServiceDir, "%s/%s", state->mSavePath, kLogFolder);
    formatText(state->mLastDirPrefix, "%s/%s", state->mLogServiceDir, kRunName);
    formatText(state->mCurrentDir, "%s/%s", state->mLogServiceDir, kCurrentFolder);
    formatText(state->mCurrentLogFile, "%s/%s%s", state->mCurrentDir, kLogName, kTextEnd);
    formatText(state->mStorageDataFile, "%s/%s", state->mSavePath, kBookkeepingFile);
}

RootStatus rootStatus(PrepareStatus status) {
    switch (status) {
    case PrepareStatus::Ready:
        return RootStatus::Ready;
    case PrepareStatus::NoLogFolder:
        return RootStatus::NoLogFolder;
    case PrepareStatus::CurrentUnreadable:
    case PrepareStatus::NotArchived:
        return RootStatus::NotArchived;
    case PrepareStatus::NoNewCurrent:
        return RootStatus::NoNewCurrent;
    case PrepareStatus::NoCurrent:
        return RootStatus::NoCurrent;
    case PrepareStatus::NotCounted:
    case PrepareStatus::NotDeleted:
    case PrepareStatus::Contradiction:
        break;
    }
    return RootStatus::AboveBound;
}

} // namespace

bool RootChange::resolve() {
    std::free(std::exchange(mState.mConfiguredPath, nullptr));
    if (mState.mSavePath == nullptr) {
        logError("mSavePath(null) is NULL\n");
        takeDefault();
    } else {
        Folder folder(usableRoot(mState.mSavePath) ? mState.mSavePath : "");
        if (!folder.valid()) {
            logError("STORAGE_PATH(%s) can not open\n", mState.mSavePath);
            takeDefault();
        } else if (folder.close() != 0) {
            logError("Failed to close the directory [%s]", mState.mSavePath);
            logErrno();
            return false;
        }
    }
    if (mState.mSavePath == nullptr || !usableRoot(mState.mSavePath))
        return false; // only a system root can make the default unusable
    derivePaths(&mState);
    return true;
}

/** Takes the default root untested: with it the service at least says where it failed. */
void RootChange::takeDefault() {
    Path root;
    formatText(root.text, "%s%s", mSystemRoot.path, mSystemRoot.places().storageRoot);
    logDebug("Use default STORAGE_PATH: %s\n", root.text);
    bool awaited = mState.mSavePath != nullptr && usableRoot(mState.mSavePath) &&
                   std::strcmp(mState.mSavePath, root.text) != 0;
    char* configured = std::exchange(mState.mSavePath, strdup(root.text));
    if (awaited)
        mState.mConfiguredPath = configured;
    else
        std::free(configured);
}

RootStatus RootChange::prepare() {
    return rootStatus(mRecovery.takeOver());
}

bool RootChange::rename(const char* root) {
    char* copy = strdup(root);
    if (copy == nullptr)
        return false;
    std::free(std::exchange(mState.mSavePath, copy));
    derivePaths(&mState);
    return true;
}

RootTrial::RootTrial(const StorageState& inForce, FileWork& files)
    : mNumbers(mState), mRetention(mState, mNumbers, files), mRecovery(mState, mNumbers, mRetention, files) {
    mState.mMaxLogSize = inForce.mMaxLogSize;
    mState.mLogSectionSize = inForce.mLogSectionSize;
    mState.mLogDeleteSize = inForce.mLogDeleteSize;
}

RootTrial::~RootTrial() VNLOG_UNCHECKED { // nobody else knows the state
    std::free(mState.mSavePath);
}

RootStatus RootTrial::prepare(const char* root) {
    mState.mSavePath = strdup(root);
    if (mState.mSavePath == nullptr) {
        logErrno();
        return RootStatus::NoLogFolder;
    }
    derivePaths(&mState);
    RootStatus status = rootStatus(mRecovery.takeOver());
    if (status != RootStatus::Ready || save())
        return status;
    logError("the storage data of [%s] failed to save !\n", root);
    logErrno();
    return RootStatus::NotSaved;
}

bool RootTrial::save() {
    while (!mNumbers.save())
        if (!lackOfRoom(errno) || !mRetention.freeOldest())
            return false;
    return true;
}

void RootTrial::apply(StorageState* inForce, Bookkeeping* numbers) {
    std::swap(inForce->mSavePath, mState.mSavePath);
    derivePaths(inForce);
    inForce->mTotalLogSize = mState.mTotalLogSize;
    inForce->mHeadFolderNum = mState.mHeadFolderNum;
    inForce->mTailFolderNum = mState.mTailFolderNum;
    inForce->mOldestFileNum = mState.mOldestFileNum;
    inForce->mCurrentTotalSize = mState.mCurrentTotalSize; // the finished sections stay under the old root
    numbers->continueFrom(mNumbers);
}

} // namespace vnlog
