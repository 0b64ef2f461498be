// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace vnlog::bench {

/** A folder of its own, removed with everything in it. */
class Place {
  public:
    explicit Place(const std::string& parent);
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    /** Whether the folder could be made. Otherwise nothing can be made below its path either. */
    bool made() const { return mMade; }
    const std::string& path() const { return mPath; }

  private:
    std::string mPath;
    bool mMade;
};

/** Makes the folder and those above it. False with errno set. */
[[nodiscard]] bool makeFolders(const std::string& path);
/** Writes a file anew. False with errno set. */
[[nodiscard]] bool writeFile(const std::string& path, const std::string& content);
/** Paths of the regular files of a folder whose names begin so, by name. */
std::vector<std::string> filesOf(const std::string& folder, const std::string& beginning = {});
/** Waits for writes of earlier measurements, so that they do not slow down the next. */
void settle(const std::string& folder);

} // namespace vnlog::bench
