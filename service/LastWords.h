// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Text.h"
#include "service/LogService.h"

#include <string>
#include <vector>

namespace vnlog {

/**
 * What the platform has kept of the kernel's last words before a crash: the text files dmesg-* and console-*
 * in <system root>/sys/fs/pstore. When storing begins they are stored, oldest first, and each is removed
 * there once it is on the medium. What cannot be stored stays for the next time.
 */
class LastWords {
  public:
    /** Both must outlive the object. */
    LastWords(LogService& service, ServiceParts& parts) : mService(service), mParts(parts) {}

    /** With the flush thread running, before a reader is started by that; waits until all is on the medium,
     * or that fails, reported. */
    void store();
    /** Removes a file whose text has come to the medium since. */
    void settle();

  private:
    struct File {
        std::string name;
        timespec written;
    };

    std::vector<File> find(const char* folder) const;
    bool storeFile(const char* folder, const std::string& name);
    static void remove(const char* path);
    bool storeText(int fd);
    bool put(const char* text, size_t length);

    LogService& mService;
    ServiceParts& mParts;
    std::string mPending; ///< path of a file whose text is buffered, empty without one
};

} // namespace vnlog
