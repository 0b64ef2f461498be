#include "config/Report.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "config/ConfigFile.h"

#include <cstdio>
#include <unistd.h>

namespace vnlog {

namespace {

void reportStep(const char* report) {
    logError("%s", report);
    logErrno();
}

/** The whole text of the file; null, reported, when it cannot be had. */
Text readWhole(const char* path) {
    if (!pathExists(path)) {
        reportStep("showLogCfg fail to stat!\n");
        return nullptr;
    }
    size_t size = 0;
    FileDescriptor file = openConfiguration(path, Configuration::Own, &size);
    if (!file.valid()) {
        reportStep("showLogCfg fail to open!\n");
        return nullptr;
    }
    Text text = allocateText(size + 1);
    if (text == nullptr) {
        reportStep("showLogCfg fail to malloc cfg buf!\n");
        return nullptr;
    }
    ssize_t length = read(file.get(), text.get(), size);
    if (length >= 0 && static_cast<size_t>(length) == size)
        return text;
    reportStep("fail to read log file!\n");
    return nullptr;
}

} // namespace

void showConfiguration(const char* path) {
    CancelGuard guard;
    Text text = readWhole(path);
    if (text == nullptr)
        return;
    flockfile(stdout); // two reports never mix
    puts("\n\ncurrent log cfg:");
    puts(text.get());
    fflush(stdout); // the Android reader writes to the same descriptor without stdio
    funlockfile(stdout);
}

} // namespace vnlog
