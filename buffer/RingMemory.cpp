// SPDX-License-Identifier: Apache-2.0
#include "buffer/RingMemory.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/Text.h"

#include <cerrno>
#include <cstring>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr char kFileName[] = "ring";
constexpr char kMagic[] = "vnlogrng";
constexpr uint32_t kVersion = 1;
constexpr uint32_t kFileSize = sizeof(RingHeader) + kLogBufSize;
constexpr mode_t kFileMode = 0600;

// A word holds a position in its low bits, the side of the told counts above, and a check above that.
constexpr uint32_t kSideShift = 18;
constexpr uint32_t kCheckShift = 19;
static_assert(RingMemory::kRound == 1U << kSideShift);

constexpr uint32_t wordOf(uint32_t value) {
    constexpr uint32_t kOddFraction = 0x9E3779B1U; // spreads each bit over the high ones
    return value | (value * kOddFraction >> kCheckShift) << kCheckShift;
}

constexpr uint32_t valueOf(uint32_t word) {
    return word & ((1U << kCheckShift) - 1);
}

constexpr bool wordWhole(uint32_t word) {
    return wordOf(valueOf(word)) == word;
}

/** Says why the memory file is not used; errno tells more. */
void reportUnused(const char* path, const char* what) {
    int error = errno;
    logError("[%s] %s, what is buffered ends with the process\n", path, what);
    logErrno(error);
}

/** Opens the file; a name that is nothing of ours is taken away first. */
FileDescriptor openMemoryFile(const char* path) {
    FileDescriptor file = openOwnFile(path, O_RDWR | O_CREAT, kFileMode);
    bool foreign = !file.valid() && (errno == EPERM || errno == EACCES || errno == ELOOP || errno == ENXIO);
    if (!foreign)
        return file;
    logError("[%s] is no memory file of ours, it is made anew\n", path);
    if (unlink(path) == 0)
        file = openOwnFile(path, O_RDWR | O_CREAT | O_EXCL, kFileMode);
    return file;
}

/** Gives the file its size, with a block for every byte. False with errno set. */
bool setSize(int fd, bool* kept) {
    struct stat info;
    if (fchmod(fd, kFileMode) != 0 || fstat(fd, &info) != 0)
        return false;
    *kept = info.st_size == kFileSize;
    if (!*kept && info.st_size != 0 && ftruncate(fd, 0) != 0)
        return false;
    errno = posix_fallocate(fd, 0, kFileSize);
    return errno == 0;
}

} // namespace

bool RingMemory::open(const char* folder) {
    mResumed = false;
    if (folder != nullptr && openFile(folder))
        return true;
    mHeader = reinterpret_cast<RingHeader*>(allocateText(kFileSize).release());
    if (mHeader == nullptr)
        return false;
    begin();
    return true;
}

bool RingMemory::openFile(const char* folder) {
    OwnFolder found = ownFolder(folder);
    if (found == OwnFolder::Missing)
        logDebug("there is no folder [%s], what is buffered ends with the process\n", folder);
    if (found != OwnFolder::Ours)
        return false;
    Path path = entryPath(folder, kFileName);
    FileDescriptor file = openMemoryFile(path.text);
    if (!file.valid()) {
        reportUnused(path.text, "cannot be opened");
        return false;
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        reportUnused(path.text, errno == EWOULDBLOCK ? "is used by another service" : "cannot be locked");
        return false;
    }
    if (!map(path.text, file.get()))
        return false;
    mFile = file.release();
    return true;
}

/** Maps the open file and looks whether what it holds can be used. */
bool RingMemory::map(const char* path, int fd) {
    struct stat before {};
    bool kept = false, hadContent = fstat(fd, &before) == 0 && before.st_size > 0;
    if (!setSize(fd, &kept)) {
        reportUnused(path, "cannot be given its size");
        return false;
    }
    void* memory = mmap(nullptr, kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        reportUnused(path, "cannot be mapped");
        return false;
    }
    mHeader = static_cast<RingHeader*>(memory);
    mResumed = kept && whole();
    if (!kept && hadContent)
        logError("[%s] has another size and is begun anew\n", path);
    if (kept && !mResumed)
        logError("[%s] is damaged and begun anew\n", path);
    if (!mResumed)
        begin();
    return true;
}

bool RingMemory::whole() const {
    return std::memcmp(mHeader->magic, kMagic, sizeof mHeader->magic) == 0 && mHeader->version == kVersion &&
           mHeader->capacity == kLogBufSize && wordWhole(mHeader->read) && wordWhole(mHeader->write) &&
           used() <= kLogBufSize;
}

/** Makes an empty header; its magic comes last, so that half a header is none. */
void RingMemory::begin() {
    std::memset(static_cast<void*>(mHeader), 0, sizeof *mHeader);
    mHeader->version = kVersion;
    mHeader->capacity = kLogBufSize;
    clearMark();
    std::atomic_signal_fence(std::memory_order_seq_cst); // a kill sees what the processor has been told
    std::memcpy(mHeader->magic, kMagic, sizeof mHeader->magic);
}

void RingMemory::close() {
    if (mHeader == nullptr)
        return;
    if (persistent())
        munmap(mHeader, kFileSize);
    else
        std::free(mHeader);
    mHeader = nullptr;
    if (mFile >= 0)
        (void)flock(mFile, LOCK_UN); // a child of the host that has the descriptor, too, would keep it
    closeDescriptor(mFile);
    mFile = -1;
}

uint32_t RingMemory::readPosition() const {
    return valueOf(mHeader->read) % kRound;
}

uint32_t RingMemory::writePosition() const {
    return valueOf(mHeader->write) % kRound;
}

uint32_t RingMemory::side() const {
    return valueOf(mHeader->write) >> kSideShift;
}

void RingMemory::publishWrite(uint32_t position, uint32_t side) {
    mHeader->write = wordOf(position % kRound | side << kSideShift);
}

void RingMemory::publishRead(uint32_t position) {
    mHeader->read = wordOf(position % kRound);
}

void RingMemory::markWrite(int fd, off_t length, uint32_t bytes) {
    struct stat info;
    clearMark();
    if (length < 0 || fstat(fd, &info) != 0)
        return;
    WriteMark& mark = mHeader->mark;
    mark.device = info.st_dev;
    mark.inode = info.st_ino;
    mark.offset = static_cast<uint64_t>(length);
    mark.bytes = bytes;
    mark.read = mHeader->read;
    mark.check = markCheck();
    std::atomic_signal_fence(std::memory_order_seq_cst); // before the write
}

/** A sum over the mark that half a mark does not have. */
uint32_t RingMemory::markCheck() const {
    const WriteMark& mark = mHeader->mark;
    uint64_t sum = 1;
    for (uint64_t field : {mark.device, mark.inode, mark.offset, uint64_t{mark.bytes}, uint64_t{mark.read}})
        sum = (sum ^ field) * 0x9E3779B97F4A7C15U;
    return static_cast<uint32_t>(sum >> 32);
}

const WriteMark* RingMemory::mark() const {
    const WriteMark& mark = mHeader->mark;
    return mark.check == markCheck() && mark.read == mHeader->read ? &mark : nullptr;
}

} // namespace vnlog
