#pragma once

#include "config/ServiceState.h"
#include "sources/Filter.h"

#include <cstdio>

namespace vnlog {

struct Setting;

/**
 * The settings: read from a file, or from the environment and the defaults, and written back. One table in
 * Settings.cpp says all about each. Called at start and by commands.
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
     * environment's.
     */
    [[nodiscard]] bool parse(const char* path) VNLOG_REQUIRES(CommandLock::role);
    /**
     * Reads them at a start: from log.cfg; where that is missing or unusable from the one that was set aside
     * for it, then from the file that the environment names. False when none can be used: what the last one
     * had set before it failed stays.
     */
    [[nodiscard]] bool load() VNLOG_REQUIRES(CommandLock::role);
    /** Whether the settings that were read tell that storing was given up for a full medium; once. */
    [[nodiscard]] bool forgetGivingUp() VNLOG_REQUIRES(CommandLock::role);
    /** Takes the settings from the environment and the built-in defaults. */
    void takeDefaults() VNLOG_REQUIRES(CommandLock::role);
    /** Releases the texts that are needed only until the filter is built. */
    void releaseTexts() VNLOG_REQUIRES(CommandLock::role);
    /** Rewrites log.cfg, as of replaceConfiguration. */
    [[nodiscard]] bool save() VNLOG_REQUIRES(CommandLock::role);

  private:
    bool read(const Setting& setting, const char* text, const char* path) VNLOG_REQUIRES(CommandLock::role);
    bool readNumberSetting(const Setting& setting, const char* text, const char* path);
    void setRoot(const char* root) VNLOG_EXCLUDES(StorageLock::role);
    void readRoot(const Setting& setting, const char* text, const char* path);
    bool readLevel(const Setting& setting, const char* text, const char* path)
        VNLOG_REQUIRES(CommandLock::role);
    bool readOwnedText(const Setting& setting, const char* text, const char* path);
    void fallBack(const Setting& setting) VNLOG_REQUIRES(CommandLock::role);
    void write(const Setting& setting, FILE* out) VNLOG_REQUIRES(CommandLock::role);
    const char* root() const VNLOG_REQUIRES(CommandLock::role);

    ServiceState& mState;
    Mutex<StorageLock>& mStorageLock;
    Filter& mFilter;
    /// Whether mModuleCfg and mFormatCfg are ours to release.
    bool mTextsOwned VNLOG_GUARDED_BY(CommandLock::role) = false;
    bool mGaveUp VNLOG_GUARDED_BY(CommandLock::role) = false;
};

/** The key of the storage root in log.cfg. */
constexpr char kStorageRootKey[] = "STORAGE_PATH=";

/** Lowest and highest kernel level, in log.cfg and in commands. */
constexpr int kLeastKernelLevel = 1;
constexpr int kHighestKernelLevel = 7;

} // namespace vnlog
