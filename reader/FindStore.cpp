// SPDX-License-Identifier: Apache-2.0
#include "reader/FindStore.h"

#include "config/Findings.h"
#include "config/Settings.h"
#include "platform/sysroot/SystemRoot.h"
#include "storage/Layout.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

namespace vnlog {

namespace {

/** What is wrong with log.cfg is no concern of a reader's. */
class NoFindings final : public Findings {
    void show(const char* /*path*/, unsigned /*line*/, const char* /*text*/) override {}
};

/** State that nothing else works on. */
struct ScratchState : ServiceState {
    ~ScratchState() VNLOG_UNCHECKED { std::free(mSavePath); }
};

/** The default root, empty with `error` set. */
std::string defaultRoot(std::string* error) {
    platform::SystemRoot systemRoot;
    if (systemRoot.read())
        return std::string(systemRoot.path) + systemRoot.places().storageRoot;
    *error = "the system root has more than " + std::to_string(platform::kMaxSystemRoot) + " characters";
    return {};
}

/** A link in the place of log.cfg is refused as the service does it; files of any owner are read. */
Configuration kindOf(const std::string& file) {
    struct stat info;
    bool link = lstat(file.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
    return link ? Configuration::Own : Configuration::Foreign;
}

/** The root that is configured, empty for none. */
std::string configuredRoot(const std::string& file) VNLOG_UNCHECKED { // nobody else knows the state
    ScratchState state;
    Mutex<StorageLock> storageLock;
    Filter filter(state);
    Settings settings(state, storageLock, filter);
    Mutex<CommandLock> commands;
    LockGuard<CommandLock> lock(commands);
    NoFindings findings;
    (void)settings.examine(file.c_str(), kindOf(file), findings);
    return state.mSavePath != nullptr ? state.mSavePath : "";
}

/** A folder that this user may not look at is there all the same. */
bool isFolder(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? S_ISDIR(info.st_mode) : errno == EACCES;
}

} // namespace

std::string configurationOfSystem(std::string* error) {
    std::string root = defaultRoot(error);
    return root.empty() ? root : root + kConfigurationName;
}

std::string storeOfSystem(std::string* error) {
    std::string root = defaultRoot(error);
    if (root.empty())
        return root;
    std::string configured = configuredRoot(root + kConfigurationName);
    return usableRoot(configured.c_str()) && isFolder(configured) ? configured : root;
}

} // namespace vnlog
