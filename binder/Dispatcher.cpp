// SPDX-License-Identifier: Apache-2.0
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
constexpr unsigned kFlushPatienceMs = 60000; // a medium that is cut off says so long before

std::string totalsText(const CopyTotals& totals) {
    return std::to_string(totals.files) + " files, " + std::to_string(totals.bytes) + " bytes";
}

std::string whyNotCopied(CopyStatus status, const char* target, const std::string& reason) {
    switch (status) {
    case CopyStatus::Done:
        break;
    case CopyStatus::NoFolder:
        return quoted(target) + " is no folder: " + reason;
    case CopyStatus::Inside:
        return "the copy in " + quoted(target) + " would lie in the stored log itself";
    case CopyStatus::NoRoom:
        return "there is no room in " + quoted(target);
    case CopyStatus::Partial:
        return "a part has not been copied to " + quoted(target) + ": " + reason;
    }
    return "";
}

/** Of a command that has failed. */
CommandAnswer refused(const std::string& why) {
    return {-1, false, false, why, true};
}

/** Of a command that has not done what it was asked for, which logCMD does not tell. */
CommandAnswer failed(const std::string& why, bool report = false) {
    return {0, report, false, why, true};
}

} // namespace

int Dispatcher::run(int code, const char* param) {
    CancelGuard guard; // a reader whose storage is full comes here, too
    if (code == CMD_COPY)
        (void)writeOut(false); // what is not written out is not copied; the query says why
    CommandAnswer answer = runLocked(code, param);
    if (!answer.copied.empty())
        answer = copy(answer.copied.c_str(), param);
    showReports(answer);
    return answer.result;
}

int Dispatcher::query(int code, const char* param, std::string* answer) {
    CancelGuard guard;
    CommandAnswer made = answerQuery(code, param);
    showReports(made);
    *answer = std::move(made.text);
    return made.undone && made.result == 0 ? -1 : made.result;
}

/** Without the lock: whoever waits for a command does not wait for the console as well. */
void Dispatcher::showReports(const CommandAnswer& answer) {
    if (answer.usage)
        showHelp();
    if (answer.report)
        showConfiguration(mState.mCfgPath, mTargets.console);
}

CommandAnswer Dispatcher::runLocked(int code, const char* param) {
    LockGuard<CommandLock> lock(mTargets.lock);
    if (!mTargets.commandState.mServiceStarted) {
        logError("%s failed: service is not start\n", "logCMD");
        return {-1};
    }
    const CommandInfo* command = findCommand(code);
    if (command == nullptr || command->audience == Audience::Queries)
        return {0, false, true};
    if (!command->parameter.accepts(param))
        return {0, true, true};
    return act(*command, param);
}

/** Runs a command that is to tell what came of it; what waits for the flush thread does so without the lock.
 */
CommandAnswer Dispatcher::answerQuery(int code, const char* param) {
    const CommandInfo* command = findCommand(code);
    if (command == nullptr)
        return failed("there is no such command");
    std::string objection = objectionTo(*command, param);
    if (!objection.empty())
        return failed(objection);
    if (!mTargets.commandState.mServiceStarted)
        return failed("the service is not started");
    bool written = code != CMD_COPY || !writeOut(false).undone || mTargets.ring.used() == 0;
    if (code == CMD_FLUSH && *param != '\0')
        return writeOut(std::strstr(param, kSyncWord) != nullptr);
    CommandAnswer answer = code == CMD_STATUS ? askStatus() : actLocked(*command, param);
    if (!answer.copied.empty())
        answer = copy(answer.copied.c_str(), param);
    if (written || answer.undone)
        return answer;
    return failed(answer.text + "what is buffered is not in it: it cannot be written out at present");
}

/** The status is wanted most when a command hangs, as on a medium that does. */
CommandAnswer Dispatcher::askStatus() VNLOG_UNCHECKED {
    constexpr int kPatienceMs = 1000;
    PatientLockGuard<CommandLock> lock(mTargets.lock, kPatienceMs);
    return lock.held() ? tellStatus(nullptr)
                       : CommandAnswer{0, false, false, mTargets.status.statusMeanwhile()};
}

