// SPDX-License-Identifier: Apache-2.0
#include "config/Check.h"

#include "config/Findings.h"
#include "config/Settings.h"

#include <cstdlib>
#include <map>
#include <string>
#include <utility>

namespace vnlog {

namespace {

/** Keeps them to be printed in the order of the lines, file by file. */
class PrintedFindings final : public Findings {
  public:
    void print(FILE* out) const {
        for (const auto& [place, text] : mFindings)
            std::fputs(text.c_str(), out);
    }

  private:
    void show(const char* path, unsigned line, const char* text) override {
        mFile += path != mPath ? 1 : 0;
        mPath = path;
        std::string place = line > 0 ? ":" + std::to_string(line) : "";
        mFindings.emplace(std::pair(mFile, line), path + place + ": " + text + "\n");
    }

    std::multimap<std::pair<unsigned, unsigned>, std::string> mFindings; ///< by file and line
    const char* mPath = nullptr;
    unsigned mFile = 0;
};

/** State that nothing else works on. */
struct ScratchState : ServiceState {
    ~ScratchState() VNLOG_UNCHECKED { std::free(mSavePath); }
};

} // namespace

Checked checkConfiguration(const char* path, FILE* out) {
    ScratchState state;
    Mutex<StorageLock> storageLock;
    Filter filter(state);
    Settings settings(state, storageLock, filter);
    PrintedFindings findings;
    Mutex<CommandLock> commands;
    LockGuard<CommandLock> lock(commands);
    Settings::Examined found = settings.examine(path, Configuration::Foreign, findings);
    if (!found.there)
        findings.add(path, 0, "there is no such file");
    findings.print(out);
    std::fprintf(out, "%s: a start uses", path);
    settings.printRead(out);
    std::fputs("\n", out);
    if (!found.usable)
        return Checked::Unusable;
    return findings.count() == 0 ? Checked::Whole : Checked::Partly;
}

} // namespace vnlog
