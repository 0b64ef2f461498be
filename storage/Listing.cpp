// SPDX-License-Identifier: Apache-2.0
#include "storage/Listing.h"

#include "base/Files.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace vnlog {

namespace {

void addEntry(const StoredEntry& entry, const struct stat& info, RunContent* content) {
    auto size = static_cast<uint32_t>(info.st_size);
    content->bytes += size;
    content->onMedium += bytesOnMedium(info);
    if (entry.type != EntryType::File)
        return;
    bool older = entry.kind == NameKind::OlderText || entry.kind == NameKind::OlderArchive;
    content->older = content->older || older;
    content->text = content->text || entry.kind == NameKind::PlainText || entry.kind == NameKind::OlderText;
    content->draft = content->draft || entry.kind == NameKind::Draft;
    if (!entry.isSection())
        return;
    content->oldestSection = std::min(content->oldestSection, entry.number);
    if (entry.kind != NameKind::Archive)
        return;
    ++content->archives;
    content->archiveBytes += size;
    content->oldestArchive = std::min(content->oldestArchive, entry.number);
}

/** A number that differs when another folder is there, or a name in it has changed. */
uint64_t stampOf(const char* folder) {
    constexpr uint64_t kPrime = 1099511628211U; // of the FNV-1a hash
    struct stat info;
    if (lstat(folder, &info) != 0)
        return 0;
    uint64_t hash = (info.st_ino * kPrime) ^ static_cast<uint64_t>(info.st_mtim.tv_sec);
    return (hash * kPrime) ^ static_cast<uint64_t>(info.st_mtim.tv_nsec);
}

/** The type that the listing tells, or lstat where that says nothing. */
EntryType typeOf(const Folder& folder, const dirent& entry) {
    struct stat info;
    unsigned char type = entry.d_type;
    if (type == DT_UNKNOWN && folder.examine(entry.d_name, Links::Refused, &info))
        type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_LNK;
    return type == DT_DIR ? EntryType::Folder : type == DT_REG ? EntryType::File : EntryType::Other;
}

} // namespace

Listing::Listing(const char* folder) : mPath(folder), mFolder(folder, Links::Refused) {}

Listing::Listing(FileDescriptor folder) : mPath("."), mFolder(std::move(folder)) {}

bool Listing::next(StoredEntry* entry) {
    const dirent* found = mFolder.next();
    if (found == nullptr)
        return false;
    ParsedName parsed = parseName(found->d_name);
    *entry = {found->d_name, typeOf(mFolder, *found), parsed.kind, parsed.number};
    return true;
}

bool Listing::path(const StoredEntry& entry, Path* path) const {
    return formatText(path->text, "%s/%s", mPath, entry.name);
}

bool Listing::examine(const StoredEntry& entry, struct stat* info) const {
    return mFolder.examine(entry.name, Links::Refused, info);
}

bool lookIntoRun(const char* run, RunContent* content, Look look) {
    *content = RunContent();
    Listing listing(run);
    struct stat info {};
    if (!listing.valid())
        return false;
    if (look == Look::Sizes && lstat(run, &info) == 0)
        content->onMedium += bytesOnMedium(info);
    StoredEntry entry;
    while (listing.next(&entry)) {
        if (look == Look::Names || listing.examine(entry, &info))
            addEntry(entry, info, content);
    }
    return !listing.failed();
}

bool countRuns(const char* logs, RunTotals* totals) {
    *totals = RunTotals();
    Listing listing(logs);
    if (!listing.valid())
        return false;
    StoredEntry entry;
    while (listing.next(&entry)) {
        if (!entry.isRun())
            continue;
        Path path;
        RunContent content;
        listing.path(entry, &path);
        if (!lookIntoRun(path.text, &content, Look::Sizes) && mayPass(errno))
            return false;
        ++totals->count;
        totals->newest = std::max(totals->newest, entry.number);
        if (!content.holdsSection())
            continue; // nothing of it is ours to delete
        totals->bytes += content.bytes;
        totals->onMedium += content.onMedium;
        if (entry.number < totals->oldestHolding) {
            totals->oldestHolding = entry.number;
            totals->oldestSection = content.oldestSection;
        }
    }
    return !listing.failed();
}

bool nextRun(const char* logs, uint32_t least, uint32_t* number) {
    Listing listing(logs);
    StoredEntry entry;
    *number = kNoNumber;
    while (listing.valid() && listing.next(&entry)) {
        if (entry.isRun() && entry.number >= least)
            *number = std::min(*number, entry.number);
    }
    return *number != kNoNumber && !listing.failed();
}

void StoreWatch::note(const char* logs) {
    char events[4096];
    while (told() && read(mEvents.get(), events, sizeof events) > 0) {
    }
    uint64_t before = std::exchange(mLogs, stampOf(logs));
    mCurrent = stampOf(entryPath(logs, kCurrentFolder).text);
    if (!mEvents.valid() || mLogs != before)
        watchRuns(logs);
}

bool StoreWatch::changed(const char* logs) const {
    return !mEvents.valid() || told() || mLogs != stampOf(logs) ||
           mCurrent != stampOf(entryPath(logs, kCurrentFolder).text);
}

void StoreWatch::watchRuns(const char* logs) {
    constexpr uint32_t kChanges = IN_CREATE | IN_DELETE | IN_MOVE | IN_ONLYDIR | IN_DONT_FOLLOW;
    mEvents = FileDescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    Listing listing(logs);
    bool all = mEvents.valid() && listing.valid();
    StoredEntry entry;
    Path run;
    while (all && listing.next(&entry))
        all = !entry.isRun() ||
              (listing.path(entry, &run) && inotify_add_watch(mEvents.get(), run.text, kChanges) >= 0);
    if (!all || listing.failed())
        forget();
}

/** Whether the kernel has something to tell. */
bool StoreWatch::told() const {
    int bytes = 0;
    return mEvents.valid() && (ioctl(mEvents.get(), FIONREAD, &bytes) != 0 || bytes > 0);
}

} // namespace vnlog
