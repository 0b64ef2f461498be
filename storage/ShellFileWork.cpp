#include "storage/ShellFileWork.h"

#include "base/Files.h"
#include "storage/Layout.h"

#include <cstring>

namespace vnlog {

/*
 * What counts is that the archive has taken the text's place: gzip also reports mere warnings, and in a
 * process that ignores SIGCHLD no result is to be had at all.
 */
bool ShellFileWork::compress(const char* text) {
    return runCommand("gzip %s", text) || (!pathExists(text) && pathExists(archiveOf(text).text));
}

bool ShellFileWork::removeFile(const char* path) {
    return runCommand("rm -f %s", path);
}

bool ShellFileWork::removeTree(const char* path) {
    return runCommand("rm -rf %s", path);
}

bool ShellFileWork::removeAll(const char* beginning) {
    return runCommand("rm -rf %s*", beginning);
}

bool ShellFileWork::moveFolder(const char* from, const char* to) {
    return runCommand("mv -f %s/ %s/", from, to);
}

bool ShellFileWork::copyTree(const char* from, const char* into) {
    return runCommand(kCopyCommand, from, into);
}

bool ShellFileWork::copyFits(const char* from, const char* into) const {
    return std::strlen(into) <= longestCopyTarget(std::strlen(from));
}

} // namespace vnlog
