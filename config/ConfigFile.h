#pragma once

#include <cstddef>

/* The file that holds the settings: which one is read, and how it is replaced. Not to be cut by a
 * cancellation. */
namespace vnlog {

/** The service's own file, under the system root and the default storage root. */
constexpr char kConfigurationName[] = "/log.cfg";
/** The environment variable that names the file to be read when that one is missing. */
constexpr char kDefaultConfigurationVariable[] = "LOG_DEFAULT_CFG";

/** The file that the settings are read from at start: `own`, else the variable's, else a relative path. */
const char* chooseConfiguration(const char* own);

/**
 * Replaces the file by the text, synced. The old one is kept beside it until that has succeeded. False when
 * the file cannot be made, or, reported, when it cannot be written; a part of it may be there then.
 */
[[nodiscard]] bool replaceConfiguration(const char* path, const char* text, size_t length);

/** Undoes a replacement that was cut off: takes back the file from before it. */
void restoreConfiguration(const char* path);

} // namespace vnlog
