// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/Layout.h"

#include <string>
#include <string_view>

/* What a bundle holds: one folder, and in it a root with its log folder, and texts. */
namespace vnlog {

constexpr char kBundleName[] = "vnlog-bundle"; ///< begins the name of the folder
constexpr char kSumsName[] = "SHA256SUMS"; ///< lines as of sha256sum, with names below the folder

enum class BundleEntry { None, Folder, File };

/** What may have this name, which is one below the bundle's folder, in a bundle. */
BundleEntry bundleEntry(std::string_view name);

/** Whether a bundle takes a file of this name from a run. */
bool bundledFromRun(std::string_view name);

/** The SHA-256 sum of what is read from a descriptor to its end, in hexadecimal digits. False with
 * errno set. */
[[nodiscard]] bool sumOf(int fd, std::string* sum);

} // namespace vnlog
