// SPDX-License-Identifier: Apache-2.0
#include "reader/StoreFolder.h"

#include "storage/Layout.h"
#include "storage/Listing.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vnlog {

namespace {

constexpr int kListingTries = 3;

FileDescriptor openFolder(int folder, const char* name, int flags) {
    int fd;
    do
        fd = openat(folder, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    while (fd < 0 && errno == EINTR);
    return FileDescriptor(fd);
}

/** Whether a listing of the log folder holds a run. */
bool holdsRuns(const std::string& folder) {
    Listing listing(openFolder(AT_FDCWD, folder.c_str(), 0));
    StoredEntry entry;
    bool found = false;
    while (!found && listing.valid() && listing.next(&entry))
        found = entry.isRun() || (entry.type == EntryType::Folder && entry.kind == NameKind::Current);
    return found;
}

/** The path without the slashes at its end. */
std::string trimmed(const char* path) {
    std::string text = path;
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return path == "." || path == ".." ? path + "/.." : ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool isLogFolder(const std::string& path) {
    size_t slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return holdsRuns(path) || (name == kLogFolder && openFolder(AT_FDCWD, path.c_str(), 0).valid());
}

void addSection(const StoredEntry& entry, std::vector<StoredSection>* found) {
    const bool older = entry.kind == NameKind::OlderArchive || entry.kind == NameKind::OlderText;
    const bool archive = entry.kind == NameKind::Archive || entry.kind == NameKind::OlderArchive;
    const bool text = entry.kind == NameKind::PlainText || entry.kind == NameKind::OlderText;
    if (entry.type != EntryType::File || (!archive && !text) || (entry.number == 0 && !older))
        return;
    found->push_back({entry.number, archive, text});
}

/** Sorts what was found, one file at a time and maybe more than once, by the number of the section. */
void joinForms(std::vector<StoredSection>* found) {
    std::sort(found->begin(), found->end(),
              [](const StoredSection& a, const StoredSection& b) { return a.number < b.number; });
    size_t last = 0;
    for (size_t next = 1; next < found->size(); ++next) {
        StoredSection &known = (*found)[last], &more = (*found)[next];
        if (more.number != known.number) {
            (*found)[++last] = more;
            continue;
        }
        known.archive = known.archive || more.archive;
        known.text = known.text || more.text;
    }
    found->resize(found->empty() ? 0 : last + 1);
}

/** Tells whether names have come to a folder or gone from it since the object was made. */
class FolderStamp {
  public:
    explicit FolderStamp(int folder) : mFolder(folder) { (void)fstat(folder, &mBefore); }
    bool changed() const {
        struct stat now {};
        return fstat(mFolder, &now) == 0 &&
               std::memcmp(&now.st_mtim, &mBefore.st_mtim, sizeof now.st_mtim) != 0;
    }

  private:
    int mFolder;
    struct stat mBefore {};
};

} // namespace

bool StoreFolder::open(const char* path) {
    std::string given = trimmed(path);
    std::string below = (given == "/" ? "" : given) + "/" + kLogFolder;
    if (openFolder(AT_FDCWD, below.c_str(), 0).valid()) {
        mRoot = given;
        mLogs = below;
        return true;
    }
    if (!openFolder(AT_FDCWD, given.c_str(), 0).valid())
        return false;
    errno = ENOENT;
    if (!isLogFolder(given))
        return false;
    mLogs = given;
    mRoot = parentOf(given);
    return true;
}

bool StoreFolder::listRuns(std::vector<uint32_t>* runs, bool* current) const {
    runs->clear();
    *current = false;
    Listing listing(openFolder(AT_FDCWD, mLogs.c_str(), 0));
    if (!listing.valid())
        return false;
    StoredEntry entry;
    while (listing.next(&entry)) {
        if (entry.isRun() && entry.number != kCurrentRun)
            runs->push_back(entry.number);
        *current = *current || (entry.type == EntryType::Folder && entry.kind == NameKind::Current);
    }
    std::sort(runs->begin(), runs->end());
    return !listing.failed();
}

std::string StoreFolder::runPath(uint32_t run) const {
    return mLogs + "/" + (run == kCurrentRun ? kCurrentFolder : runFolder(kRunName, run).text);
}

bool StoreFolder::listSections(uint32_t run, std::vector<StoredSection>* sections) const {
    FileDescriptor folder = openRun(run);
    sections->clear();
    return folder.valid() && vnlog::listSections(folder.get(), sections);
}

FileDescriptor StoreFolder::openRun(uint32_t run) const {
    return openFolder(AT_FDCWD, runPath(run).c_str(), O_NOFOLLOW);
}

bool listSections(int run, std::vector<StoredSection>* sections) {
    sections->clear();
    // A section whose archive takes the place of its text while the folder is listed may be in neither form.
    for (int left = kListingTries; left > 0; --left) {
        FolderStamp stamp(run);
        Listing listing(openFolder(run, ".", 0));
        StoredEntry entry;
        if (!listing.valid())
            return false;
        while (listing.next(&entry))
            addSection(entry, sections);
        if (listing.failed())
            return false;
        if (!stamp.changed())
            break;
    }
    joinForms(sections);
    return true;
}

FileDescriptor openStored(int folder, const char* name) {
    int fd;
    do
        fd = openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    FileDescriptor file(fd);
    struct stat info {};
    if (!file.valid() || fstat(fd, &info) != 0)
        return FileDescriptor();
    if (S_ISREG(info.st_mode))
        return file;
    file = FileDescriptor();
    errno = EPERM;
    return file;
}

Path textName(uint32_t section) {
    return section == 0 ? olderText(".") : sectionText(".", section);
}

Path archiveName(uint32_t section) {
    return archiveOf(textName(section).text);
}

Path shownName(uint32_t run, const Path& name) {
    const char* file = std::strrchr(name.text, '/');
    Path folder = runFolder(kRunName, run);
    return entryPath(run == kCurrentRun ? kCurrentFolder : folder.text,
                     file != nullptr ? file + 1 : name.text);
}

} // namespace vnlog
