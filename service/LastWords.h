#pragma once

#include "base/Text.h"
#include "service/LogService.h"

#include <string>
#include <vector>

namespace vnlog {

/**
 * What the platform has kept of the kernel's last words before a crash: the text files dmesg-* and console-*
 * in <system root>/sys/fs/pstore. A start stores them, oldest first, before anything that is read, and
 * removes each there once it is on the medium. What cannot be stored stays for the next start.
 */
class LastWords {
  public:
    /** Both must outlive the object. */
    LastWords(LogService& service, ServiceParts& parts) : mService(service), mParts(parts) {}

    /** With the flush thread running and no reader yet; waits until all is on the medium, or that fails,
     * reported. */
    void store();

  private:
    struct File {
        std::string name;
        timespec written;
    };

    std::vector<File> find(const char* folder) const;
    bool storeFile(const char* folder, const std::string& name);
    bool storeText(int fd);
    bool put(const char* text, size_t length);

    LogService& mService;
    ServiceParts& mParts;
};

} // namespace vnlog
