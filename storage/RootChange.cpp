#include "storage/RootChange.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Layout.h"

#include <cstdlib>
#include <cstring>

namespace vnlog {

namespace {

constexpr uint32_t kRunNumbersTried = 10000;

static_assert(platform::kMaxSystemRoot + sizeof kDefaultRoot - 1 <= kMaxRootLength,
              "the default root is usable");

} // namespace

RootChange::RootChange(StorageState& state, const platform::SystemRoot& systemRoot, Bookkeeping& numbers,
                       const Retention& retention, FileWork& files)
    : mState(state), mSystemRoot(systemRoot), mNumbers(numbers), mRetention(retention), mFiles(files),
      mFolders(state, files) {}

bool RootChange::resolve() {
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
    formatText(mState.mLogServiceDir, "%s/%s", mState.mSavePath, kLogFolder);
    formatText(mState.mLastDirPrefix, "%s/%s", mState.mLogServiceDir, kRunName);
    formatText(mState.mCurrentDir, "%s/%s", mState.mLogServiceDir, kCurrentFolder);
    formatText(mState.mCurrentLogFile, "%s/%s%s", mState.mCurrentDir, kLogName, kTextEnd);
    formatText(mState.mStorageDataFile, "%s/%s", mState.mSavePath, kBookkeepingFile);
    return true;
}

/** Takes the default root untested: with it the service at least says where it failed. */
void RootChange::takeDefault() {
    Path root;
    formatText(root.text, "%s%s", mSystemRoot.path, kDefaultRoot);
    logDebug("Use default STORAGE_PATH: %s\n", root.text);
    std::free(mState.mSavePath);
    mState.mSavePath = strdup(root.text);
}

void RootChange::take(const char* root) {
    logDebug("STORAGE_PATH changed (%s ==> %s)\n", mState.mSavePath, root);
    std::free(mState.mSavePath);
    mState.mSavePath = strdup(root);
    if (!resolve())
        logError("failed to obtain the save path !\n");
    mNumbers.reset();
    mState.mCurrentTotalSize = 0; // the finished sections of this run stay under the old root
    RootStatus result = prepare();
    if (result != RootStatus::Ready)
        logError("error: failed to init log storage, ret=%d\n", static_cast<int>(result));
    // Without the numbers, the next start would take a root that holds but one section for a damaged one.
    if (!mNumbers.save())
        logError("the storage data of [%s] failed to save !\n", root);
}

RootStatus RootChange::prepare() {
    if (!mFolders.makeLogFolder())
        return RootStatus::NoLogFolder;
    if (!pathExists(mState.mCurrentDir)) {
        if (!mFolders.makeCurrent())
            return RootStatus::NoCurrent;
    } else if (folderState(mState.mCurrentDir) == FolderState::NotEmpty) {
        RootStatus result = archiveEarlierUse();
        if (result != RootStatus::Ready)
            return result;
    }
    return removeRunsAboveBound();
}

/** Keeps the files of an earlier use of this root as an archived run. */
RootStatus RootChange::archiveEarlierUse() {
    bool olderText = pathExists(mState.mCurrentLogFile);
    if (!mFiles.compress(mState.mCurrentLogFile) || !olderText)
        logError("fail to gzip last log.txt !\n");
    uint32_t size = 0;
    (void)folderSize(mState.mCurrentDir, &size); // reported there; what cannot be counted adds nothing
    mState.mTotalLogSize += size;
    uint32_t number = mState.mHeadFolderNum + 1;
    for (uint32_t tried = 1; !mFolders.numberFree(number) && tried < kRunNumbersTried; ++tried)
        ++number;
    if (!mFolders.archiveCurrent(number))
        return RootStatus::NotArchived;
    return mFolders.makeCurrent() ? RootStatus::Ready : RootStatus::NoNewCurrent;
}

/** Removes whole archived runs, oldest first, until the bound holds or none is left. */
RootStatus RootChange::removeRunsAboveBound() {
    for (uint32_t run = mState.mTailFolderNum; !mRetention.withinBound(0);) {
        Path path = runFolder(mState.mLastDirPrefix, run);
        uint32_t size = 0;
        (void)folderSize(path.text, &size); // as above
        if (!mFiles.removeTree(path.text)) {
            logError("fail to rm last log !\n");
            return RootStatus::RunStays;
        }
        mState.mTotalLogSize -= size;
        if (++run > mState.mHeadFolderNum)
            return RootStatus::Ready;
        mState.mTailFolderNum = run;
    }
    return RootStatus::Ready;
}

} // namespace vnlog
