// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Export.h"
#include "binder/CommandState.h"
#include "binder/ILogService.h"
#include "config/ServiceState.h"
#include "service/WorkerState.h"
#include "storage/ShellState.h"

#include <cstdint>
#include <log/logprint.h>
#include <memory>

namespace vnlog {

struct ServiceParts;
struct log_device_t;
namespace platform {
struct LoggerHeader;
}
using logger_entry = platform::LoggerHeader;

/**
 * The log service: a facade over the parts that do the work. Its state is in the bases, part by part.
 *
 * A host process creates one object and publishes it as a binder service. The argument-less constructor
 * starts the service, the destructor stops it. Hosts use the construction, serviceStart and serviceStop,
 * bufferedBytes, droppedBytes, the three ILogService operations and the flags mServiceStarted,
 * mFlushThreadRunning and mFlushAll. The other operations are single steps of the parts, for tests and tools;
 * setting a member takes effect in the next operation.
 *
 * Results are integers: 0 (or a byte count) for success and negative codes for failures, unless said
 * otherwise. Nothing is thrown. Failures that a caller could not tell from the result alone are reported to
 * the Android log with the tag "LogService".
 *
 * Locks, in the order in which they may be taken: commands (CommandLock), storage (StorageLock), filter
 * (FilterLock), losses (LossLock), ring (RingLock). Each member names its lock. Flags and settings that
 * workers read while commands write them are atomic.
 */
class VNLOG_API LogService : public BnLogService,
                             public CommandState,
                             public ServiceState,
                             public ShellState,
                             public WorkerState {
  public:
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

    // --- Life cycle

    /**
     * Reads the configuration, mends and prepares the storage, and starts the workers whose flags are set:
     * flush thread, kernel reader, Android reader. Not to be called while another start or stop runs. Takes
     * the command lock where settings are touched. 0 when the service is started; this includes a storage
     * that could not be prepared: flush thread and kernel reader are started when it can, which is tried
     * every minute. -1 when it is not started: everything that the attempt made is released again. A service
     * that is started already stays as it is and gives -1.
     */
    int serviceStart(const bool* flags);
    /**
     * Stops the workers whose flags are set, in good order: the readers take what there is for them to read,
     * the flush thread writes out what is buffered and closes the section, the ring buffer is released. With
     * the flush thread left running nothing is written out and the buffer stays. A reader that does not get
     * on for 5 seconds is cancelled, and a buffer that does not for 5 is dropped, which is reported, or kept
     * for the next start where it outlives the process. For the host, on any of its threads; a second stop
     * waits for the first. Takes the command lock once the buffer is written out. 0, or -1 when the service
     * is not started or a step failed (the steps after it are not done).
     */
    int serviceStop(const bool* flags);
    /** ILogService::getLogFd. Takes the storage lock. */
    int getLogFd() override;
    /** Bytes in the ring buffer that are not yet written out; 0 without a buffer. Any thread, never waits. */
    uint32_t bufferedBytes() const;
    /** Bytes that the last stop of the flush thread could not write out and has thrown away; none where they
     * outlive the process. 0 from the next start on. */
    uint32_t droppedBytes() const;

    // --- Shell and files. Any thread

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

    // --- Configuration. The four operations on settings take the command lock

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
    /** Rewrites log.cfg. 0 once that is safe on the medium, or -1. */
    int logConfigSave();
    /** Prints log.cfg as it is on disk to standard output. */
    void showLogCfg();

    // --- Ring buffer

    /**
     * Appends one record to the ring buffer, whole or not at all; waits while there is no space. Called on
     * the reader threads, which may be cancelled while waiting. Returns `length`, or -1: empty or too long a
     * record, no flush thread, a stop, or a storage that takes nothing more. When the storage is full this
     * switches file output off and stops the flush thread, until there is room for two sections.
     */
    int logBufWrite(const void* bytes, uint32_t length);
    /**
     * Writes up to `wanted` of the oldest bytes to `fd` and frees them. Flush thread only. Returns the bytes
     * consumed, or -1 when a write failed: nothing is consumed then.
     */
    int logBufRead2File(int fd, uint32_t wanted);
    /** Body of the flush thread; the argument is the service. */
    static void* logBufFlush(void* service);
    /** Syncs and closes the open section file, if any. Takes the storage lock. */
    void logBufFlushExit();
    /** ILogService::flushLogBufAll. Any thread. */
    int flushLogBufAll() override;

    // --- Stored log. Each takes the storage lock

    /** Settles the storage root and fills the five paths under it. 0, or -1 with the paths unchanged. Start
     * only. */
    int logGetSavePath();
    /** Writes the four bookkeeping numbers to log_storage.dat. 0 or -1. */
    int logStorageDataSave();
    /** Reads them. 1, or -1 when the file or a number is missing or out of range. */
    int logStorageDataParse();
    /**
     * Moves `count` buffered bytes into the active section; cuts, compresses and thins where it is full.
     * Flush thread only. 0, also when a write failed and the bytes are still buffered; or -1.
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
    /** Rebuilds the bookkeeping numbers from the names on disk. 0, or -2 to -5. */
    int repairLogDatFile();

    // --- Kernel log

    /** Body of the kernel reader; the argument is the service. */
    static void* kernelLogReader(void* service);
    /** Releases what the kernel reader holds; the argument is its cleanup record. */
    static void kernelLog_cleanup(void* record);
    /** Throws away the kernel messages that wait to be read. 0, or -1 when they cannot be reached. */
    int clearKernelLog();

    // --- Android filter. Each takes the filter lock, the first the command lock as well

    /**
     * Builds the Android filter and line format from the configuration and sets the kernel console level.
     * 0, or -1 without memory.
     */
    int logFilterInit();
    /** Lowest priority that passes for the tag. */
    int logFilterPriForTag(AndroidLogFormat_t* format, const char* tag);
    /** 1 when an entry of this tag and priority passes the filter, else 0. */
    int androidLogShouldPrintLine(AndroidLogFormat_t* format, const char* tag, android_LogPriority priority);
    /** Removes all rules. */
    void androidLogClearAllFilterRule(AndroidLogFormat_t* format);
    /** Removes the newest rule for the tag. -1 when there are no rules at all, else 0. */
    int androidLogDelFilterRule(AndroidLogFormat_t* format, const char* tag);
    /** 0, or -1 for an unknown format word. */
    int setLogFormat(const char* text);
    /** The letter of a priority; '?' for none. */
    char filterPriToChar(android_LogPriority priority);
    /** The line format of a word; FORMAT_OFF for another word. */
    AndroidLogPrintFormat formatFromString(const char* text);
    /** The word of a line format; null when it has none. */
    const char* formattostring(AndroidLogPrintFormat value);

    // --- Android log. On the Android reader's thread unless said otherwise

    /** Body of the Android reader; the argument is the service. */
    static void* logcat(void* service);
    /** Makes standard output the console of the lines. */
    void setupOutput();
    /** Reads, merges and outputs entries until the thread is to end. */
    void readLogLines(log_device_t* list);
    /** Stores the device whose first queued entry is the oldest, or null, in `first`. */
    void chooseFirst(log_device_t* list, log_device_t** first);
    /** Outputs and drops the first entry of the device. */
    void printNextEntry(log_device_t* dev);
    /** Drops the first entry of the device without output. */
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
    /** Empties an open device. 0, or -1 with errno set, as of the next two. Any thread. */
    int clearLog(int fd);
    /** Bytes that an open device can hold, or -1. Any thread. */
    int getLogSize(int fd);
    /** Bytes that an open device holds, or -1. Any thread. */
    int getLogReadableSize(int fd);

    // --- Commands

    /** Runs a command (codes in binder/Command.h). Any thread; one command at a time. */
    int logCMD(int cmd, const char* param) override;
    /** The same, and tells what came of it. */
    int logQuery(int cmd, const char* param, std::string* answer) override;
    /** Prints the usage text to standard output. */
    void showHelp();

  private:
    std::unique_ptr<ServiceParts> mParts; ///< what does the work; see service/Parts.h
};

} // namespace vnlog
