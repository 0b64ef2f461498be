// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/FileWork.h"

namespace vnlog {

/** File work by the shell's gzip, rm, mv, cp and sync. What takes longer than a minute has failed. */
class ShellFileWork final : public FileWork {
  public:
    bool compress(const char* text, const SectionOrigin& origin) override;
    bool removeFile(const char* path) override;
    bool removeTree(const char* path) override;
    bool removeAll(const char* beginning) override;
    bool moveFolder(const char* from, const char* to) override;
    bool copyTree(const char* from, const char* into, CopyTotals* totals) override;
};

} // namespace vnlog
