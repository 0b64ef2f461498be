#include "storage/StorageFormat.h"

#include "config/CfgText.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

namespace vnlog {

namespace {

/** Matches `name` and stores the number that the pattern captures. */
bool matchNumber(const regex_t& pattern, const char* name, uint32_t* number) {
    regmatch_t groups[2];
    if (regexec(&pattern, name, 2, groups, 0) != 0)
        return false;
    const char* digits = name + groups[1].rm_so;
    int value = parseNumber(digits);
    bool built = digits[0] != '0' || groups[1].rm_eo - groups[1].rm_so == 1; // no name of ours is padded
    if (!built || value >= kMaxBookkeepingNumber)
        return false;
    *number = static_cast<uint32_t>(value);
    return true;
}

} // namespace

bool formatText(char* out, size_t size, const char* format, va_list args) {
    std::memset(out, 0, size);
    int length = std::vsnprintf(out, size, format, args);
    return length >= 0 && static_cast<size_t>(length) < size;
}

Path sectionText(const char* folder, uint32_t number) {
    Path path;
    formatPath(path.text, "%s/log_%u.txt", folder, number);
    return path;
}

Path sectionArchive(const char* folder, uint32_t number) {
    Path path;
    formatPath(path.text, "%s/log_%u.txt.gz", folder, number);
    return path;
}

Path lastFolder(const char* prefix, uint32_t folder) {
    Path path;
    formatPath(path.text, "%s_%u", prefix, folder);
    return path;
}

Path lastArchive(const char* prefix, uint32_t folder, uint32_t section) {
    return sectionArchive(lastFolder(prefix, folder).text, section);
}

NamePatterns::NamePatterns()
    : mLastValid(regcomp(&mLast, "^last_([0-9]+)$", REG_EXTENDED) == 0),
      mSectionValid(regcomp(&mSection, "^log_([0-9]+)\\.txt\\.gz$", REG_EXTENDED) == 0),
      mTextValid(regcomp(&mText, "^log_([0-9]+)\\.txt$", REG_EXTENDED) == 0) {}

NamePatterns::~NamePatterns() {
    if (mLastValid)
        regfree(&mLast);
    if (mSectionValid)
        regfree(&mSection);
    if (mTextValid)
        regfree(&mText);
}

bool NamePatterns::isLastFolder(const char* name, uint32_t* number) const {
    return matchNumber(mLast, name, number);
}

bool NamePatterns::isSection(const char* name, uint32_t* number) const {
    return matchNumber(mSection, name, number);
}

bool NamePatterns::isSectionText(const char* name) const {
    uint32_t number;
    return matchNumber(mText, name, &number);
}

EntryType entryType(const char* folder, const char* name, unsigned char type) {
    if (type == DT_UNKNOWN) {
        Path path;
        struct stat info;
        if (!formatPath(path.text, "%s/%s", folder, name) || lstat(path.text, &info) != 0)
            return EntryType::Other;
        type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_LNK;
    }
    return type == DT_DIR ? EntryType::Folder : type == DT_REG ? EntryType::File : EntryType::Other;
}

bool shellSafe(const char* path) {
    if (path[0] == '\0' || std::strchr("-~#", path[0]) != nullptr)
        return false;
    for (const char* c = path; *c != '\0'; ++c) {
        bool control = static_cast<unsigned char>(*c) <= ' ' || *c == '\x7f';
        if (control || std::strchr("|&;<>()$`\\\"'*?[]{}!^", *c) != nullptr)
            return false;
    }
    return true;
}

bool usableRoot(const char* root) {
    // With a "=" it could be taken for another key where it stands in log.cfg.
    return std::strlen(root) <= kMaxRootLength && shellSafe(root) && std::strchr(root, '=') == nullptr;
}

} // namespace vnlog
