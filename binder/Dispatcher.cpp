#include "binder/Dispatcher.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "base/Semaphores.h"
#include "binder/Commands.h"
#include "config/Report.h"
#include "platform/klog/ConsoleLevel.h"
#include "sources/AndroidFormat.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr int kMutedConsoleLevel = 1;

} // namespace

int Dispatcher::run(int code, const char* param) {
    CancelGuard guard; // a reader whose storage is full comes here, too
    CommandAnswer answer = runLocked(code, param);
    // Without the lock: whoever waits for a command does not wait for the console as well.
    if (answer.usage)
        showHelp();
    if (answer.report)
        showConfiguration(mState.mCfgPath, mTargets.console);
    return answer.result;
}

CommandAnswer Dispatcher::runLocked(int code, const char* param) {
    LockGuard<CommandLock> lock(mTargets.lock);
    if (!mTargets.commandState.mServiceStarted) {
        logError("%s failed: service is not start\n", "logCMD");
        return {-1};
    }
    const CommandInfo* command = findCommand(code);
    if (command == nullptr)
        return {0, false, true};
    if (!command->accepts(param))
        return {0, true, true};
    return (this->*command->action)(param);
}

void Dispatcher::showHelp() {
    CancelGuard guard;
    char* text = nullptr;
    size_t length = 0;
    Stream out(open_memstream(&text, &length));
    if (out != nullptr)
        printUsage(out.get());
    out.reset();
    Text owned(text);
    Patience patience;
    if (owned != nullptr) // shown in one piece, so that two reports never mix
        (void)mTargets.console.show(STDOUT_FILENO, text, length, &patience); // counted there
}

/** The end of every command that changed a setting: saves it and has it shown. */
CommandAnswer Dispatcher::saveAndShow() {
    if (mTargets.settings.save())
        return {0, true};
    logError("cmd log configuration failed to save !\n");
    return {-1};
}

CommandAnswer Dispatcher::setConsoleOutput(const char* param) {
    bool on = isYes(param);
    if (on && !restoreKernelConsole())
        return {-1};
    if (!on && mState.mKLogToUart && !muteKernelConsole())
        return {-1};
    mState.mALogToUart = on;
    if (on)
        mTargets.console.retry();
    return saveAndShow();
}

CommandAnswer Dispatcher::setFileOutput(const char* param) {
    bool on = isYes(param);
    if (on && !mTargets.storing.switchOn())
        return {-1};
    if (!on)
        mTargets.storing.switchOff();
    mState.mKLogToFile = on;
    mState.mALogToFile = on;
    return saveAndShow();
}

bool Dispatcher::setConsoleLevel(int level, const char* report) {
    if (platform::setConsoleLevel(mTargets.systemRoot.path, level) >= 0)
        return true;
    logError("%s", report);
    logErrno();
    return false;
}

/** Takes the kernel's console output back to alerts and keeps the level for later. */
bool Dispatcher::muteKernelConsole() {
    mState.mKLogToUart = false;
    mState.mOldKLogLevel = mState.mKLogLevel;
    mState.mKLogLevel = kMutedConsoleLevel;
    return setConsoleLevel(kMutedConsoleLevel, "fail to set the kernel log level to KERN_ALERT\n");
}

/** Brings back the level from before the output was switched off; when it is on, that undoes a KLOG_LEVEL
 * since. */
bool Dispatcher::restoreKernelConsole() {
    mState.mKLogToUart = true;
    mState.mKLogLevel = mState.mOldKLogLevel;
    return setConsoleLevel(mState.mOldKLogLevel, "fail to set the kernel log level to oldKLogLevel \n");
}

