#pragma once

#include "binder/ILogService.h"
#include "buffer/LogBuf.h"
#include "service/Export.h"

#include <atomic>
#include <cstdint>
#include <log/logprint.h>
#include <mutex>
#include <pthread.h>
#include <semaphore.h>

namespace vnlog {

namespace platform {
struct LoggerHeader;
}

class NamePatterns;
struct Setting;
struct log_device_t;
using logger_entry = platform::LoggerHeader;

/**
 * The log service: all its state and every operation, the latter spread over the folders by subsystem.
 *
 * A host process creates one object and publishes it as a binder service. The argument-less constructor
 * starts the service, the destructor stops it. Hosts use the construction, serviceStart and serviceStop,
 * bufferedBytes, the three ILogService operations and the flags mServiceStarted, mFlushThreadRunning,
 * mFlushAll; everything else is open for the folders' own steps and for tests, and keeps the locking rules
 * stated at each block.
 *
 * Results are integers: 0 (or a byte count) for success and negative codes for failures, unless said
 * otherwise. Nothing is thrown. Failures that a caller could not tell from the result alone are reported to
 * the Android log with the tag "LogService".
 *
 * Locks, in the order in which they may be taken: mCommandLock, mStorageLock, mFilterLock, LogBuf::mutex.
 * Flags and settings that workers read while commands write them are atomic.
 */
class VNLOG_API LogService : public BnLogService {
  public:
    using Flag = std::atomic<bool>;

    /** Index of each worker in the flags of serviceStart and serviceStop. */
    enum Worker { FLUSH_THREAD, KERNEL_READER, ANDROID_READER };

    /** Tag for an object that is built but not started. */
    struct DeferStart {};

    /**
     * Builds and starts the service with all its workers. A failed start is logged and leaves a usable object
     * whose mServiceStarted is false.
     */
    LogService();
    /** Gives every member its initial value and makes both reader semaphores; starts nothing. */
    explicit LogService(DeferStart);
    /** Stops everything; nothing may be using the object any more. */
    ~LogService() override;

    // --- service/: life cycle ---------------------------------------------------------------------------

    /**
     * Reads the configuration, mends and prepares the storage, and starts the workers whose flags are set:
     * flush thread, kernel reader, Android reader. Not to be called while another start or stop runs.
     * 0 when the service is started; this includes a storage that could not be prepared, with which neither
     * the flush thread nor the kernel reader runs. -1 when it is not started: everything that the attempt
     * made is released again. A service that is started already stays as it is and gives -1.
     */
    int serviceStart(const bool* flags);
    /**
     * Stops the workers whose flags are set and releases the ring buffer unless the flush thread goes on.
     * Buffered bytes are not written out. Called by the host, or on a reader thread whose storage is full;
     * the two may meet. Takes mCommandLock. 0, or -1 when the service is not started or a step failed (the
     * steps after it are not done).
     */
    int serviceStop(const bool* flags);
    int getLogFd() override;
    /** Bytes in the ring buffer that are not yet written out; 0 without a buffer. Any thread, never waits. */
    uint32_t bufferedBytes() const;

    // --- service/: shell and files. Any thread; all state is on the caller's stack ----------------------

    /**
     * Runs a shell command of at most 255 characters (longer ones are cut) and waits for it. 0 when it exited
     * with status 0, -1 otherwise. The caller answers for what the shell makes of the arguments.
     */
    [[gnu::format(printf, 2, 3)]] int shellexecute(const char* format, ...);
    /** Runs a command of at most 127 characters on a thread of its own. 0 when that was started, else -1. */
    [[gnu::format(printf, 2, 3)]] int shellexecNotwait(const char* format, ...);
    /** Runs the text `command` through the shell and reports a failure. Always null. */
    static void* shellexe(void* command);
    /** 1 when the folder is empty, 0 when not, -1 when it cannot be opened. */
    int checkDirEmpty(const char* path);
    /** Sum in bytes of the sizes of the folder's own entries (not recursive), or -1. */
    int getFolderSize(const char* path);
    /** Size of a file in bytes; 0 when it cannot be examined. */
    uint32_t getFileSize(const char* path);
    /** Free bytes of the file system that holds `path`, at most 4294967295; 0 when it cannot tell. */
    uint32_t getFileFreeSpace(const char* path);

    // --- config/ ----------------------------------------------------------------------------------------

