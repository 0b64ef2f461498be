// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Console.h"
#include "binder/CommandState.h"
#include "binder/ILogService.h"
#include "binder/StatusSource.h"
#include "binder/StoringSwitch.h"
#include "config/Settings.h"
#include "platform/sysroot/SystemRoot.h"
#include "sources/AndroidReader.h"
#include "sources/Filter.h"
#include "sources/KernelReader.h"
#include "storage/Store.h"

#include <string>

namespace vnlog {

struct CommandInfo;

/** What the commands act on; all of it outlives the dispatcher. */
struct CommandTargets {
    CommandState& commandState;
    ServiceState& state;
    Mutex<CommandLock>& lock; ///< the role's mutex
    const platform::SystemRoot& systemRoot;
    ILogService& service; ///< for the flush, which the object may override
    Settings& settings;
    Store& store;
    Filter& filter;
    KernelReader& kernelReader;
    AndroidReader& androidReader;
    StoringSwitch& storing;
    Ring& ring;
    Console& console;
    StatusSource& status;
};

/** The role of the lock that lets one copy run at a time. Not taken with the command lock held. */
struct CopyLock {
    static LockRole role;
};

/** What a command answers. */
struct CommandAnswer {
    int result; ///< of logCMD
    bool report = false; ///< the configuration is to be shown
    bool usage = false; ///< the usage text is to be shown before it
    std::string text = {}; ///< of logQuery: what was done, or why it was not
    bool undone = false; ///< logQuery fails, although logCMD does not
    std::string copied = {}; ///< the log folder that is to be copied once the lock is released
};

/** Runs the commands, one at a time. Any thread; a command is not cut in the middle by a cancellation. */
class Dispatcher {
  public:
    explicit Dispatcher(const CommandTargets& targets) : mTargets(targets), mState(targets.state) {}

    /** ILogService::logCMD. */
    int run(int code, const char* param) VNLOG_EXCLUDES(CommandLock::role);
    /** ILogService::logQuery. */
    int query(int code, const char* param, std::string* answer) VNLOG_EXCLUDES(CommandLock::role);
    /** Shows the usage text on the console, standard output. */
    void showHelp();

    /*
     * The actions of the table: each with a parameter that its row accepts. 0; -1, reported, when the command
     * or the save that ends it failed.
     */
    CommandAnswer setConsoleOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setFileOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setKernelOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setKernelLevel(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setAndroidOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setAndroidLevel(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setModules(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer addModules(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer deleteModule(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setLineFormat(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setFlushSwitch(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setStorageRoot(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer copyStorage(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer flush(const char*) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer show(const char*) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setFlushInterval(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setFlushPriority(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setBound(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer setSectionSize(const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer tellStatus(const char*) VNLOG_REQUIRES(CommandLock::role);

  private:
    CommandAnswer runLocked(int code, const char* param) VNLOG_EXCLUDES(CommandLock::role);
    CommandAnswer answerQuery(int code, const char* param) VNLOG_EXCLUDES(CommandLock::role);
    CommandAnswer act(const CommandInfo& command, const char* param) VNLOG_REQUIRES(CommandLock::role);
    CommandAnswer actLocked(const CommandInfo& command, const char* param) VNLOG_EXCLUDES(CommandLock::role);
    CommandAnswer askStatus() VNLOG_EXCLUDES(CommandLock::role);
    CommandAnswer writeOut(bool sync);
    CommandAnswer copy(const char* logs, const char* target) VNLOG_EXCLUDES(CommandLock::role);
    void showReports(const CommandAnswer& answer);
    CommandAnswer saveAndShow() VNLOG_REQUIRES(CommandLock::role);
    static CommandAnswer levelFailed();
    CommandAnswer changeLimits(int maxMiB, int sectionKiB) VNLOG_REQUIRES(CommandLock::role);
    bool setConsoleLevel(int level, const char* report);
    bool muteKernelConsole() VNLOG_REQUIRES(CommandLock::role);
    bool restoreKernelConsole() VNLOG_REQUIRES(CommandLock::role);

    const CommandTargets mTargets;
    ServiceState& mState;
    Mutex<CopyLock> mCopyLock;
};

} // namespace vnlog