CommandAnswer Dispatcher::actLocked(const CommandInfo& command, const char* param) {
    LockGuard<CommandLock> lock(mTargets.lock);
    if (!mTargets.commandState.mServiceStarted) // it may have been stopped meanwhile
        return failed("the service is not started");
    return act(command, param);
}

CommandAnswer Dispatcher::act(const CommandInfo& command, const char* param) {
    CommandAnswer answer = (this->*command.action)(param);
    mTargets.status.look();
    return answer;
}

/** Has everything written out that is buffered now, and waits for that. */
CommandAnswer Dispatcher::writeOut(bool sync) {
    switch (mTargets.ring.awaitFlush(mTargets.ring.requestFlush(sync), kFlushPatienceMs)) {
    case FlushOutcome::Done:
        return {0};
    case FlushOutcome::Failed:
        return failed("what is buffered could not be brought to the medium; STATUS tells more");
    case FlushOutcome::TimedOut:
        return failed("what is buffered has not been written out in time; that goes on");
    case FlushOutcome::NotInService:
        break;
    }
    return failed("nothing is stored at present; STATUS tells why");
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
    mTargets.console.release();
}

/** The end of every command that changed a setting: saves it and has it shown. */
CommandAnswer Dispatcher::saveAndShow() {
    if (mTargets.settings.save())
        return {0, true};
    std::string why = lastErrorHere();
    logError("cmd log configuration failed to save !\n");
    return refused("it is done, but log.cfg cannot be written: " + why);
}

CommandAnswer Dispatcher::setConsoleOutput(const char* param) {
    bool on = isYes(param);
    if (on && !restoreKernelConsole())
        return levelFailed();
    if (!on && mState.mKLogToUart && !muteKernelConsole())
        return levelFailed();
    mState.mALogToUart = on;
    if (on)
        mTargets.console.retry();
    return saveAndShow();
}

CommandAnswer Dispatcher::setFileOutput(const char* param) {
    bool on = isYes(param);
    if (on && !mTargets.storing.switchOn())
        return refused("storing cannot begin again: " + lastErrorHere());
    if (!on)
        mTargets.storing.switchOff();
    mState.mKLogToFile = on;
    mState.mALogToFile = on;
    CommandAnswer answer = saveAndShow();
    if (!on || !mTargets.storing.awaitsStorage())
        return answer;
    answer.text = "it is switched on, but the storage cannot be used; that is tried again every minute";
    answer.undone = true;
    return answer;
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
            return levelFailed();
        return saveAndShow();
    }
    if (!mState.mKLogOutput) {
        if (!mTargets.kernelReader.clear()) {
            std::string why = lastErrorHere();
            logError("Log clearing failed! \n");
            return refused(why);
        }
        mState.mKLogOutput = true;
        postOrReport(&mState.mKLogSem, "Cmd K_LOG_OUTPUT sem_post failed \n");
    }
    if (!restoreKernelConsole())
        return levelFailed();
    mState.mKLogToFile = true;
    return saveAndShow();
}

CommandAnswer Dispatcher::levelFailed() {
    return refused("the kernel's console level cannot be set: " + lastErrorHere());
}

