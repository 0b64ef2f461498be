// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/SectionFacts.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vnlog {

/** Longest path in characters that file work is given: with it every command that a shell runs is whole. */
constexpr size_t kLongestWorkPath = 240;

/** Longest target in characters into which a folder whose path has this length is copied. */
constexpr size_t longestCopyTarget(size_t folderLength) {
    return folderLength < kLongestWorkPath ? kLongestWorkPath - folderLength : 0;
}

/** The regular files of a tree. */
struct CopyTotals {
    uint32_t files = 0;
    uint64_t bytes = 0; ///< sum of their sizes
};

/**
 * The work on files that the store leaves to others: one form of it per way to do it. All paths are plain
 * (shellSafe) and of at most kLongestWorkPath characters. Each returns whether the thing is done; where not,
 * it reports that and errno tells why. No link in the last place of a path is followed. Any thread that is
 * not cancelled meanwhile; compress one at a time: the store calls it under its lock, or in a start, before
 * anybody else can. All others may run beside it.
 */
class FileWork {
  public:
    virtual ~FileWork() = default;

    /**
     * Puts the gzip archive `<text>.gz` in the place of the text; one that is there already is replaced. The
     * archive is written beside under its draft's name and is on the medium, name and all, before the text
     * goes. Where it fails, the text is as it was, the archive is the older one or the whole new one,
     * and the draft is gone. An archive that is written in the process tells what its section holds, and of
     * its run what `origin` does.
     */
    virtual bool compress(const char* text, const SectionOrigin& origin) = 0;
    /** Removes a file; done as well when there is none. */
    virtual bool removeFile(const char* path) = 0;
    /** Removes a folder with all that it holds; done as well when there is none. */
    virtual bool removeTree(const char* path) = 0;
    /** Removes everything whose path begins with `beginning`, a folder's path with "/" and the beginning of a
     * name; hidden names stay where that is empty. */
    virtual bool removeAll(const char* beginning) = 0;
    /** Gives the folder `from` the path `to`, where nothing is, on the same file system; does not sync it. */
    virtual bool moveFolder(const char* from, const char* to) = 0;
    /**
     * Copies the folder `from` into the folder `into`, which may be a link to one, and waits until the medium
     * has it. Files that are there already are replaced, links copied as links. What vanishes from `from`
     * meanwhile is left out, but not what takes its place; after a failure all that can be copied is.
     * `totals` tells what of it the copy has afterwards, in any case.
     */
    virtual bool copyTree(const char* from, const char* into, CopyTotals* totals) = 0;
    /** Whether the two paths are short enough for that. */
    virtual bool copyFits(const char* from, const char* into) const {
        return std::strlen(into) <= longestCopyTarget(std::strlen(from));
    }
};

} // namespace vnlog
