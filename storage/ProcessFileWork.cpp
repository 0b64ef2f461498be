// SPDX-License-Identifier: Apache-2.0
#include "storage/ProcessFileWork.h"

#include "base/Handles.h"
#include "base/Text.h"
#include "storage/FileSteps.h"
#include "storage/Layout.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

// Below a folder, everything is named by the folder's descriptor: names of others may be long and trees deep.

/** The steps of one operation of which each is tried, whatever becomes of the others. */
class Steps {
  public:
    void add(bool done) { mError = done ? mError : errno; }
    /** Whether all were done; else false with the errno of the last that was not. */
    bool done() const {
        if (mError != 0)
            errno = mError;
        return mError == 0;
    }

  private:
    int mError = 0;
};

// --- Compressing

/** Reads what the section before one of this number tells, which may know nothing or be gone. */
bool readFactsBefore(const Draft& draft, uint32_t number, SectionFacts* facts) {
    if (number <= 1)
        return false;
    Path run;
    formatText(run.text, "%.*s", static_cast<int>(lastName(draft.textPath) - draft.textPath - 1),
               draft.textPath);
    FileDescriptor archive = openOwnFile(sectionArchive(run.text, number - 1).text, O_RDONLY);
    return archive.valid() && readFacts(archive.get(), facts);
}

/** Begins the summary of a section's text. False for any other text, and without memory: there are no facts
 * then. */
