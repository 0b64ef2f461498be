#include "binder/CommandRules.h"
#include "platform/klog/ConsoleLevel.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "service/Semaphores.h"
#include "sources/AndroidFormat.h"
#include "storage/StorageFormat.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr int kMutedConsoleLevel = 1;

void reportRefusedFilter() {
    logError("Cmd alog add filter failed \n");
}

} // namespace

int LogService::logCMD(int cmd, const char* param) {
    CancelGuard guard; // a reader whose storage is full comes here, too; a command is not cut in the middle
    std::lock_guard<std::mutex> lock(mCommandLock);
    if (!mServiceStarted) {
        logError("%s failed: service is not start\n", "logCMD");
        return -1;
    }
    if (!isAssigned(cmd)) {
        showHelp();
        return 0;
    }
    if (!parameterAccepted(static_cast<Command>(cmd), param)) {
        showHelp();
        showLogCfg();
        return 0;
    }
    return runCommand(cmd, param);
}

/** Runs an assigned command with a parameter that it accepts; mCommandLock is held. */
int LogService::runCommand(int cmd, const char* param) {
    bool on = isWord(param, "y"); // of the commands that take y or n
    switch (cmd) {
    case CMD_UART_OUTPUT:
        return setConsoleOutput(on);
    case CMD_NAND_FILE_OUTPUT:
        mKLogToFile = on;
        mALogToFile = on;
        return saveAndShow();
    case CMD_KLOG_OUTPUT:
        return on ? startKernelOutput() : stopKernelOutput();
    case CMD_KLOG_LEVEL:
        return setKernelLevel(kernelLevel(param));
    case CMD_ALOG_OUTPUT:
        return setAndroidOutput(on);
    case CMD_ALOG_LEVEL:
        return setAndroidLevel(param[0]);
    case CMD_ALOG_MODULE:
        return setModules(isWord(param, kAllModules) ? kModeAll : kModeNone);
    case CMD_ALOG_ADD_MODULE:
        return addModules(param);
    case CMD_ALOG_DEL_MODULE:
        return deleteModule(param);
    case CMD_ALOG_FORMAT:
        (void)setLogFormat(param); // the word is known
        return saveAndShow();
    case CMD_FLUSH_SWITCH:
        mFlushSwitch = on;
        return saveAndShow();
    case CMD_FLUSH:
        if (flushLogBufAll() != 0)
            logError("error: flush log buf fail\n");
        return 0;
    case CMD_STORAGE_PATH:
        return setStorageRoot(param);
    case CMD_COPY:
        return copyStorage(param);
    default: // SHOW
        showLogCfg();
        return 0;
    }
}

/** The end of every command that changed a setting: saves and shows it. */
int LogService::saveAndShow() {
    if (saveConfiguration() != 0) {
        logError("cmd log configuration failed to save !\n");
        return -1;
    }
    showLogCfg();
    return 0;
}

int LogService::setConsoleOutput(bool on) {
    if (on) {
        if (!restoreKernelConsole())
            return -1;
    } else if (mKLogToUart && !muteKernelConsole()) {
        return -1;
    }
    mALogToUart = on;
    return saveAndShow();
}

/** Takes the kernel's console output back to alerts and keeps the level for later. False for a failure. */
bool LogService::muteKernelConsole() {
    mKLogToUart = false;
    mOldKLogLevel = mKLogLevel;
    mKLogLevel = kMutedConsoleLevel;
    if (platform::setConsoleLevel(mSystemRoot, kMutedConsoleLevel) >= 0)
        return true;
    logError("fail to set the kernel log level to KERN_ALERT\n");
    logErrno();
    return false;
}

/** Brings back the level from before the output was switched off. False for a failure. */
bool LogService::restoreKernelConsole() {
    mKLogToUart = true;
    mKLogLevel = mOldKLogLevel;
    if (platform::setConsoleLevel(mSystemRoot, mOldKLogLevel) >= 0)
        return true;
    logError("fail to set the kernel log level to oldKLogLevel \n");
    logErrno();
    return false;
}

int LogService::stopKernelOutput() {
    mKLogOutput = false;
    mKLogToFile = false;
    if (mKLogToUart && !muteKernelConsole())
        return -1;
    return saveAndShow();
}