    /**
     * Reads the settings from the file `path`. 1, or -1 for any failure: settings found before it stay.
     * Start only.
     */
    int logConfigParse(const char* path);
    /** Takes the settings from the environment and the built-in defaults. Always 2. Start only. */
    int logConfigInit();
    /** Whether `key` (with its "=") occurs in the text and a "y" follows it. */
    bool getCfgValue(const char* text, const char* key);
    /**
     * Copies the value of `key` into `out`, at most `limit` bytes and without a terminator: `out` is
     * zero-filled and larger than `limit`. The length copied goes to `length` unless that is null.
     * 0 when the key was found, else -1.
     */
    int getCfgStr(const char* text, const char* key, char* out, int limit, int* length = nullptr);
    /**
     * Reads the value of `key` as a decimal number into `out`. Outside minimum..maximum the fallback is
     * stored, unless that is -1. 0, or -1 for a missing key and a value out of range without a fallback.
     */
    int getCfgInt(const char* text, const char* key, int* out, int minimum, int maximum, int fallback);
    /** Whether the text is exactly "y". */
    bool strToBool(const char* text);
    /** Rewrites log.cfg. 0, or -1 (a part of the file may be written then). Takes mCommandLock. */
    int logConfigSave();
    /** Prints log.cfg as it is on disk to standard output. */
    void showLogCfg();

    // --- buffer/ ----------------------------------------------------------------------------------------

    /**
     * Appends one record to the ring buffer, whole or not at all; waits while there is no space. Called on
     * the reader threads, which may be cancelled while waiting. Returns `length`, or -1: empty or too long a
     * record, no flush thread, a stop, or a storage that takes nothing more. When the storage is full this
     * switches file output off and stops the flush thread.
     */
    int logBufWrite(const void* bytes, uint32_t length);
    /**
     * Writes up to `wanted` of the oldest bytes to `fd` and frees them. Flush thread only, with mStorageLock
     * held. Returns the bytes consumed, or -1 when a write failed: nothing is consumed then.
     */
    int logBufRead2File(int fd, uint32_t wanted);
    /** Body of the flush thread; the argument is the service. */
    static void* logBufFlush(void* service);
    /** Syncs and closes the open section file, if any. */
    void logBufFlushExit();
    int flushLogBufAll() override;

    // --- storage/. At start on the starting thread, later with mStorageLock held ------------------------

    /** Settles the storage root and fills the five paths under it. 0, or -1 with the paths unchanged. */
    int logGetSavePath();
    /** Writes the four bookkeeping numbers to log_storage.dat. 0 or -1. */
    int logStorageDataSave();
    /** Reads them. 1, or -1 when the file or a number is missing or out of range. */
    int logStorageDataParse();
    /**
     * Moves `count` buffered bytes into the active section; cuts, compresses and thins where it is full.
     * Flush thread only. 0 or -1. A write that fails is no -1: mDrainWriteFailed and mDrainMoved tell what it
     * did.
     */
    int saveLogSection(unsigned int count);
    /** Prepares a newly chosen root while the service runs (init_Log_Storage: at start). 0, or -1 to -5 for
     * the step that failed. */
    int initLogStorage();
    /** Deletes the oldest sections, mLogDeleteSize bytes at least. 0, or -1 to -13 for the step that failed.
     */
    int deleteLogSection();
    /** Deletes every stored log. 0, or -1 when the bookkeeping could not be written. Start only. */
    int deleteAllLog();
    /** Closes off the previous run's folder and keeps the bound (initLogStorage: at a root change). 0, or -1
     * to -11. */
    int init_Log_Storage();
    /** Rebuilds the bookkeeping numbers from the names on disk. 0, or -1 to -5. */
    int repairLogDatFile();

    // --- sources/ ---------------------------------------------------------------------------------------

