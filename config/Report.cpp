// SPDX-License-Identifier: Apache-2.0
#include "config/Report.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "config/ConfigFile.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

void reportStep(const char* report) {
    logError("%s", report);
    logErrno();
}

} // namespace

Text readConfiguration(const char* path) {
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

void showConfiguration(const char* path, Console& console) {
    CancelGuard guard;
    Text text = readConfiguration(path);
    if (text == nullptr)
        return;
    constexpr char kTitle[] = "\n\ncurrent log cfg:\n";
    size_t size = sizeof kTitle + std::strlen(text.get()) + 1;
    Text report = allocateText(size); // in one piece, so that two reports never mix
    if (report == nullptr) {
        reportStep("showLogCfg fail to malloc cfg buf!\n");
        return;
    }
    int length = std::snprintf(report.get(), size, "%s%s\n", kTitle, text.get());
    Patience patience;
    (void)console.show(STDOUT_FILENO, report.get(), static_cast<size_t>(length), &patience); // counted there
    console.release();
}

} // namespace vnlog
