// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Text.h"
#include "platform/sysroot/SystemRoot.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

/*
 * The stored form: every name in it, built and parsed here and nowhere else, and its limits.
 * docs/on-disk-format.md walks through a small store.
 */
namespace vnlog {

/** A device's storage root and home of log.cfg when nothing else is configured; see SystemRoot::places for
 * the one that is in force. */
using platform::kDefaultRoot;

/** Longest storage root in characters with which every derived path fits its 128 bytes. */
constexpr size_t kMaxRootLength = 99;

/** Largest value of the four bookkeeping numbers; names with it or a larger number are not ours. */
constexpr int kMaxBookkeepingNumber = 999999999;
/** Stands for no number where the lowest one is looked for. */
constexpr uint32_t kNoNumber = kMaxBookkeepingNumber;

// Less the umask; others can never write, whatever that is.
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kSectionMode = 0755;
constexpr mode_t kBookkeepingMode = 0555;
constexpr mode_t kRunListMode = 0644;

/** Whether a path can be a storage root: all derived paths fit, and shell and log.cfg take it as it is. */
bool usableRoot(const char* root);

// The names. Under the root lie the log folder and the bookkeeping file; in the log folder the current run's
// folder and one for each archived run, last_<number>; in those the sections, log_<number>.txt and
// log_<number>.txt.gz. A log of the form before there were sections is log.txt or log.txt.gz.
constexpr char kLogFolder[] = "log_service";
constexpr char kBookkeepingFile[] = "log_storage.dat";
constexpr char kRunListFile[] = "runs.txt"; ///< in the log folder
constexpr char kCurrentFolder[] = "current";
constexpr char kRunName[] = "last";
constexpr char kLogName[] = "log";
constexpr char kTextEnd[] = ".txt";
constexpr char kArchiveEnd[] = ".gz";
/** Ends the name under which a file is written before it takes the place of the whole one. */
constexpr char kDraftEnd[] = ".new";

/** Characters that the log folder's path has beyond the root. */
constexpr size_t kLogFolderLength = sizeof kLogFolder;

// --- Paths. `prefix` is the log folder with kRunName, `run` a run's folder.

/** last_<run>. */
Path runFolder(const char* prefix, uint32_t run);
/** Where a run without sections is moved: <run>.stray, and with a `copy` above 0 <run>.stray<copy>. */
Path strayFolder(const char* run, uint32_t copy);
Path damagedFolder(const char* logs); ///< where a log folder goes that contradicts itself: <logs>.damaged
Path sectionText(const char* run, uint32_t section); ///< log_<section>.txt
Path sectionArchive(const char* run, uint32_t section); ///< log_<section>.txt.gz
Path archiveOf(const char* text); ///< what compressing the text makes of it: <text>.gz
Path olderText(const char* run); ///< log.txt
Path olderArchive(const char* run); ///< log.txt.gz
Path draftOf(const char* file); ///< what is to replace the file: <file>.new

/** What a name in the log folder or in a run's folder stands for. */
enum class NameKind {
    Current, ///< current
    Run, ///< last_<number>
    Archive, ///< log_<number>.txt.gz
    PlainText, ///< log_<number>.txt
    OlderArchive, ///< log.txt.gz
    OlderText, ///< log.txt
    OtherText, ///< anything else that ends in .txt
    Draft, ///< an archive of a section or of the older form that was not finished
    Foreign,
};

struct ParsedName {
    NameKind kind;
    uint32_t number = 0; ///< of Run, Archive and PlainText
};

/** Names are ours only as they are built: no padding, nothing before or behind, numbers below the limit. */
ParsedName parseName(const char* name);

/** Whether a name of this kind is that of a text to be compressed when its run is closed off. */
constexpr bool isText(NameKind kind) {
    return kind == NameKind::PlainText || kind == NameKind::OlderText || kind == NameKind::OtherText;
}

} // namespace vnlog
