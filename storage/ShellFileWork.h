#pragma once

#include "storage/FileWork.h"
#include "storage/Shell.h"

#include <cstddef>

namespace vnlog {

/** The command that copies a folder; its two "%s" are the folder and the target. */
constexpr char kCopyCommand[] = "cp -rf %s/ %s/;sync";

/** Longest target in characters with which that command is whole, for a folder of this length. */
constexpr size_t longestCopyTarget(size_t folderLength) {
    constexpr size_t kFixed = sizeof kCopyCommand - sizeof "%s%s";
    return folderLength + kFixed < kLongestCommand ? kLongestCommand - kFixed - folderLength : 0;
}

/** File work by the shell's programs: gzip, rm, mv, cp and sync. */
class ShellFileWork final : public FileWork {
  public:
    bool compress(const char* text) override;
    bool removeFile(const char* path) override;
    bool removeTree(const char* path) override;
    bool removeAll(const char* beginning) override;
    bool moveFolder(const char* from, const char* to) override;
    bool copyTree(const char* from, const char* into) override;
    bool copyFits(const char* from, const char* into) const override;
};

} // namespace vnlog