int LogService::startKernelOutput() {
    if (!mKLogOutput) {
        if (clearKernelLog() != 0) {
            logError("Log clearing failed! \n");
            return -1;
        }
        mKLogOutput = true;
        postOrReport(&mKLogSem, "Cmd K_LOG_OUTPUT sem_post failed \n");
    }
    if (!restoreKernelConsole())
        return -1;
    mKLogToFile = true;
    return saveAndShow();
}

int LogService::setKernelLevel(int level) {
    if (platform::setConsoleLevel(mSystemRoot, level) < 0) {
        logError("fail to set the kernel log level \n");
        logErrno();
        return -1;
    }
    mKLogLevel = level;
    return saveAndShow();
}

int LogService::setAndroidOutput(bool on) {
    if (on && !mALogOutput) {
        if (clearAndroidLog() < 0)
            logError("Cmd clear alog failed \n");
        mALogOutput = true;
        postOrReport(&mALogSem, "Cmd A_LOG_OUTPUT sem_post failed \n");
    }
    mALogOutput = on;
    mALogToUart = on;
    mALogToFile = on;
    return saveAndShow();
}

int LogService::setAndroidLevel(char letter) {
    mALogLevel[0] = letter;
    {
        std::lock_guard<std::mutex> lock(mFilterLock);
        setGlobalLevel();
    }
    return saveAndShow();
}

/** Makes mALogLevel the global priority; mFilterLock is held. */
void LogService::setGlobalLevel() {
    char expression[32];
    formatPath(expression, "*:%s", mALogLevel);
    if (!addRule(expression))
        reportRefusedFilter();
}

int LogService::setModules(int mode) {
    if (mModuleMode != mode) {
        std::lock_guard<std::mutex> lock(mFilterLock);
        mModuleMode = mode;
        releaseRules(mLogFormat);
        if (mode == kModeAll)
            setGlobalLevel();
        else if (!addRule("*:s"))
            reportRefusedFilter();
    }
    return saveAndShow();
}

int LogService::addModules(const char* list) {
    {
        std::lock_guard<std::mutex> lock(mFilterLock);
        if (mModuleMode != kModeListed) {
            mModuleMode = kModeListed;
            releaseRules(mLogFormat);
        }
        addModuleRules(list, reportRefusedFilter);
    }
    return saveAndShow();
}

int LogService::deleteModule(const char* name) {
    if (mModuleMode == kModeListed && androidLogDelFilterRule(mLogFormat, name) != 0)
        logError("failed to delete filter rule \n");
    return saveAndShow();
}

int LogService::setStorageRoot(const char* root) {
    Folder folder(usableRoot(root) ? root : "");
    if (!folder.valid()) {
        logError("STORAGE_PATH(%s) can not open\n", root);
        showLogCfg();
        return 0;
    }
    if (mFlushSwitch)
        logError("error: Please turn off the storage function\n");
    if (mSavePath == nullptr || std::strcmp(root, mSavePath) != 0)
        changeRoot(root);
    if (folder.close() != 0) {
        logError("Failed to close the directory [%s]", root);
        logErrno();
        return -1;
    }
    return saveAndShow();
}

/**
 * Moves the storage to another root. The section that is open stays where it is; the flush thread finds that
 * out at its next cut and goes on under the new root.
 */
void LogService::changeRoot(const char* root) {
    std::lock_guard<std::mutex> lock(mStorageLock);
    logDebug("STORAGE_PATH changed (%s ==> %s)\n", mSavePath, root);
    std::free(mSavePath);
    mSavePath = strdup(root);
    if (logGetSavePath() != 0)
        logError("failed to obtain the save path !\n");
    resetNumbers();
    mRootChanged = mRootChanged || mLogFd >= 0;
    mBoundPending = false;
    mCurrentTotalSize = 0; // the finished sections of this run stay under the old root
    int result = initLogStorage();
    if (result != 0)
        logError("error: failed to init log storage, ret=%d\n", result);
    // Without the numbers, the next start would take a root that holds but one section for a damaged one.
    if (logStorageDataSave() != 0)
        logError("the storage data of [%s] failed to save !\n", root);
}

int LogService::copyStorage(const char* target) {
    bool usable = shellSafe(target) && std::strlen(target) <= longestCopyTarget(std::strlen(mLogServiceDir));
    if (!usable || access(target, F_OK) != 0) {
        logError("%s dir does not exist,Please check!\n", target);
        return 0;
    }
    if (shellexecute("cp -rf %s/ %s/;sync", mLogServiceDir, target) == 0)
        logDebug("log copy success\n");
    else
        logError("fail to copy log files\n");
    return 0;
}

} // namespace vnlog
