// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "base/Text.h"

#include <cstddef>

/* The file that holds the settings: which one is read, and how it is replaced. Not to be cut by a
 * cancellation. */
namespace vnlog {

/** The service's own file, under the system root and the default storage root. */
constexpr char kConfigurationName[] = "/log.cfg";
/** Bytes that a file of settings may have. */
constexpr long kMaxConfigurationSize = 1048576;
/** The environment variable that names the file to be read when that one is missing or unusable. */
constexpr char kDefaultConfigurationVariable[] = "LOG_DEFAULT_CFG";

/** The file to be read then: the variable's where it is there, else a relative path. */
const char* fallbackConfiguration();

/** Whose file is read: log.cfg must be ours and no link, another one may be whoever's and wherever. */
enum class Configuration { Own, Foreign };

/**
 * Opens a file of settings, a regular one of at most 1 MiB, without ever waiting; stores its size in bytes.
 * Otherwise the result is not valid, and errno tells why.
 */
[[nodiscard]] FileDescriptor openConfiguration(const char* path, Configuration whose, size_t* size);

/**
 * Replaces the file by the text. True when that survives a power cut. False, reported, when a step failed:
 * the old file is there then, or the new one if only its name is not safe yet. Where the medium has no room
 * for two, the old one goes first, and is put back when the new one does not fit either; if even that fails,
 * which is reported, there is none.
 */
[[nodiscard]] bool replaceConfiguration(const char* path, const char* text, size_t length);

/**
 * Keeps a file that could not be used whole under another name, log.cfg.rejected, in the place of an older
 * one, before it is replaced; one that cannot be read is moved there. Reported, as is a failure. Without
 * effect where there is none, or an empty one.
 */
void keepRejected(const char* path);

/** Where an earlier version of the service has set the old file aside while it wrote a new one. */
Path setAside(const char* path);
/** Removes that one, if it is there. */
void discardSetAside(const char* path);

} // namespace vnlog
