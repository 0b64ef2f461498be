#include "storage/Listing.h"

#include "base/Files.h"

#include <algorithm>
#include <dirent.h>
#include <sys/stat.h>

namespace vnlog {

Listing::Listing(const char* folder) : mPath(folder), mFolder(folder) {}

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

bool countRuns(const char* logs, RunTotals* totals) {
    *totals = RunTotals();
    Listing listing(logs);
    if (!listing.valid())
        return false;
    StoredEntry entry;
    while (listing.next(&entry)) {
        if (entry.kind != NameKind::Run || entry.type != EntryType::Folder)
            continue;
        Path path;
        uint32_t size = 0;
        listing.path(entry, &path);
        (void)folderSize(path.text, &size); // reported there; what cannot be counted adds nothing
        ++totals->count;
        totals->bytes += size;
        totals->oldest = std::min(totals->oldest, entry.number);
        totals->newest = std::max(totals->newest, entry.number);
    }
    return !listing.failed();
}

bool oldestSection(const char* run, uint32_t* number) {
    *number = kNoNumber;
    Listing listing(run);
    if (!listing.valid())
        return false;
    StoredEntry entry;
    while (listing.next(&entry)) {
        if (entry.kind == NameKind::Archive && entry.type == EntryType::File)
            *number = std::min(*number, entry.number);
    }
    return !listing.failed();
}

bool lookIntoRun(const char* run, RunContent* content) {
    *content = RunContent();
    Listing listing(run);
    if (!listing.valid())
        return false;
    StoredEntry entry;
    while (listing.next(&entry)) {
        if (entry.type != EntryType::File)
            continue;
        content->archive = content->archive || entry.kind == NameKind::Archive;
        content->text =
            content->text || entry.kind == NameKind::PlainText || entry.kind == NameKind::OlderText;
    }
    return !listing.failed();
}

} // namespace vnlog
