// SPDX-License-Identifier: Apache-2.0
#include "reader/SystemFacts.h"

#include "base/Clock.h"
#include "base/Handles.h"
#include "base/Text.h"
#include "platform/sysroot/SystemRoot.h"

#include <cerrno>
#include <cstring>
#include <sys/statvfs.h>
#include <sys/utsname.h>

namespace vnlog {

namespace {

constexpr size_t kMostOfAFile = 65536;

/** A line "<name>: <value>". */
std::string fact(const char* name, const std::string& value) {
    return std::string(name) + ": " + value + "\n";
}

std::string notTold() {
    return std::string("not known, ") + errorText(errno);
}

/** The text of a file of the system: of the one under the system root, or without that of the machine's. */
std::string contentOf(const char* path) {
    platform::SystemRoot systemRoot;
    bool known = systemRoot.read();
    FileDescriptor file =
        openFile((std::string(known ? systemRoot.path : "") + path).c_str(), O_RDONLY | O_NONBLOCK);
    if (!file.valid())
        file = openFile(path, O_RDONLY | O_NONBLOCK);
    std::string text(kMostOfAFile, '\0');
    size_t count = 0;
    if (!file.valid() || !readPiece(file.get(), text.data(), text.size(), &count))
        return notTold() + "\n";
    text.resize(count);
    return text.empty() || text.back() == '\n' ? text : text + "\n";
}

/** The text under a heading. */
std::string section(const char* path) {
    return std::string("\n--- ") + path + "\n" + contentOf(path);
}

std::string kernel() {
    utsname names{};
    if (uname(&names) != 0)
        return notTold();
    return std::string(names.sysname) + " " + names.nodename + " " + names.release + " " + names.version +
           " " + names.machine;
}

std::string spaceOf(const std::string& store) {
    struct statvfs info {};
    if (statvfs(store.c_str(), &info) != 0)
        return notTold();
    auto bytes = [&](uint64_t blocks) { return std::to_string(blocks * info.f_frsize); };
    return store + ": " + bytes(info.f_blocks) + " bytes, " + bytes(info.f_bfree) + " free, " +
           bytes(info.f_bavail) + " available; " + std::to_string(info.f_files) + " inodes, " +
           std::to_string(info.f_ffree) + " free" + ((info.f_flag & ST_RDONLY) != 0 ? "; read-only" : "");
}

} // namespace

std::string systemFacts(const std::string& store) {
    std::string boot = contentOf("/proc/sys/kernel/random/boot_id");
    boot.pop_back();
    return fact("date", localDate(static_cast<time_t>(secondsOf(CLOCK_REALTIME)))) +
           fact("vnlog", VNLOG_VERSION ", " + std::to_string(sizeof(void*) * 8) + " bits") +
           fact("kernel", kernel()) + fact("uptime", std::to_string(secondsOf(CLOCK_BOOTTIME)) + " s") +
           fact("boot", boot) + fact("file system", spaceOf(store)) + section("/etc/os-release") +
           section("/proc/meminfo") + section("/proc/mounts");
}

} // namespace vnlog
