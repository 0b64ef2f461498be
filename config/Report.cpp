#include "config/Report.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

void reportStep(const char* report) {
    logError("%s", report);
    logErrno();
}

/** The whole text of the file; null, reported, when it cannot be had. */
Text readWhole(const char* path) {
    struct stat info;
    if (stat(path, &info) != 0) {
        reportStep("showLogCfg fail to stat!\n");
        return nullptr;
    }
    FileDescriptor file = openFile(path, O_RDONLY);
    if (!file.valid()) {
        reportStep("showLogCfg fail to open!\n");
        return nullptr;
    }
    auto size = static_cast<size_t>(info.st_size);
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
