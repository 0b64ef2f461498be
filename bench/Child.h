// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/Sample.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

/* Programs that are run and measured. One thread uses a Child. */
namespace vnlog::bench {

/** Seconds of a clock that only goes forward. */
double now();
/** Seconds of processor time that this program has had. */
double ownProcessor();

/** Where a program's standard streams lead: a descriptor of the caller's, or -1 for /dev/null. */
struct Streams {
    int input = -1, output = -1, errors = -1;
};

/** A running program, killed when it is not waited for. */
class Child {
  public:
    Child() = default;
    /** Starts args[0], looked for in PATH. On failure it is not running, and errno tells why. */
    explicit Child(const std::vector<std::string>& args, const Streams& streams = {});
    ~Child() { end(); }
    Child(Child&& other) noexcept : mPid(other.mPid) { other.mPid = -1; }
    /** Kills the one that it had. */
    Child& operator=(Child&& other) noexcept;

    /** Kills the program that was started last, if it has not been waited for. Allowed in a signal handler.
     */
    static void killLatest();
    bool running() const { return mPid > 0; }
    pid_t pid() const { return mPid; }
    /** Whether it has come to its end, or never ran. */
    bool ended() const;
    /** Sends a signal. */
    void signal(int number) const;
    /**
     * Waits for its end and stores what it cost but for the wall time. Its exit status, 128 and the signal's
     * number when one ended it, -1 when it is not running.
     */
    int wait(Sample* sample);

  private:
    void end();

    pid_t mPid = -1;
};

/** Path of a file that /proc has for the process. */
std::string procFile(pid_t pid, const std::string& name);
/** Seconds of processor time by the name of the thread, of the threads that run now. */
std::map<std::string, double> threadTimes(pid_t pid);
/** KiB of the private pages that are of no file; 0 when it cannot be told. */
uint32_t ownMemory(pid_t pid);
/** Seconds of processor time of a running process. */
double processorTime(pid_t pid);
/** Bytes of pages that the process has dirtied on a file system of a disk, without what was removed
 * unwritten. */
double bytesToMedium(pid_t pid);
/** Whether the program is to be found in PATH. */
bool isInstalled(const std::string& program);
/** The whole of a small file; empty when it cannot be read. */
std::string contentOf(const std::string& path);

} // namespace vnlog::bench
