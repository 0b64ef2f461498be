// SPDX-License-Identifier: Apache-2.0
#include "service/LastWords.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "service/Parts.h"
#include "sources/KernelSplitter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr char kPstore[] = "/sys/fs/pstore";
constexpr char kCompressedEnd[] = ".enc.z"; // what the kernel could not unpack itself
constexpr unsigned kPatienceMs = 30000;
constexpr unsigned kSettleMs = 1000; ///< of somebody who wants something else

bool beginsWith(const std::string& name, const char* beginning) {
    return name.compare(0, std::strlen(beginning), beginning) == 0;
}

bool endsWith(const std::string& name, const char* end) {
    size_t length = std::strlen(end);
    return name.size() >= length && name.compare(name.size() - length, length, end) == 0;
}

} // namespace

void LastWords::store() {
    if (!mService.mKLogPstore || !mService.mKLogToFile)
        return;
    CancelGuard guard;
    Path folder;
    formatText(folder.text, "%s%s", mParts.systemRoot.path, kPstore);
    for (const File& file : find(folder.text)) {
        if (storeFile(folder.text, file.name))
            continue;
        logError("the kernel's last words in %s/%s cannot be stored now and stay there\n", kPstore,
                 file.name.c_str());
        return;
    }
}

/** The files, in the order in which they were written; those of the same time by their numbers. */
std::vector<LastWords::File> LastWords::find(const char* folder) const {
    std::vector<File> files;
    Folder listing(folder);
    while (const dirent* entry = listing.valid() ? listing.next() : nullptr) {
        std::string name = entry->d_name;
        struct stat info;
        if ((!beginsWith(name, "dmesg-") && !beginsWith(name, "console-")) ||
            !listing.examine(entry->d_name, Links::Refused, &info) || !S_ISREG(info.st_mode))
            continue;
        if (endsWith(name, kCompressedEnd))
            logError("%s/%s is compressed and is left alone\n", kPstore, name.c_str());
        else
            files.push_back({name, info.st_mtim});
    }
    std::sort(files.begin(), files.end(), [](const File& a, const File& b) {
        auto time = [](const File& file) { return std::tie(file.written.tv_sec, file.written.tv_nsec); };
        return time(a) != time(b) ? time(a) < time(b) : strverscmp(a.name.c_str(), b.name.c_str()) < 0;
    });
    return files;
}

/** Stores one file and removes it. False when it is not on the medium. */
bool LastWords::storeFile(const char* folder, const std::string& name) {
    Path path = entryPath(folder, name.c_str());
    FileDescriptor file = openOwnFile(path.text, O_RDONLY);
    if (!file.valid()) {
        logError("%s cannot be opened\n", path.text);
        logErrno();
        return false;
    }
    char title[320];
    formatText(title, "--------- the last words of the kernel, kept in %s/%s\n", kPstore, name.c_str());
    if (!put(title, std::strlen(title)) || !storeText(file.get()))
        return false;
    if (mParts.ring.awaitFlush(mParts.ring.requestFlush(true), kPatienceMs) != FlushOutcome::Done) {
        mPending = path.text;
        return false;
    }
    remove(path.text);
    return true;
}

void LastWords::settle() {
    if (mPending.empty() || mParts.ring.used() > 0 || mParts.ring.failingSince() != 0)
        return;
    if (mParts.ring.awaitFlush(mParts.ring.requestFlush(true), kSettleMs) != FlushOutcome::Done)
        return;
    Losses& losses = mParts.ring.losses();
    if (losses.total(Loss::StorageFull) + losses.total(Loss::Dropped) == 0) // with which a part may have gone
        remove(mPending.c_str());
    mPending.clear();
}

void LastWords::remove(const char* path) {
    if (unlink(path) == 0)
        return;
    logError("%s is stored, but cannot be removed: the next start stores it again\n", path);
    logErrno();
}

/** Stores the lines of a text, whatever their level. */
bool LastWords::storeText(int fd) {
    Text buffer = allocateText(kKernelTextSize);
    if (buffer == nullptr)
        return false;
    char* bytes = buffer.release();
    KernelSplitter splitter(&bytes, kKernelTextSize, kLongestKernelLine);
    KernelLine line;
    size_t length = 1;
    bool stored = true;
    while (stored && length > 0) {
        stored = readPiece(fd, splitter.chunk(), splitter.room(), &length);
        if (!stored) {
            logError("the text cannot be read\n");
            logErrno();
            break;
        }
        splitter.add(static_cast<uint32_t>(length));
        if (length == 0)
            splitter.end();
        while (stored && splitter.next(&line))
            stored = line.length <= 1 || put(line.text, line.length);
    }
    buffer.reset(bytes);
    return stored;
}

bool LastWords::put(const char* text, size_t length) {
    return mParts.ring.put(text, static_cast<uint32_t>(length)).status == PutStatus::Stored;
}

} // namespace vnlog
