// SPDX-License-Identifier: Apache-2.0
#include "storage/Layout.h"

#include <cstring>

namespace vnlog {

namespace {

/** The rest of `text` behind `beginning`, or null when it begins otherwise. */
const char* behind(const char* text, const char* beginning) {
    size_t length = std::strlen(beginning);
    return std::strncmp(text, beginning, length) == 0 ? text + length : nullptr;
}

/** Reads a number as we write them and steps over it. */
bool takeNumber(const char** text, uint32_t* number) {
    const char* digits = *text;
    uint64_t value = 0; // ten digits do not fit 32 bits
    const char* next = digits;
    for (; *next >= '0' && *next <= '9'; ++next) {
        value = value * 10 + static_cast<uint64_t>(*next - '0');
        if (value >= kMaxBookkeepingNumber)
            return false;
    }
    bool padded = digits[0] == '0' && next - digits > 1;
    if (next == digits || padded)
        return false;
    *text = next;
    *number = static_cast<uint32_t>(value);
    return true;
}

/** Steps over `beginning`, "_" and a number. */
bool takeNumbered(const char** name, const char* beginning, uint32_t* number) {
    const char* rest = behind(*name, beginning);
    if (rest == nullptr || *rest != '_' || !takeNumber(&++rest, number))
        return false;
    *name = rest;
    return true;
}

/** What the end of a section's name, or of one of the older form, tells. */
NameKind byEnd(const char* end, NameKind text, NameKind archive) {
    const char* rest = behind(end, kTextEnd);
    if (rest != nullptr && *rest == '\0')
        return text;
    return rest != nullptr && std::strcmp(rest, kArchiveEnd) == 0 ? archive : NameKind::Foreign;
}

/** Takes the end off a text. False when it ends otherwise or is too long. */
bool takeEnd(const char* text, const char* end, Path* beginning) {
    size_t length = std::strlen(text), endLength = std::strlen(end);
    if (length < endLength || std::strcmp(text + length - endLength, end) != 0)
        return false;
    return formatText(beginning->text, "%.*s", static_cast<int>(length - endLength), text);
}

/** What a name that is no section's stands for. */
NameKind otherKind(const char* name) {
    Path beginning;
    if (takeEnd(name, kTextEnd, &beginning))
        return NameKind::OtherText;
    if (!takeEnd(name, kDraftEnd, &beginning))
        return NameKind::Foreign;
    NameKind whole = parseName(beginning.text).kind;
    return whole == NameKind::Archive || whole == NameKind::OlderArchive ? NameKind::Draft
                                                                         : NameKind::Foreign;
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

Path strayFolder(const char* run, uint32_t copy) {
    Path path;
    if (copy == 0)
        formatText(path.text, "%s.stray", run);
    else
        formatText(path.text, "%s.stray%u", run, copy);
    return path;
}

Path damagedFolder(const char* logs) {
    Path path;
    formatText(path.text, "%s.damaged", logs);
    return path;
}

Path sectionText(const char* run, uint32_t section) {
    Path path;
    formatText(path.text, "%s/%s_%u%s", run, kLogName, section, kTextEnd);
    return path;
}

Path sectionArchive(const char* run, uint32_t section) {
    return archiveOf(sectionText(run, section).text);
}

Path archiveOf(const char* text) {
    Path path;
    formatText(path.text, "%s%s", text, kArchiveEnd);
    return path;
}

Path olderText(const char* run) {
    Path path;
    formatText(path.text, "%s/%s%s", run, kLogName, kTextEnd);
    return path;
}

Path olderArchive(const char* run) {
    return archiveOf(olderText(run).text);
}

Path draftOf(const char* file) {
    Path path;
    formatText(path.text, "%s%s", file, kDraftEnd);
    return path;
}

ParsedName parseName(const char* name) {
    if (std::strcmp(name, kCurrentFolder) == 0)
        return {NameKind::Current};
    uint32_t number = 0;
    const char* rest = name;
    if (takeNumbered(&rest, kRunName, &number) && *rest == '\0')
        return {NameKind::Run, number};
    NameKind kind = NameKind::Foreign;
    if (takeNumbered(&(rest = name), kLogName, &number))
        kind = byEnd(rest, NameKind::PlainText, NameKind::Archive);
    else if (const char* end = behind(name, kLogName))
        kind = byEnd(end, NameKind::OlderText, NameKind::OlderArchive);
    if (kind == NameKind::Foreign)
        return {otherKind(name)};
    bool numbered = kind == NameKind::PlainText || kind == NameKind::Archive;
    return {kind, numbered ? number : 0};
}

} // namespace vnlog
