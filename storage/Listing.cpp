#include "storage/Listing.h"

#include "base/Files.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>

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

/** Whether what a listing failed with says nothing about the folder, so that its content is not known. */
bool mayPass(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

/** One step of the FNV-1a hash. */
uint64_t mixed(uint64_t hash, uint64_t value) {
    constexpr uint64_t kPrime = 1099511628211U;
    return (hash ^ value) * kPrime;
}

} // namespace

Listing::Listing(const char* folder) : mPath(folder), mFolder(folder, Links::Refused) {}

bool Listing::next(StoredEntry* entry) {
    const dirent* found = mFolder.next();
    if (found == nullptr)
        return false;
    ParsedName parsed = parseName(found->d_name);
    *entry = {found->d_name, entryType(mPath, found->d_name, found->d_type), parsed.kind, parsed.number};
    return true;
}

bool Listing::path(const StoredEntry& entry, Path* path) const {
    return formatText(path->text, "%s/%s", mPath, entry.name);
}

bool Listing::examine(const StoredEntry& entry, struct stat* info) const {
    return mFolder.examine(entry.name, Links::Refused, info);
}

EntryType entryType(const char* folder, const char* name, unsigned char type) {
    if (type == DT_UNKNOWN) {
        Path path;
        struct stat info;
        if (!formatText(path.text, "%s/%s", folder, name) || lstat(path.text, &info) != 0)
            return EntryType::Other;
        type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_LNK;
    }
    return type == DT_DIR ? EntryType::Folder : type == DT_REG ? EntryType::File : EntryType::Other;
}

bool lookIntoRun(const char* run, RunContent* content) {
    *content = RunContent();
    Listing listing(run);
    struct stat info;
    if (!listing.valid())
        return false;
    if (lstat(run, &info) == 0)
        content->onMedium += bytesOnMedium(info);
    StoredEntry entry;
    while (listing.next(&entry)) {
        if (listing.examine(entry, &info))
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
        if (!lookIntoRun(path.text, &content) && mayPass(errno))
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

uint64_t storeStamp(const char* logs) {
    Listing listing(logs);
    uint64_t sum = 1;
    StoredEntry entry;
    while (listing.valid() && listing.next(&entry)) {
        struct stat info;
        if (!(entry.isRun() || entry.kind == NameKind::Current) || !listing.examine(entry, &info))
            continue;
        uint64_t one = mixed(entry.isRun() ? entry.number : kNoNumber, info.st_ino);
        one = mixed(one, static_cast<uint64_t>(info.st_mtim.tv_sec));
        sum +=
            mixed(one, static_cast<uint64_t>(info.st_mtim.tv_nsec)); // the order of the entries says nothing
    }
    return listing.valid() && !listing.failed() ? sum : 0;
}

} // namespace vnlog