    /** Body of the kernel reader; the argument is the service. */
    static void* kernelLogReader(void* service);
    /** Releases what the kernel reader holds; the argument is its cleanup record. */
    static void kernelLog_cleanup(void* record);
    /** Throws away the kernel messages that wait to be read. 0, or -1 when they cannot be reached. */
    int clearKernelLog();
    /**
     * Builds the Android filter and line format from the configuration and sets the kernel console level.
     * 0, or -1 without memory. Takes mFilterLock.
     */
    int logFilterInit();
    /** Lowest priority that passes for the tag. Takes mFilterLock, like the next four. */
    int logFilterPriForTag(AndroidLogFormat_t* format, const char* tag);
    /** 1 when an entry of this tag and priority passes the filter, else 0. */
    int androidLogShouldPrintLine(AndroidLogFormat_t* format, const char* tag, android_LogPriority priority);
    void androidLogClearAllFilterRule(AndroidLogFormat_t* format);
    /** Removes the newest rule for the tag. -1 when there are no rules at all, else 0. */
    int androidLogDelFilterRule(AndroidLogFormat_t* format, const char* tag);
    /** 0, or -1 for an unknown format word. */
    int setLogFormat(const char* text);
    char filterPriToChar(android_LogPriority priority);
    AndroidLogPrintFormat formatFromString(const char* text);
    /** The word of a line format; null when it has none. */
    const char* formattostring(AndroidLogPrintFormat value);

    /** Body of the Android reader; the argument is the service. */
    static void* logcat(void* service);
    void setupOutput();
    /** Reads, merges and outputs entries until the thread is to end. Android reader only, up to
     * processBuffer. */
    void readLogLines(log_device_t* list);
    /** Stores the device whose first queued entry is the oldest, or null, in `first`. */
    void chooseFirst(log_device_t* list, log_device_t** first);
    /** Outputs and drops the first entry of the device. */
    void printNextEntry(log_device_t* dev);
    void skipNextEntry(log_device_t* dev);
    /** Announces the device before its first entry when there is more than one. */
    void maybePrintStart(log_device_t* dev);
    /** Parses, filters and outputs an entry that lies in a log_entry_node_t; its header is used up by that.
     */
    void processBuffer(log_device_t* dev, logger_entry* entry);
    /**
     * Formats an entry and passes the line to the console `fd` and the ring buffer as the switches say.
     * -1 when the line cannot be made or the buffer refused it, 0 or the bytes written otherwise.
     */
    int androidLogPrintLogLine(AndroidLogFormat_t* format, int fd, const AndroidLogEntry_t* entry);
    /** Empties the main device. 0 or -1. Any thread. */
    int clearAndroidLog();
    /** Requests of the driver on an open device: empty it, its capacity, its content in bytes. -1 for a
     * failure. */
    int clearLog(int fd);
    int getLogSize(int fd);
    int getLogReadableSize(int fd);

    // --- binder/ ----------------------------------------------------------------------------------------

    /** Runs a command (codes in binder/Command.h). Any thread; one command at a time. */
    int logCMD(int cmd, const char* param) override;
    /** Prints the usage text to standard output. */
    void showHelp();

    // === State ==========================================================================================

    /// The ring buffer; replaced only while mBufUse keeps everybody out.
    LogBuf* mLogBuf = nullptr;
    Flag mFlushAll{false}; ///< everything buffered is to be written out
    Flag mFlushSwitch{false}; ///< write out on every wake-up

    // Android reader
    int32_t mALogOutFd = -1;
    int32_t mALogDevCount = 0;
    uint32_t mALogQueued = 0; ///< entries in the devices' queues

    /// Whether the service runs; commands are refused while it does not.
    Flag mServiceStarted{false};

    // Android filter. mLogFormat's fields are guarded by mFilterLock; mModuleMode changes under it and
    // mCommandLock.
    AndroidLogFormat_t* mLogFormat = nullptr; ///< owned, for the object's life
    char* mModuleCfg = nullptr; ///< from parsing until the filter is built
    char* mFormatCfg = nullptr;
    std::atomic<int32_t> mModuleMode{0}; ///< 0 all modules, 1 none, 2 listed ones

    // Settings and switches; written by start and commands
    std::atomic<int32_t> mKLogLevel{7}; ///< kernel console level, 1 to 7
    int32_t mOldKLogLevel = 7; ///< the level from before muting; guarded by mCommandLock
    char mALogLevel[4] = {}; ///< priority letter; guarded by mCommandLock
    std::atomic<int32_t> mALogFileMinPri{0}; ///< lowest Android priority that is stored
    Flag mKLogOutput{false};
    Flag mKLogToUart{false};
    Flag mKLogToFile{false};
    Flag mALogOutput{false};
    Flag mALogToUart{false};
    Flag mALogToFile{false};
    sem_t mKLogSem; ///< wakes the kernel reader when its output is switched on
    sem_t mALogSem; ///< the same for the Android reader

