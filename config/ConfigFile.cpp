#include "config/ConfigFile.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/Text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr mode_t kConfigurationMode = 0555;

Path backupOf(const char* path) {
    Path backup;
    formatText(backup.text, "%s.unsaved", path);
    return backup;
}

/**
 * Removes the file before it is written anew, keeping it as the backup until that has succeeded. An older
 * backup is of before a save that failed, and the better one.
 */
bool setAside(const char* path, const char* backup) {
    struct stat info;
    bool worthKeeping = stat(path, &info) == 0 && S_ISREG(info.st_mode) && !pathExists(backup);
    if (worthKeeping && std::rename(path, backup) == 0)
        return true;
    return std::remove(path) == 0;
}

} // namespace

const char* chooseConfiguration(const char* own) {
    if (pathExists(own))
        return own;
    const char* fallback = std::getenv(kDefaultConfigurationVariable);
    if (fallback != nullptr && pathExists(fallback))
        return fallback;
    return "system/etc/log_service/log_default.cfg";
}

bool replaceConfiguration(const char* path, const char* text, size_t length) {
    CancelGuard guard;
    Path backup = backupOf(path);
    if (pathExists(path) && !setAside(path, backup.text)) {
        char reason[128];
        logError("remove error: %s\n", strerror_r(errno, reason, sizeof reason));
    }
    FileDescriptor file = openFile(path, O_WRONLY | O_CREAT | O_TRUNC, kConfigurationMode);
    if (!file.valid())
        return false;
    if (!writeAll(file.get(), text, length)) {
        logError("write error \n");
        return false;
    }
    fsync(file.get());
    (void)unlink(backup.text); // there is none after a first save
    return true;
}

void restoreConfiguration(const char* path) {
    Path backup = backupOf(path);
    if (!pathExists(backup.text))
        return;
    logError("the last save of %s was cut off, the settings from before it are used\n", path);
    if (std::rename(backup.text, path) != 0)
        logErrno();
}

} // namespace vnlog
