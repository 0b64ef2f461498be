// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Faults.h"
#include "platform/logger/LoggerDevice.h"
#include "platform/logger/LoggerDriver.h"
#include "service/LogService.h"
#include "sources/AndroidFormat.h"
#include "storage/Listing.h"

// What most tests use of the libraries.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using vnlog::LogService;

/** Waits until `condition` holds, ten seconds at most; returns whether it did. */
bool eventually(const std::function<bool()>& condition);

std::string readFile(const std::string& path);
/** Creates the file and the folders above it. */
void writeFile(const std::string& path, const std::string& text);
inline void makeFolder(const std::string& path) {
    fs::create_directories(path);
}
using fs::exists;
std::string runCommand(const std::string& command);
/** Text of a gzip file; a damaged one fails the test. */
std::string readGzip(const std::string& path);
int openDescriptors();
/** Leaves the process one descriptor that it can open, or takes the limit back. */
void starveOfDescriptors(bool on);
/** An entry as it is written to a device, of the process 17 and its thread 18. */
std::string deviceEntry(int seconds, int nanoseconds, const std::string& payload);
/** The stored text under a log folder, oldest first: archived runs, then the current. */
std::string storedText(const std::string& logs);
/** Bytes of all finished sections under a log folder. */
uint64_t storedArchiveBytes(const std::string& logs);

/**
 * A system root of the test's own, no faults armed, a clean environment, and the diagnostics kept for the
 * test. Leaves nothing behind that another test in the same process would notice.
 */
class FolderTest : public ::testing::Test {
  protected:
    explicit FolderTest(const std::string& place = fs::temp_directory_path());
    ~FolderTest() override;

    /** Whether a diagnostic that contains `text` was logged; how often. */
    bool logged(const std::string& text) { return loggedTimes(text) > 0; }
    int loggedTimes(const std::string& text);
    void forgetLog();
    /** Sends standard output to a file until the end of the test. */
    void catchConsole();
    std::string console();
    /** Makes the logger devices main and system, and removes them again. */
    void plugDevices();
    void unplugDevices();
    /** Writes an entry with this stamp to a device. */
    void entry(const char* device, int seconds, int nanoseconds, char priority, const std::string& tag,
               const std::string& text);
    /** Whether the main device has something to read. */
    bool readable();

    std::string home; ///< the system root
    std::string root; ///< the storage root, which is there
    std::string logs; ///< its log_service folder, which is not
    std::string cfg; ///< log.cfg

  private:
    const vnlog::FileDescriptor& writerOf(const char* device);

    std::unique_ptr<vnlog::platform::LoggerDriver> mDriver;
    std::map<std::string, vnlog::FileDescriptor> mWriters;
    int mStdout = -1;
    std::string mWorkingFolder;
};

/** A service on that root, with a FIFO as the kernel log and a file that takes the console level. */
class ServiceTest : public FolderTest {
  protected:
    ServiceTest();
    ~ServiceTest() override { stop(); }

    /** log.cfg with these lines, and behind them, where they say nothing, storage and kernel reading on and
     * small sections. */
    void configure(const std::string& settings = "");
    /** Builds the service and starts it with these workers. */
    void start(bool flush = true, bool kernel = true, bool android = false);
    /** Stops and drops the service. */
    void stop() { mService = nullptr; }
    /** An object that is not started; the constructor's values. */
    LogService& deferred();
    LogService& service() { return *mService; }

    /** Writes to the kernel log, which must have its reader. */
    void feed(const std::string& text);
    bool put(const std::string& text);
    /** Asks for a flush and waits until the buffer is empty. */
    bool flush();

    /** All stored text, oldest first: archived runs, then the current one. */
    std::string stored() { return storedText(logs); }

  private:
    android::sp<LogService> mService;
};