bool beginSummary(const Draft& draft, const SectionOrigin& origin, SectionSummary* summary) {
    const ParsedName name = parseName(lastName(draft.textPath));
    if (name.kind != NameKind::PlainText)
        return false;
    const int64_t modified = int64_t{draft.info.st_mtim.tv_sec} * 1000 + draft.info.st_mtim.tv_nsec / 1000000;
    try {
        SectionFacts before;
        bool known = readFactsBefore(draft, name.number, &before) && before.origin.run == origin.run;
        SectionOrigin best = origin;
        if (known && origin.rough && !before.origin.points.empty())
            best.points = before.origin.points;
        summary->begin(best, name.number, known ? &before : nullptr, modified);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// --- Removing

bool removeEntry(int parent, const char* name);

/** Whether a shell would take the name for one that begins so. */
bool beginsWith(const char* name, const char* beginning) {
    return std::strncmp(name, beginning, std::strlen(beginning)) == 0 &&
           (name[0] != '.' || beginning[0] == '.');
}

/** Removes what the folder holds, or only what begins so. */
bool removeEntries(Folder& folder, const char* beginning = nullptr) {
    Steps steps;
    while (const dirent* entry = folder.next())
        if (beginning == nullptr || beginsWith(entry->d_name, beginning))
            steps.add(removeEntry(folder.descriptor(), entry->d_name));
    steps.add(!folder.failed());
    return steps.done();
}

/** Removes an entry, and first all that it holds when it is a folder. */
bool removeEntry(int parent, const char* name) {
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT)
        return true;
    if (errno != EISDIR)
        return false;
    Folder folder(openEntry(parent, name, O_RDONLY | O_DIRECTORY));
    if (folder.valid() && !removeEntries(folder))
        return false;
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT;
}

// --- Copying

constexpr size_t kPiece = 16384; ///< bytes that are copied at a time; no link is as long

/** One copy of a tree. Its operations are done as well when what they are to copy has vanished. */
class TreeCopy {
  public:
    explicit TreeCopy(char* buffer) : mBuffer(buffer) {}

    /** From here on only what the copy has not got. */
    void copyMissing() { mMissingOnly = true; }

    /** Copies a folder under another name; its own copy is left out where it lies inside. */
    bool folder(int parent, const char* name, int into, const char* copyName) {
        Folder source(openEntry(parent, name, O_RDONLY | O_DIRECTORY));
        if (!source.valid())
            return mBegun && errno == ENOENT;
        FileDescriptor target = makeFolder(source, into, copyName);
        if (!target.valid())
            return false;
        Steps steps;
        while (const dirent* found = source.next())
            steps.add(entry(source.descriptor(), found->d_name, target.get()));
        steps.add(!source.failed());
        return steps.done();
    }

  private:
    FileDescriptor makeFolder(const Folder& source, int into, const char* name) {
        struct stat info, made;
        if (fstat(source.descriptor(), &info) != 0 ||
            (mkdirat(into, name, (info.st_mode & kFolderMode) | S_IRWXU) != 0 && errno != EEXIST))
            return FileDescriptor();
        FileDescriptor target = openEntry(into, name, O_RDONLY | O_DIRECTORY);
        if (!target.valid() || fstat(target.get(), &made) != 0)
            return FileDescriptor();
        if (same(info, made)) { // replacing its files would remove them
            errno = EINVAL;
            return FileDescriptor();
        }
        if (!mBegun)
            mCopy = made;
        mBegun = true;
        return target;
    }

    /** Copies what is neither folder, file nor link by leaving it out. */
    bool entry(int from, const char* name, int into) {
        struct stat info, there;
        if (fstatat(from, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
            return errno == ENOENT;
        if (S_ISDIR(info.st_mode))
            return same(info, mCopy) || folder(from, name, into, name);
        if (mMissingOnly && fstatat(into, name, &there, AT_SYMLINK_NOFOLLOW) == 0)
            return true;
        if (S_ISLNK(info.st_mode))
            return link(from, name, into);
        return !S_ISREG(info.st_mode) || file(from, name, into);
    }

    bool link(int from, const char* name, int into) {
        ssize_t length = readlinkat(from, name, mBuffer, kPiece - 1);
        if (length < 0)
            return errno == ENOENT;
        mBuffer[length] = '\0';
        return clear(into, name) && symlinkat(mBuffer, into, name) == 0;
    }

    bool file(int from, const char* name, int into) {
        FileDescriptor source = openEntry(from, name, O_RDONLY);
        struct stat info;
        if (!source.valid() || fstat(source.get(), &info) != 0)
            return errno == ENOENT;
        if (!clear(into, name))
            return false;
        FileDescriptor target =
            openEntry(into, name, O_WRONLY | O_CREAT | O_EXCL, info.st_mode & kSectionMode);
        if (!target.valid())
            return false;
        for (size_t count = kPiece; count == kPiece;)
            if (!readPiece(source.get(), mBuffer, kPiece, &count) || !writeAll(target.get(), mBuffer, count))
                return false;
        return true;
    }

    /** Makes room for a file or link. */
    static bool clear(int into, const char* name) { return unlinkat(into, name, 0) == 0 || errno == ENOENT; }

    char* mBuffer;
    bool mBegun = false;
    bool mMissingOnly = false;
    struct stat mCopy {}; ///< of the folder that it makes
};

} // namespace

bool ProcessFileWork::compress(const char* text, const SectionOrigin& origin) {
    return compressByDraft(text, [&](const Draft& draft) {
        SectionSummary summary;
        const bool begun = beginSummary(draft, origin, &summary);
        return mCompressor.write(draft.text, draft.info, draft.file, lastName(draft.textPath),
                                 begun ? &summary : nullptr);
    });
}

bool ProcessFileWork::removeFile(const char* path) {
    return reported(unlink(path) == 0 || errno == ENOENT, "remove", path);
}

bool ProcessFileWork::removeTree(const char* path) {
    return reported(removeEntry(AT_FDCWD, path), "remove", path);
}

bool ProcessFileWork::removeAll(const char* beginning) {
    Path folder;
    const char* name = lastName(beginning);
    auto length = static_cast<int>(name - beginning);
    // With nothing behind its slash the folder is the last place, which must be no link.
    bool last = *name == '\0';
    formatText(folder.text, last ? "%.*s" : "%.*s.", last ? length - 1 : length, beginning);
    Folder listing(folder.text, Links::Refused);
    bool done = listing.valid() ? removeEntries(listing, name) : errno == ENOENT;
    return reported(done, "remove all of", beginning);
}

bool ProcessFileWork::moveFolder(const char* from, const char* to) {
    return reported(canMove(from, to) && rename(from, to) == 0, "move", from);
}

bool ProcessFileWork::copyTree(const char* from, const char* into, CopyTotals* totals) {
    FileDescriptor target = openFile(into, O_RDONLY | O_DIRECTORY);
    Text buffer = target.valid() ? allocateText(kPiece) : nullptr;
    Steps steps;
    *totals = {};
    steps.add(buffer != nullptr);
    if (buffer != nullptr) {
        TreeCopy copy(buffer.get());
        steps.add(copy.folder(AT_FDCWD, from, target.get(), lastName(from)));
        copy.copyMissing(); // a text that has become an archive meanwhile
        steps.add(copy.folder(AT_FDCWD, from, target.get(), lastName(from)));
        steps.add(syncfs(target.get()) == 0);
        addUpCopied(AT_FDCWD, from, target.get(), lastName(from), totals);
    }
    return reported(steps.done(), "copy", from);
}

} // namespace vnlog
