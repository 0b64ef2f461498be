#pragma once

#include "reader/StoreFolder.h"
#include "reader/TextOut.h"

#include <cstdint>
#include <string>
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

/**
 * Writes the store with its bookkeeping, log.cfg (`config`, empty for none) and the texts as a .tar.gz, with
 * SHA256SUMS of all. `file` is replaced only by a whole one. False with `error` set.
 */
[[nodiscard]] bool writeBundle(const StoreFolder& folder, const std::string& config,
                               const std::vector<BundleText>& texts, const std::string& file,
                               BundleTotals* totals, std::string* error);

/** A bundle that is open: unpacked into a folder of its own, which goes with the object. */
class OpenBundle {
  public:
    OpenBundle() = default;
    ~OpenBundle();
    OpenBundle(const OpenBundle&) = delete;
    OpenBundle& operator=(const OpenBundle&) = delete;

    /** False with `error` set. A bundle that is cut off or damaged gives what could be unpacked, and `damage`
     * tells why that is not all. */
    [[nodiscard]] bool open(const std::string& file, std::string* error);
    const std::string& folder() const { return mFolder; }
    const std::string& damage() const { return mDamage; }

  private:
    std::string mFolder, mDamage;
};

} // namespace vnlog
