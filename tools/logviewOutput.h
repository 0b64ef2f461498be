// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "reader/Outputs.h"
#include "tools/logviewOptions.h"

#include <sys/types.h>

/**
 * Where logview's output goes: standard output, or a pager in front of it where that is a terminal. A reader
 * of the output that goes away is no error. One thread.
 */
class ViewOutput {
  public:
    /** Starts the pager where one is to be used. */
    explicit ViewOutput(const ViewOptions& options);
    ~ViewOutput() { (void)waitForPager(); }
    ViewOutput(const ViewOutput&) = delete;
    ViewOutput& operator=(const ViewOutput&) = delete;

    /** What is to be written to. */
    int descriptor() const { return mPipe.valid() ? mPipe.get() : mDescriptor; }
    /** What suits whoever is going to see it. */
    vnlog::OutputStyle style() const { return mStyle; }
    /** All has been written; `error` is the errno of a write that failed, or 0. Waits for the pager. kGoOn,
     * or kWrongUsage, reported. */
    int finish(int error);

  private:
    void startPager();
    bool startPager(const char* command, bool byShell, int input);
    int waitForPager();

    int mDescriptor;
    vnlog::OutputStyle mStyle;
    vnlog::FileDescriptor mPipe;
    pid_t mPager = -1;
};
