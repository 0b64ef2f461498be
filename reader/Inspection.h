// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "reader/StoreFolder.h"
#include "reader/TextOut.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vnlog {

/**
 * Checks a store and prints what is wrong and what the next start of the service would mend, a finding a
 * line, then how much was checked. Changes nothing. The result is the number of findings that are no usual
 * state of a store: 0 for one in order.
 */
[[nodiscard]] uint32_t verifyStore(const StoreFolder& folder, TextOut& out);

/** A text that goes into a bundle beside the store. */
struct BundleText {
    std::string name, text;
};

/** What a bundle has. */
struct BundleTotals {
    uint32_t files = 0;
    uint64_t bytes = 0;
    uint32_t changed = 0; ///< files that went or shrank while they were read
};

/** Name of a bundle that is made now, without an ending: vnlog-bundle-<host>-<time in UTC>. */
std::string bundleName();

/**
 * Writes the store with its bookkeeping, log.cfg (`config`, empty for none) and the texts as a .tar.gz, with
 * SHA256SUMS of all. Of the store it takes what has a name of the store's. A store in use is taken as it is
 * found: a file that grows in its length at that moment, one that has become an archive as that. `file`,
 * which may not lie in the log folder, is replaced only by a whole one, of mode 0600. False with `error` set.
 */
[[nodiscard]] bool writeBundle(const StoreFolder& folder, const std::string& config,
                               const std::vector<BundleText>& texts, const std::string& file,
                               BundleTotals* totals, std::string* error);

/**
 * A bundle that is open: unpacked into a folder of its own under TMPDIR. A process of its own removes that
 * when this one ends, in whatever way, or the object goes: nothing has to be done in a signal handler.
 */
class OpenBundle {
  public:
    OpenBundle() = default;
    ~OpenBundle();
    OpenBundle(const OpenBundle&) = delete;
    OpenBundle& operator=(const OpenBundle&) = delete;

    /**
     * Once. False with `error` set. Only files and folders that a bundle can hold are unpacked, none of more
     * than 4 GiB, and so much that 64 MiB are left on the file system. A bundle that is cut off, damaged or
     * holds anything else gives what could be unpacked, and `damage` tells why that is not all.
     */
    [[nodiscard]] bool open(const std::string& file, std::string* error);
    /** What StoreFolder::open takes. */
    const std::string& folder() const { return mFolder; }
    /** Empty when all is as it was when the bundle was made. */
    const std::string& damage() const { return mDamage; }

  private:
    bool makeFolder(std::string* error);

    std::string mFolder, mDamage;
    FileDescriptor mAlive; ///< the remover waits for the end of this pipe
    pid_t mRemover = -1;
};

} // namespace vnlog
