// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utils/RefBase.h>

namespace android {

/** This process's part in binder: the threads that its published services are called on. */
class ProcessState : public virtual RefBase {
  public:
    static sp<ProcessState> self();
    /**
     * Starts the threads that serve requests to published services. Further calls do nothing, but for threads
     * that the system refused earlier, which the Android log tells: those are tried again.
     */
    void startThreadPool();

  private:
    ProcessState();
};

} // namespace android