    // Workers. A handle means something only while its flag is set.
    pthread_t mFlushThread{};
    pthread_t mKLogThread{};
    pthread_t mLogcatThread{};
    Flag mFlushThreadRunning{false};
    Flag mKLogThreadRunning{false};
    Flag mLogcatThreadRunning{false};

    // Storage; guarded by mStorageLock once the workers run. Root and paths change under mCommandLock as
    // well, so that a command may read them under that alone. Sizes in bytes unless said otherwise.
    char* mSavePath = nullptr; ///< storage root, owned
    uint32_t mCurLogSize = 0; ///< active section file
    uint32_t mCurrentTotalSize = 0; ///< finished sections of this run
    uint32_t mSliceNum = 1; ///< number of the active section
    uint32_t mTailFolderNum = 0; ///< oldest archived run
    uint32_t mHeadFolderNum = 0; ///< newest archived run
    uint32_t mTotalLogSize = 0; ///< all archived runs
    uint32_t mOldestFileNum = 1; ///< oldest surviving section
    int32_t mMaxLogSize = 0; ///< bound of the stored log in MiB

    char mNotwaitCmd[128] = {}; ///< latest command of shellexecNotwait; guarded by mNotwaitLock
    char mLogServiceDir[128] = {};
    char mLastDirPrefix[128] = {};
    char mCurrentDir[128] = {};
    char mCurrentLogFile[128] = {};
    char mCfgPath[128] = {}; ///< the service's own log.cfg; fixed from start on
    char mStorageDataFile[128] = {};

    uint32_t mLogSectionSize = 0;
    uint32_t mLogDeleteSize = 0; ///< least amount deleted at a time
    int32_t mLogFd = -1; ///< open section file
    Flag mStorageFull{false};

    // Locks, in the order in which they may be taken
    std::mutex mCommandLock; ///< one command, save or stop at a time
    std::mutex mStorageLock; ///< bookkeeping, paths, active section
    std::mutex mFilterLock; ///< rules, module mode, line format
    std::mutex mNotwaitLock; ///< mNotwaitCmd; nothing else is taken under it

    char mSystemRoot[128] = {}; ///< stands before fixed absolute paths; read at construction and start
    bool mCfgTextsOwned = false; ///< whether mModuleCfg and mFormatCfg are ours to release
    bool mRootChanged = false; ///< while a section was open under the old one; guarded by mStorageLock
    bool mCompressPending = false; ///< the section is closed but not compressed; guarded likewise
    bool mBoundPending = false; ///< the bound did not hold after the last cut; guarded likewise
    bool mDrainWriteFailed = false; ///< a write of the present drain failed; flush thread only
    uint32_t mDrainMoved = 0; ///< bytes that the present drain has moved; flush thread only

    /// Who is inside the ring buffer: their count, and the top bit while it is closed. See BufferUse.
    mutable std::atomic<uint32_t> mBufUse{0};
    mutable sem_t mBufIdle; ///< posted by whoever leaves a closed buffer
    std::atomic<uint32_t> mSpaceWaiters{0}; ///< writers that wait for space
    std::atomic<uint32_t> mFlushRequests{0}; ///< counts flushLogBufAll calls, modulo 2^32
    std::atomic<uint32_t> mRefusedRecords{0}; ///< records refused since draining began to fail
    Flag mDrainFailing{false}; ///< the last drain failed

  private:
    class BufferUse;
    class SpaceWaiter;
    enum class Space { Ready, Refused, StorageFull };
    enum class Drain { Idle, Done, Partly, Failed };
    struct StorageNeed {
        uint32_t free;
        uint32_t used;
    };
    struct LastFolderPlace;
    struct ArchivedRuns;
    struct RunContent;

    // service/
    void loadConfiguration();
    int settleStorageRoot();
    void releaseConfigurationTexts();
    int openStorageNumbers();
    void recoverMissingNumbers();
    int recoverNumbers();
    int createLogBuf();
    void releaseLogBuf(bool withMutex = true, bool withRead = true, bool withWrite = true);
    int prepareStorage();
    int startWorker(Flag& running, pthread_t& handle, void* (*body)(void*), const char* name);
    int failStart();
    int startWorkers(const bool* flags, bool storageReady);
    int stopKernelReader();
    int stopAndroidReader();
    int stopFlushThread();

