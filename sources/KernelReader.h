// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "platform/sysroot/SystemRoot.h"
#include "sources/FinishRequest.h"
#include "sources/KernelState.h"
#include "sources/LineSink.h"
#include "sources/SourceCounts.h"

namespace vnlog {

class KernelSplitter;
struct KernelLine;

/** Reads the kernel's log and puts the lines whose priority passes into the sink. */
class KernelReader {
  public:
    /** All must outlive the reader. */
    KernelReader(KernelState& state, const platform::SystemRoot& systemRoot, LineSink& sink)
        : mState(state), mSystemRoot(systemRoot), mSink(sink) {}

    /**
     * The thread's work: ends when it is asked to finish, with the flag mKLogThreadRunning, by cancellation,
     * or on an error, reported.
     */
    void run();
    /** How a stop asks the thread to finish. */
    FinishRequest& finishRequest() { return mFinish; }
    /** Throws away the kernel messages that wait to be read. False, reported, when they cannot be reached. */
    [[nodiscard]] bool clear();
    /** Releases what run holds; the argument is its cleanup record. */
    static void cleanUp(void* record);
    /** What has become of its lines; any thread. */
    const SourceCounts& counts() const { return mCounts; }

  private:
    [[nodiscard]] FileDescriptor open();
    bool readLines(int fd, char** buffer);
    void storeLines(KernelSplitter& splitter);
    Fate store(const KernelLine& line);
    void awaitText(int fd, int timeoutMs) const;

    KernelState& mState;
    const platform::SystemRoot& mSystemRoot;
    LineSink& mSink;
    FinishRequest mFinish;
    SourceCounts mCounts;
    ReportLimit mReports;
};

} // namespace vnlog
