// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "config/ConfigFile.h"
#include "config/ServiceState.h"
#include "sources/Filter.h"

#include <cstdio>

namespace vnlog {

struct Setting;
class SettingsFile;
class Findings;
enum class Outcome;

/**
 * The settings: read from files, the environment and the defaults, and written back. SettingsTable says all
 * about each. Called at start and by commands.
 */
class Settings {
  public:
    /** All must outlive the object. `storageLock` is the one that guards the storage root. */
    Settings(ServiceState& state, Mutex<StorageLock>& storageLock, Filter& filter)
        : mState(state), mStorageLock(storageLock), mFilter(filter) {}
    ~Settings() VNLOG_UNCHECKED; // nobody else is there any more
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    /**
     * Reads all settings from the file. False as soon as one is missing or wrong, reported, or when the file
     * cannot be read; settings found before it stay. A missing switch is off; a missing root is the
     * environment's. An optional one that is missing or wrong ends nothing.
     */
    [[nodiscard]] bool parse(const char* path) VNLOG_REQUIRES(CommandLock::role);
    /**
     * Reads them at a start, each from the first of log.cfg, the one that was set aside for it, and the file
     * that the environment names in which it is good; else from the environment, else its default. What is
     * wrong is reported. The next save keeps a log.cfg that could not be used whole.
     */
    void load() VNLOG_REQUIRES(CommandLock::role);

    /** What a start finds. */
    struct Examined {
        bool there; ///< the first file
        bool usable; ///< a key of the service is in it
        bool whole; ///< every value was taken from it, and nothing else is in it
        bool restored; ///< the one set aside had to do
    };
    /** Reads the settings as load does, with `own` in the place of log.cfg. Changes no file. */
    Examined examine(const char* own, Configuration whose, Findings& findings)
        VNLOG_REQUIRES(CommandLock::role);
    /** Prints all settings in one line, as they were read, before the filter is built. */
    void printRead(FILE* out) VNLOG_REQUIRES(CommandLock::role);
    /** Whether there is a log.cfg now which load has not found or could not read, and no save has made. */
    bool ownAppeared() const VNLOG_REQUIRES(CommandLock::role);
    /** Whether the settings that were read tell that storing was given up for a full medium; once. */
    [[nodiscard]] bool forgetGivingUp() VNLOG_REQUIRES(CommandLock::role);
    /** Takes the settings from the environment and the built-in defaults. */
    void takeDefaults() VNLOG_REQUIRES(CommandLock::role);
    /** Releases the texts that are needed only until the filter is built. */
    void releaseTexts() VNLOG_REQUIRES(CommandLock::role);
    /** Has an optional setting, named by its key with the "=", written from now on. */
    void setOptional(const char* key) VNLOG_REQUIRES(CommandLock::role);
    /** Rewrites log.cfg, as of replaceConfiguration; before that keeps one that could not be used whole. */
    [[nodiscard]] bool save() VNLOG_REQUIRES(CommandLock::role);

  private:
    // one setting of a file that is parsed
    bool read(const Setting& setting, const SettingsFile& file) VNLOG_REQUIRES(CommandLock::role);
    bool readMissing(const Setting& setting, const char* path) VNLOG_REQUIRES(CommandLock::role);
    // one setting at a start
    bool takeFromFiles(const Setting& setting, SettingsFile* files) VNLOG_REQUIRES(CommandLock::role);
    Outcome takeFrom(const Setting& setting, const SettingsFile& file) VNLOG_REQUIRES(CommandLock::role);
    Outcome takeSetting(const Setting& setting, Text value) VNLOG_REQUIRES(CommandLock::role);
    Outcome take(const Setting& setting, Text value) VNLOG_REQUIRES(CommandLock::role);
    Outcome takeSwitch(const Setting& setting, char value) VNLOG_REQUIRES(CommandLock::role);
    Outcome takeNumber(const Setting& setting, const char* value);
    void setLevel(const Setting& setting, const char* level) VNLOG_REQUIRES(CommandLock::role);
    void setRoot(const char* root) VNLOG_EXCLUDES(StorageLock::role);
    void takeOtherwise(const Setting& setting) VNLOG_REQUIRES(CommandLock::role);
    void reportFile(SettingsFile& file, bool first, Findings& findings) VNLOG_REQUIRES(CommandLock::role);
    void reportSettingOf(const Setting& setting, const SettingsFile& file, Findings& findings)
        VNLOG_REQUIRES(CommandLock::role);

    void fallBack(const Setting& setting, const char* value) VNLOG_REQUIRES(CommandLock::role);
    void ownText(const Setting& setting, Text text) VNLOG_REQUIRES(CommandLock::role);
    void beginReading() VNLOG_REQUIRES(CommandLock::role);
    Text compose(size_t* length) VNLOG_REQUIRES(CommandLock::role);
    Text valueRead(const Setting& setting) VNLOG_REQUIRES(CommandLock::role);
    void printValue(const Setting& setting, FILE* out) VNLOG_REQUIRES(CommandLock::role);
    const char* root() const VNLOG_REQUIRES(CommandLock::role);

    ServiceState& mState;
    Mutex<StorageLock>& mStorageLock;
    Filter& mFilter;
    /// What mModuleCfg and mFormatCfg point to where that is ours to release.
    Text mModuleText VNLOG_GUARDED_BY(CommandLock::role);
    Text mFormatText VNLOG_GUARDED_BY(CommandLock::role);
    unsigned mOptionalSet VNLOG_GUARDED_BY(CommandLock::role) = 0; ///< a bit for each row of the table
    bool mOwnUnread VNLOG_GUARDED_BY(CommandLock::role) = false; ///< log.cfg was not there, or not to be read
    bool mRejected VNLOG_GUARDED_BY(CommandLock::role) = false; ///< log.cfg is to be kept before a save
    bool mRestored VNLOG_GUARDED_BY(CommandLock::role) = false; ///< the one set aside is not needed after it
    bool mGaveUp VNLOG_GUARDED_BY(CommandLock::role) = false;
};

/** The key of the storage root in log.cfg. */
constexpr char kStorageRootKey[] = "STORAGE_PATH=";
// The keys of optional settings that commands change.
constexpr char kFlushIntervalKey[] = "FLUSH_INTERVAL=";
constexpr char kFlushPriorityKey[] = "FLUSH_PRIORITY=";

// Ranges of settings, in log.cfg and in commands.
constexpr int kLeastKernelLevel = 1;
constexpr int kHighestKernelLevel = 7;
constexpr int kLeastSectionKiB = 64;
constexpr int kLargestSectionKiB = 256;
constexpr int kLargestMaxLogSizeMiB = 4095; ///< the largest bound whose bytes fit 32 bits
constexpr int kLongestFlushInterval = 3600; ///< seconds

} // namespace vnlog
