// SPDX-License-Identifier: Apache-2.0
#include "reader/BundleNames.h"

#include "base/Handles.h"
#include "config/ConfigFile.h"

#include <algorithm>
#include <sha256.h>
#include <vector>

namespace vnlog {

namespace {

constexpr size_t kPiece = 65536;

/** A text that a bundle has beside the store: <letters and "_">.txt. */
bool isTextName(std::string_view name) {
    size_t end = name.size() - std::min(name.size(), sizeof kTextEnd - 1);
    return end > 0 && name.substr(end) == kTextEnd &&
           std::all_of(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(end),
                       [](char c) { return (c >= 'a' && c <= 'z') || c == '_'; });
}

BundleEntry besideLogs(std::string_view name) {
    bool known = name == kBookkeepingFile || name == kConfigurationName + 1 || name == kSumsName;
    if (name == kLogFolder)
        return BundleEntry::Folder;
    return known || isTextName(name) ? BundleEntry::File : BundleEntry::None;
}

BundleEntry inLogs(std::string_view name) {
    NameKind kind = parseName(std::string(name).c_str()).kind;
    if (kind == NameKind::Current || kind == NameKind::Run)
        return BundleEntry::Folder;
    return name == kRunListFile ? BundleEntry::File : BundleEntry::None;
}

} // namespace

BundleEntry bundleEntry(std::string_view name) {
    if (name.find('\0') != std::string_view::npos)
        return BundleEntry::None;
    size_t slash = name.find('/');
    if (slash == std::string_view::npos)
        return besideLogs(name);
    if (name.substr(0, slash) != kLogFolder)
        return BundleEntry::None;
    name.remove_prefix(slash + 1);
    slash = name.find('/');
    if (slash == std::string_view::npos)
        return inLogs(name);
    bool inRun = inLogs(name.substr(0, slash)) == BundleEntry::Folder;
    name.remove_prefix(slash + 1);
    return inRun && bundledFromRun(name) ? BundleEntry::File : BundleEntry::None;
}

bool bundledFromRun(std::string_view name) {
    bool plain = name.size() < sizeof Path::text &&
                 std::all_of(name.begin(), name.end(),
                             [](unsigned char c) { return c >= ' ' && c != 0x7f && c != '/' && c != '\\'; });
    NameKind kind = parseName(std::string(name).c_str()).kind;
    return plain && kind != NameKind::Foreign && kind != NameKind::Current && kind != NameKind::Run;
}

bool sumOf(int fd, std::string* sum) {
    std::vector<char> buffer(kPiece);
    SHA2_CTX state;
    SHA256Init(&state);
    for (size_t count = kPiece; count == kPiece;) {
        if (!readPiece(fd, buffer.data(), kPiece, &count))
            return false;
        SHA256Update(&state, reinterpret_cast<const uint8_t*>(buffer.data()), count);
    }
    char digits[SHA256_DIGEST_STRING_LENGTH];
    *sum = SHA256End(&state, digits);
    return true;
}

} // namespace vnlog