CommandAnswer Dispatcher::setKernelLevel(const char* param) {
    int level = parseNumber(param);
    if (!setConsoleLevel(level, "fail to set the kernel log level \n"))
        return levelFailed();
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
    bool listed = mTargets.filter.lists(param);
    mTargets.filter.deleteModule(param);
    CommandAnswer answer = saveAndShow();
    if (listed || answer.undone)
        return answer;
    return failed("module " + quoted(param) + " is not listed", true);
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
    const std::string root = quoted(param);
    Folder folder(usableRoot(param) ? param : "");
    if (!folder.valid()) {
        std::string why = root + " cannot be opened: " + std::strerror(errno);
        logError("STORAGE_PATH(%s) can not open\n", param);
        return failed(why, true);
    }
    if (mTargets.store.contains(param)) {
        logError("STORAGE_PATH(%s) lies inside the stored log, where it would be deleted with it\n", param);
        return refused(root + " lies inside the stored log");
    }
    if (mState.mFlushSwitch)
        logError("error: Please turn off the storage function\n");
    std::string reason;
    switch (mTargets.store.changeRoot(param, &reason)) {
    case RootChangeStatus::Taken:
        return refused(reason);
    case RootChangeStatus::NotPrepared:
        return refused("nothing can be stored under " + root + ": " + reason);
    case RootChangeStatus::Done:
    case RootChangeStatus::Unchanged:
        break;
    }
    if (folder.close() != 0) {
        logError("Failed to close the directory [%s]", param);
        logErrno();
        return refused(lastErrorHere());
    }
    return saveAndShow();
}

CommandAnswer Dispatcher::copyStorage(const char* param) {
    if (!mTargets.store.copyTargetUsable(param) || !pathExists(param)) {
        logError("%s dir does not exist,Please check!\n", param);
        return failed(quoted(param) + " does not exist, or its name is too long");
    }
    CommandAnswer answer{0};
    answer.copied = mTargets.store.logFolder();
    return answer;
}

/** Without the command lock: a copy lasts, and other commands are to be answered meanwhile. One at a time. */
CommandAnswer Dispatcher::copy(const char* logs, const char* target) {
    LockGuard<CopyLock> lock(mCopyLock);
    CopyTotals totals;
    std::string reason;
    CopyStatus status = mTargets.store.copyTo(logs, target, &totals, &reason);
    if (status == CopyStatus::Done) {
        logDebug("log copy success\n");
        return {0, false, false, totalsText(totals) + " in " + quoted(target) + "\n"};
    }
    logError("fail to copy log files\n");
    return failed(whyNotCopied(status, target, reason) + "; " + totalsText(totals) + " are there");
}

CommandAnswer Dispatcher::flush(const char*) {
    if (mTargets.service.flushLogBufAll() != 0)
        logError("error: flush log buf fail\n");
    return {0};
}

CommandAnswer Dispatcher::show(const char*) {
    Text text = readConfiguration(mState.mCfgPath);
    if (text == nullptr)
        return failed("log.cfg cannot be read: " + lastErrorHere(), true);
    return {0, true, false, text.get()};
}

CommandAnswer Dispatcher::setFlushInterval(const char* param) {
    mState.mFlushInterval = static_cast<uint32_t>(parseNumber(param));
    mTargets.settings.setOptional(kFlushIntervalKey);
    (void)mTargets.ring.requestFlush(); // what is buffered waits by the earlier interval
    return saveAndShow();
}

CommandAnswer Dispatcher::setFlushPriority(const char* param) {
    mState.mFlushPriority = letterPriority(param[0]);
    mTargets.settings.setOptional(kFlushPriorityKey);
    return saveAndShow();
}

CommandAnswer Dispatcher::setBound(const char* param) {
    return changeLimits(parseNumber(param), static_cast<int>(mState.mLogSectionSize / 1024));
}

CommandAnswer Dispatcher::setSectionSize(const char* param) {
    return changeLimits(mState.mMaxLogSize, parseNumber(param));
}

/** Applies both limits, the bound by deleting at once what is above it. */
CommandAnswer Dispatcher::changeLimits(int maxMiB, int sectionKiB) {
    bool held = mTargets.store.setLimits(maxMiB, static_cast<uint32_t>(sectionKiB) * 1024);
    CommandAnswer answer = saveAndShow();
    if (held || answer.undone)
        return answer;
    return failed("the stored log is above the bound for now: " + lastErrorHere(), true);
}

CommandAnswer Dispatcher::tellStatus(const char*) {
    return {0, false, false, mTargets.status.status()};
}

} // namespace vnlog
