#include "binder/Command.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"

#include <cstring>

namespace vnlog {

namespace {

bool isAssigned(int cmd) {
    return cmd >= 0 && cmd <= CMD_LAST && cmd != 2 && cmd != 12 && cmd != 13 && cmd != 17;
}

/** Whether the parameter is there and exactly `word`. */
bool isWord(const char* param, const char* word) {
    return param != nullptr && std::strcmp(param, word) == 0;
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
    return runCommand(cmd, param);
}

/** Runs an assigned command; mCommandLock is held. */
int LogService::runCommand(int cmd, const char* param) {
    switch (cmd) {
    case CMD_NAND_FILE_OUTPUT:
        return setFileOutput(param);
    case CMD_FLUSH:
        if (flushLogBufAll() != 0)
            logError("error: flush log buf fail\n");
        return 0;
    case CMD_SHOW:
        showLogCfg();
        return 0;
    default:
        logError("command %d is not available in this version\n", cmd);
        return -1;
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

/** The answer to a wrong parameter; nothing has been changed. */
int LogService::answerUsage() {
    showHelp();
    showLogCfg();
    return 0;
}

int LogService::setFileOutput(const char* param) {
    bool on = isWord(param, "y");
    if (!on && !isWord(param, "n"))
        return answerUsage();
    mKLogToFile = on;
    mALogToFile = on;
    return saveAndShow();
}

} // namespace vnlog
