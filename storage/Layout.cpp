#include "storage/Layout.h"

#include <cstring>

namespace vnlog {

namespace {

constexpr char kSection[] = "log_";
constexpr char kText[] = ".txt";
constexpr char kArchive[] = ".txt.gz";

/** The rest of `text` behind `beginning`, or null when it begins otherwise. */
const char* behind(const char* text, const char* beginning) {
    size_t length = std::strlen(beginning);
    return std::strncmp(text, beginning, length) == 0 ? text + length : nullptr;
}

/** Reads a number as we write them and steps over it. */
bool takeNumber(const char** text, uint32_t* number) {
    const char* digits = *text;
    uint32_t value = 0;
    const char* next = digits;
    for (; *next >= '0' && *next <= '9'; ++next) {
        value = value * 10 + static_cast<uint32_t>(*next - '0');
        if (value >= kMaxBookkeepingNumber)
            return false;
    }
    bool padded = digits[0] == '0' && next - digits > 1;
    if (next == digits || padded)
        return false;
    *text = next;
    *number = value;
    return true;
}

/** Whether `name` is `beginning`, a number, then `end`; stores the number. */
bool isNumbered(const char* name, const char* beginning, const char* end, uint32_t* number) {
    const char* rest = behind(name, beginning);
    return rest != nullptr && takeNumber(&rest, number) && std::strcmp(rest, end) == 0;
}

bool endsInText(const char* name) {
    const char* dot = std::strrchr(name, '.');
    return dot != nullptr && std::strcmp(dot, kText) == 0;
}

} // namespace

bool usableRoot(const char* root) {
    // With a "=" it could be taken for another key where it stands in log.cfg.
    return std::strlen(root) <= kMaxRootLength && shellSafe(root) && std::strchr(root, '=') == nullptr;
}

Path runFolder(const char* prefix, uint32_t run) {
    Path path;
    formatText(path.text, "%s_%u", prefix, run);
    return path;
}

Path strayFolder(const char* run) {
    Path path;
    formatText(path.text, "%s.stray", run);
    return path;
}

Path sectionText(const char* run, uint32_t section) {
    Path path;
    formatText(path.text, "%s/%s%u%s", run, kSection, section, kText);
    return path;
}

Path sectionArchive(const char* run, uint32_t section) {
    Path path;
    formatText(path.text, "%s/%s%u%s", run, kSection, section, kArchive);
    return path;
}

Path archiveOf(const char* text) {
    Path path;
    formatText(path.text, "%s.gz", text);
    return path;
}

Path olderArchive(const char* run) {
    return entryPath(run, "log.txt.gz");
}

Path bookkeepingDraft(const char* file) {
    Path path;
    formatText(path.text, "%s.new", file);
    return path;
}

ParsedName parseName(const char* name) {
    uint32_t number = 0;
    if (std::strcmp(name, "current") == 0)
        return {NameKind::Current};
    if (isNumbered(name, kRunBeginning, "", &number))
        return {NameKind::Run, number};
    if (isNumbered(name, kSection, kArchive, &number))
        return {NameKind::Archive, number};
    if (isNumbered(name, kSection, kText, &number))
        return {NameKind::PlainText, number};
    if (std::strcmp(name, "log.txt") == 0)
        return {NameKind::OlderText};
    if (std::strcmp(name, "log.txt.gz") == 0)
        return {NameKind::OlderArchive};
    return {endsInText(name) ? NameKind::OtherText : NameKind::Foreign};
}

} // namespace vnlog