CommandAnswer Dispatcher::setKernelOutput(const char* param) {
    if (!isYes(param)) {
        mState.mKLogOutput = false;
        mState.mKLogToFile = false;
        if (mState.mKLogToUart && !muteKernelConsole())
            return {-1};
        return saveAndShow();
    }
    if (!mState.mKLogOutput) {
        if (!mTargets.kernelReader.clear()) {
            logError("Log clearing failed! \n");
            return {-1};
        }
        mState.mKLogOutput = true;
        postOrReport(&mState.mKLogSem, "Cmd K_LOG_OUTPUT sem_post failed \n");
    }
    if (!restoreKernelConsole())
        return {-1};
    mState.mKLogToFile = true;
    return saveAndShow();
}

CommandAnswer Dispatcher::setKernelLevel(const char* param) {
    int level = parseNumber(param);
    if (!setConsoleLevel(level, "fail to set the kernel log level \n"))
        return {-1};
    mState.mKLogLevel = level;
    return saveAndShow();
}

CommandAnswer Dispatcher::setAndroidOutput(const char* param) {
    bool on = isYes(param);
    if (on && !mState.mALogOutput) {
        if (!mTargets.androidReader.clear())
            logError("Cmd clear alog failed \n");
        mState.mALogOutput = true;
        postOrReport(&mState.mALogSem, "Cmd A_LOG_OUTPUT sem_post failed \n");
    }
    mState.mALogOutput = on;
    mState.mALogToUart = on;
    mState.mALogToFile = on;
    if (on)
        mTargets.console.retry();
    return saveAndShow();
}

CommandAnswer Dispatcher::setAndroidLevel(const char* param) {
    mState.mALogLevel[0] = param[0];
    mTargets.filter.setLevel(mState.mALogLevel);
    return saveAndShow();
}

CommandAnswer Dispatcher::setModules(const char* param) {
    mTargets.filter.setMode(std::strcmp(param, kAllModules) == 0 ? kModeAll : kModeNone, mState.mALogLevel);
    return saveAndShow();
}

CommandAnswer Dispatcher::addModules(const char* param) {
    mTargets.filter.addModules(param, mState.mALogLevel);
    return saveAndShow();
}

CommandAnswer Dispatcher::deleteModule(const char* param) {
    mTargets.filter.deleteModule(param);
    return saveAndShow();
}

CommandAnswer Dispatcher::setLineFormat(const char* param) {
    (void)mTargets.filter.setLineFormat(param); // the word is known
    return saveAndShow();
}

CommandAnswer Dispatcher::setFlushSwitch(const char* param) {
    mState.mFlushSwitch = isYes(param);
    return saveAndShow();
}

CommandAnswer Dispatcher::setStorageRoot(const char* param) {
    Folder folder(usableRoot(param) ? param : "");
    if (!folder.valid()) {
        logError("STORAGE_PATH(%s) can not open\n", param);
        return {0, true};
    }
    if (mTargets.store.contains(param)) {
        logError("STORAGE_PATH(%s) lies inside the stored log, where it would be deleted with it\n", param);
        return {-1};
    }
    if (mState.mFlushSwitch)
        logError("error: Please turn off the storage function\n");
    RootChangeStatus status = mTargets.store.changeRoot(param);
    if (status == RootChangeStatus::Taken || status == RootChangeStatus::NotPrepared)
        return {-1}; // reported there
    if (folder.close() != 0) {
        logError("Failed to close the directory [%s]", param);
        logErrno();
        return {-1};
    }
    return saveAndShow();
}

CommandAnswer Dispatcher::copyStorage(const char* param) {
    if (!mTargets.store.copyTargetUsable(param) || !pathExists(param)) {
        logError("%s dir does not exist,Please check!\n", param);
        return {0};
    }
    CopyTotals totals;
    std::string reason;
    if (mTargets.store.copyTo(param, &totals, &reason) == CopyStatus::Done)
        logDebug("log copy success\n");
    else
        logError("fail to copy log files\n");
    return {0};
}

CommandAnswer Dispatcher::flush(const char*) {
    if (mTargets.service.flushLogBufAll() != 0)
        logError("error: flush log buf fail\n");
    return {0};
}

CommandAnswer Dispatcher::show(const char*) {
    return {0, true};
}

} // namespace vnlog
