#pragma once

#include "binder/CommandState.h"
#include "binder/ILogService.h"
#include "config/Settings.h"
#include "platform/sysroot/SystemRoot.h"
#include "sources/AndroidReader.h"
#include "sources/Filter.h"
#include "sources/KernelReader.h"
#include "storage/Store.h"

namespace vnlog {

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
};

/** Runs the commands, one at a time. Any thread; a command is not cut in the middle by a cancellation. */
class Dispatcher {
  public:
    explicit Dispatcher(const CommandTargets& targets)
        : mTargets(targets), mState(targets.state), mSystemRoot(targets.systemRoot) {}

    /** ILogService::logCMD. */
    int run(int code, const char* param) VNLOG_EXCLUDES(CommandLock::role);
    /** Prints the usage text to standard output. */
    static void showHelp();

    /*
     * The actions of the table: each with a parameter that its row accepts. 0; -1, reported, when the command
     * or the save that ends it failed.
     */
    int setConsoleOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setFileOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setKernelOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setKernelLevel(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setAndroidOutput(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setAndroidLevel(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setModules(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int addModules(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int deleteModule(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setLineFormat(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setFlushSwitch(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int setStorageRoot(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int copyStorage(const char* param) VNLOG_REQUIRES(CommandLock::role);
    int flush(const char*) VNLOG_REQUIRES(CommandLock::role);
    int show(const char*) VNLOG_REQUIRES(CommandLock::role);

  private:
    int saveAndShow() VNLOG_REQUIRES(CommandLock::role);
    bool setConsoleLevel(int level, const char* report);
    bool muteKernelConsole() VNLOG_REQUIRES(CommandLock::role);
    bool restoreKernelConsole() VNLOG_REQUIRES(CommandLock::role);

    const CommandTargets mTargets;
    ServiceState& mState;
    const platform::SystemRoot& mSystemRoot;
};

} // namespace vnlog
