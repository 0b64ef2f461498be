// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/sysroot/SystemRoot.h"
#include "sources/AndroidLine.h"
#include "sources/AndroidState.h"
#include "sources/FinishRequest.h"
#include "sources/LogDevice.h"
#include "sources/Merge.h"

#include <sys/select.h>

namespace vnlog {

/**
 * Reads the logger devices, merges their entries and hands each on to become a line. One thread at a time;
 * clear may be called on any.
 */
class AndroidReader {
  public:
    /** All must outlive the reader. */
    AndroidReader(AndroidState& state, const platform::SystemRoot& systemRoot, AndroidLine& line)
        : mState(state), mSystemRoot(systemRoot), mLine(line) {}

    /**
     * The thread's work: ends when it is asked to finish, with the flag mLogcatThreadRunning, by
     * cancellation, or, reported, when a device cannot be opened or a wait fails. A device or console that
     * fails ends the process, see endProcess.
     */
    void run();
    /** How a stop asks the thread to finish. */
    FinishRequest& finishRequest() { return mFinish; }
    /** Makes standard output the console. */
    void setupOutput();
    /** Reads, merges and outputs entries until the thread is to end. Makes the devices' descriptors such that
     * do not block. */
    void readLines(log_device_t* list);
    /** Outputs and drops the first entry of the device. */
    void printFirst(log_device_t* device);
    /** Drops it, announced as well. */
    void skipFirst(log_device_t* device);
    /** Announces the device on the console before its first entry, when there is more than one. */
    void announce(log_device_t* device);
    /** Empties the main device. False, reported, for a failure. */
    [[nodiscard]] bool clear();

  private:
    struct Pass;

    log_device_t* makeDeviceList();
    bool openDevices(log_device_t* list);
    bool readPass(log_device_t* list, Pass* pass);
    bool readSilent(log_device_t* list, Pass* pass);
    bool readDevice(log_device_t* device, Pass* pass);
    uint32_t queueEntries(log_device_t* device, size_t length);
    int waitForData(const log_device_t* list, Pass* pass, fd_set* ready) const;
    void printReady(log_device_t* list, bool everything);
    bool awaitOutput(log_device_t* list);
    void tellLost(log_device_t* device, const logger_entry& entry);

    AndroidState& mState;
    const platform::SystemRoot& mSystemRoot;
    AndroidLine& mLine;
    EntryPool mPool;
    char mBatch[platform::kMaxLoggerBatch]; ///< what the last read returned
    FinishRequest mFinish;
    timespec mOnSince{}; ///< wall clock at which the output was switched on last
};

/**
 * The reader's cleanup handler: releases the list with its descriptors and queued entries. Runs on the reader
 * when it is cancelled or ends early.
 */
void logcat_cleanup(log_device_t* list);

} // namespace vnlog