    // config/
    bool applySetting(const Setting& setting, const char* text, const char* path);
    void applyDefault(const Setting& setting);
    bool applyNumber(const Setting& setting, const char* text, const char* path);
    void applyStorageRoot(const Setting& setting, const char* text, const char* path);
    bool applyAndroidLevel(const Setting& setting, const char* text, const char* path);
    bool applyOwnedText(const Setting& setting, const char* text, const char* path);
    void setMaxLogSize(int value);
    int saveConfiguration();
    void restoreConfiguration();
    bool writeGeneralSettings(int fd);
    bool writeModules(int fd);
    bool writeConfiguration(int fd);

    // buffer/
    LogBuf* enterBuffer() const;
    void leaveBuffer() const;
    void closeBuffer();
    void reopenBuffer();
    Space waitForSpace(LogBuf& buffer, uint32_t length, StorageNeed& need);
    bool storageTooSmall(const LogBuf& buffer, StorageNeed& need);
    int giveUpStorage(const StorageNeed& need);
    void flushLoop();
    void reportUnwritten();
    Drain drainBuffer(bool retry, uint32_t* requestsSeen);
    void forgetFlushRequest(uint32_t requestsSeen);
    void drainingFailed();
    void drainingWorks();
    void pauseDraining(unsigned seconds, uint32_t requestsSeen);

    // storage/
    void useDefaultRoot();
    void resetNumbers();
    bool withinBound(uint32_t more) const;
    bool openSection();
    uint32_t moveIntoSection(uint32_t wanted);
    int resumeCut();
    bool compressed(const char* text, const char* archive);
    int finishSection();
    void syncArchive(const char* folder, const char* archive);
    bool pointOldestAtFinishedSection();
    int keepBound();
    bool boundRestored();
    bool createCurrentFolder();
    int archiveEarlierUse();
    uint32_t freeFolderNumber();
    bool moveCurrentAside(const char* target, uint32_t number);
    int trimArchivedRuns();
    int deleteFromLast(const LastFolderPlace& place, uint32_t* deleted);
    int removeEmptiedRun(const LastFolderPlace& place);
    int deleteFromCurrent(uint32_t* deleted, bool* lastGone);
    int closePreviousRun(uint32_t* size);
    int compressTexts(const char* run, uint32_t* size, bool* anyCompressed);
    int compressPreviousFile(const char* run, const char* path);
    int archivePreviousRun();
    int trimAtStart(uint32_t size);
    bool countArchivedRuns(const NamePatterns& patterns, ArchivedRuns* runs);
    bool oldestSection(const NamePatterns& patterns, const char* path, uint32_t* oldest);
    bool numbersMatchDisk();
    bool lookInto(const NamePatterns& patterns, const char* path, RunContent* content);
    bool startNumbersAnew();
    void closeArchivedRun(const NamePatterns& patterns, const char* path);
    void mendInterruptedDeletion();
    void mendInterruptedArchiving();

    // sources/
    bool readKernelLog(int fd, char* buffer);
    uint32_t storeKernelLines(char* buffer, uint32_t length);
    void storeKernelLine(const char* line, const char* end);
    log_device_t* makeDeviceList();
    bool openDevices(log_device_t* list);
    void printQueued(log_device_t* list, bool everything);
    int routeLine(AndroidLogFormat_t* format, int fd, const AndroidLogEntry_t* entry, bool* formatted);
    char* formatLine(AndroidLogFormat_t* format, char* usual, const AndroidLogEntry_t* entry, size_t* length);
    int writeToConsole(int fd, const char* line, size_t length, const AndroidLogEntry_t& entry);
    int storeAndroidLine(const char* line, size_t length, const AndroidLogEntry_t& entry, int result);
    bool addRule(const char* expression);
    void addModuleRules(const char* list, void (*reportRefused)());
    int applyFormatWord(const char* text);

    // binder/
    int runCommand(int cmd, const char* param);
    int saveAndShow();
    int setConsoleOutput(bool on);
    bool muteKernelConsole();
    bool restoreKernelConsole();
    int startKernelOutput();
    int stopKernelOutput();
    int setKernelLevel(int level);
    int setAndroidOutput(bool on);
    int setAndroidLevel(char letter);
    void setGlobalLevel();
    int setModules(int mode);
    int addModules(const char* list);
    int deleteModule(const char* name);
    int setStorageRoot(const char* root);
    void changeRoot(const char* root);
    int copyStorage(const char* target);
};

} // namespace vnlog
