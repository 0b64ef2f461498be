#include "storage/RootChange.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Layout.h"

#include <cstdlib>
#include <cstring>

namespace vnlog {

static_assert(platform::kMaxSystemRoot + sizeof kDefaultRoot - 1 <= kMaxRootLength,
              "the default root is usable");

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

bool RootChange::move(const char* root) {
    char* copy = strdup(root);
    if (copy == nullptr) {
        logErrno();
        return false;
    }
    logDebug("STORAGE_PATH changed (%s ==> %s)\n", mState.mSavePath, root);
    std::free(mState.mSavePath);
    mState.mSavePath = copy;
    if (!resolve())
        logError("failed to obtain the save path !\n");
    mNumbers.reset();
    mState.mCurrentTotalSize = 0; // the finished sections of this run stay under the old root
    return true;
}

RootStatus RootChange::prepare() {
    switch (mRecovery.takeOver()) {
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

} // namespace vnlog
