// SPDX-License-Identifier: Apache-2.0
#include "reader/Inspection.h"

#include "base/Files.h"
#include "base/Text.h"
#include "reader/BundleNames.h"
#include "storage/FileSteps.h"
#include "storage/ProcessFileWork.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace vnlog {

namespace {

constexpr uint64_t kLargestMember = uint64_t{4} << 30;
constexpr uint64_t kLeftFree = uint64_t{64} << 20; ///< bytes of the file system
constexpr uint32_t kMostMembers = 1000000;
constexpr size_t kPiece = 65536;
constexpr mode_t kUnpackedMode = 0600;
constexpr mode_t kUnpackedFolderMode = 0700;

struct ReadEnd {
    void operator()(archive* in) const { (void)archive_read_free(in); }
};
using Reader = std::unique_ptr<archive, ReadEnd>;

/** A name as it can be shown. */
std::string shown(std::string_view name) {
    std::string text(name.substr(0, 100));
    for (char& c : text)
        c = static_cast<unsigned char>(c) < ' ' || static_cast<unsigned char>(c) > '~' ? '?' : c;
    return text;
}

/** What is not as it was when the bundle was made: the first thing, and how many more there are. */
class Damage {
  public:
    void add(const std::string& what) {
        mFirst = mCount == 0 ? what : mFirst;
        ++mCount;
    }
    std::string text() const {
        return mCount < 2 ? mFirst : mFirst + ", and " + std::to_string(mCount - 1) + " more";
    }

  private:
    std::string mFirst;
    uint32_t mCount = 0;
};

/** Unpacks the members of an archive below a folder that nobody else uses. */
class Unpacking {
  public:
    Unpacking(archive* in, std::string into, Damage* damage)
        : mIn(in), mInto(std::move(into)), mDamage(damage), mBuffer(kPiece) {
        uint64_t available = availableBytes(mInto.c_str());
        mRoom = available - std::min(available, kLeftFree);
    }

    void run() {
        for (mMembers = 0; mMembers < kMostMembers; ++mMembers) {
            archive_entry* entry = nullptr;
            int result = archive_read_next_header(mIn, &entry);
            if (result == ARCHIVE_EOF)
                return;
            if (result < ARCHIVE_WARN)
                return broken();
            if (!member(entry))
                return;
        }
        mDamage->add("it has more than " + std::to_string(kMostMembers) + " members");
    }

    uint32_t files() const { return mFiles; }
    bool foundLogs() const { return mFoundLogs; }
    /** Whether its folder has the name of one that was made as a bundle. */
    bool ofOurs() const { return mTop.compare(0, sizeof kBundleName - 1, kBundleName) == 0; }
    bool sums() const { return mSums; }

  private:
    /** The archive cannot be read further. */
    void broken() {
        const char* told = archive_error_string(mIn);
        mDamage->add(std::string("it is cut off or damaged: ") +
                     (told != nullptr ? shown(told) : "no more can be read"));
    }

    /** False when nothing more can be unpacked. */
    bool member(archive_entry* entry) {
        const char* path = archive_entry_pathname(entry);
        std::string name = path != nullptr ? path : "";
        while (!name.empty() && name.back() == '/')
            name.pop_back();
        bool folder = archive_entry_filetype(entry) == AE_IFDIR;
        bool file = archive_entry_filetype(entry) == AE_IFREG && archive_entry_hardlink(entry) == nullptr;
        std::string inside = name;
        if ((!folder && !file) || !takeTop(&inside))
            return refuse(name);
        if (inside.empty())
            return folder || refuse(name);
        if (bundleEntry(inside) != (folder ? BundleEntry::Folder : BundleEntry::File))
            return refuse(name);
        if (file && archive_entry_size(entry) > static_cast<la_int64_t>(kLargestMember)) {
            mDamage->add("'" + inside + "' is larger than 4 GiB");
            return true;
        }
        return folder ? makeFolder(inside) : unpack(inside, entry);
    }

    bool refuse(const std::string& name) {
        mDamage->add("'" + shown(name) + "' has no place in a bundle");
        return true;
    }

    /** Takes the bundle's own folder off a name, where there is one: it must be the same for all. */
    bool takeTop(std::string* name) {
        if (name->compare(0, 2, "./") == 0)
            name->erase(0, 2);
        std::string top = name->substr(0, name->find('/'));
        if (name->empty() || *name == "." || bundleEntry(top) != BundleEntry::None)
            return (name->erase(*name == "." ? 0 : name->size()), true);
        if (top.empty() || top == "." || top == ".." || (!mTop.empty() && mTop != top))
            return false;
        mTop = top;
        name->erase(0, top.size() + 1);
        return true;
    }

    /** Makes a folder and those above it. */
    bool makeFolder(const std::string& name) {
        for (size_t at = 0; at != std::string::npos;) {
            at = name.find('/', at + 1);
            if (mkdir((mInto + "/" + name.substr(0, at)).c_str(), kUnpackedFolderMode) != 0 &&
                errno != EEXIST) {
                mDamage->add("it cannot be unpacked: " + errorText(errno));
                return false;
            }
        }
        mFoundLogs = true; // no other folder can be meant
        return true;
    }

    bool unpack(const std::string& name, archive_entry* entry) {
        size_t slash = name.rfind('/');
        if (slash != std::string::npos && !makeFolder(name.substr(0, slash)))
            return false;
        FileDescriptor file =
            openFile((mInto + "/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kUnpackedMode);
        if (!file.valid()) {
            mDamage->add(errno == EEXIST ? "'" + name + "' is there twice"
                                         : "'" + name + "' cannot be unpacked: " + errorText(errno));
            return errno == EEXIST;
        }
        ++mFiles;
        mSums = mSums || name == kSumsName;
        bool goOn = content(name, file.get());
        timespec times[2] = {};
        times[0].tv_sec = times[1].tv_sec = archive_entry_mtime(entry);
        times[0].tv_nsec = times[1].tv_nsec = archive_entry_mtime_nsec(entry);
        (void)futimens(file.get(), times); // dates the lines of a section that does not tell its time
        return goOn;
    }

    bool content(const std::string& name, int file) {
        for (;;) {
            la_ssize_t count = archive_read_data(mIn, mBuffer.data(), mBuffer.size());
            if (count == 0)
                return true;
            if (count < 0) {
                broken();
                return false;
            }
            auto length = static_cast<size_t>(count);
            if (length > mRoom) {
                mDamage->add("there is no room to unpack it all beside 64 MiB to be left free");
                return false;
            }
            mRoom -= length;
            if (!writeAll(file, mBuffer.data(), length)) {
                mDamage->add("'" + name + "' cannot be unpacked: " + errorText(errno));
                return false;
            }
        }
    }

    archive* mIn;
    std::string mInto;
    Damage* mDamage;
    std::vector<char> mBuffer;
    std::string mTop;
    uint64_t mRoom;
    uint32_t mMembers = 0, mFiles = 0;
    bool mFoundLogs = false, mSums = false;
};

/** Compares what is in a folder with the sums there; how many files agree. */
uint32_t checkSums(const std::string& folder, Damage* damage) {
    Stream sums = openForReading((folder + "/" + kSumsName).c_str());
    char line[1024];
    std::set<std::string> right;
    while (sums != nullptr && std::fgets(line, sizeof line, sums.get()) != nullptr) {
        std::string_view text(line, std::strcspn(line, "\n"));
        size_t blank = text.find("  ");
        std::string name(text.substr(std::min(text.size(), blank == std::string_view::npos ? 0 : blank + 2)));
        std::string sum;
        if (blank == std::string_view::npos || bundleEntry(name) != BundleEntry::File) {
            damage->add("SHA256SUMS is damaged");
            return static_cast<uint32_t>(right.size());
        }
        std::string path = folder;
        path.append("/").append(name);
        FileDescriptor file = openFile(path.c_str(), O_RDONLY | O_NOFOLLOW);
        if (!file.valid() || !sumOf(file.get(), &sum))
            damage->add(name.insert(0, "'").append("' is missing"));
        else if (sum != text.substr(0, blank))
            damage->add(name.insert(0, "'").append("' is not as its sum in SHA256SUMS says"));
        else
            right.insert(std::move(name));
    }
    return static_cast<uint32_t>(right.size());
}

/** The process that removes a folder when nobody has the other end of the pipe any more. */
[[noreturn]] void removeAtEnd(int pipe, const char* folder) {
    (void)setsid(); // the terminal's signals are for others
    for (int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE})
        (void)::signal(signal, SIG_IGN);
    Folder own("/proc/self/fd");
    while (const dirent* entry =
               own.valid() ? own.next() : nullptr) { // whoever reads them is to see their end
        auto fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (fd != pipe && fd != own.descriptor())
            (void)close(fd);
    }
    char none;
    while (read(pipe, &none, 1) < 0 && errno == EINTR) {
    }
    _exit(ProcessFileWork().removeTree(folder) ? 0 : 1);
}

/** Opens the archive that the descriptor is open on; null with `error` set. */
Reader openArchive(int fd, std::string* error) {
    Reader in(archive_read_new());
    bool begun = in != nullptr && archive_read_support_filter_gzip(in.get()) >= ARCHIVE_WARN &&
                 archive_read_support_filter_xz(in.get()) >= ARCHIVE_WARN &&
                 archive_read_support_format_tar(in.get()) == ARCHIVE_OK;
    if (begun && archive_read_open_fd(in.get(), fd, kPiece) >= ARCHIVE_WARN)
        return in;
    const char* told = begun ? archive_error_string(in.get()) : nullptr;
    *error = "it is no bundle: " + (!begun            ? errorText(ENOMEM)
                                    : told != nullptr ? shown(told)
                                                      : "it is cut off");
    return nullptr;
}

} // namespace

OpenBundle::~OpenBundle() {
    mAlive = FileDescriptor();
    while (mRemover > 0 && waitpid(mRemover, nullptr, 0) < 0 && errno == EINTR) {
    }
}

/** Makes the folder to unpack into, and the process that removes it. */
bool OpenBundle::makeFolder(std::string* error) {
    const char* place = std::getenv("TMPDIR");
    std::string folder = std::string(place != nullptr && *place != '\0' ? place : "/tmp") + "/logview-XXXXXX";
    int ends[2];
    if (mkdtemp(folder.data()) == nullptr) {
        *error = "there is no folder to unpack it into: " + folder + ": " + errorText(errno);
        return false;
    }
    bool piped = pipe2(ends, O_CLOEXEC) == 0;
    FileDescriptor end(piped ? ends[0] : -1);
    mAlive = FileDescriptor(piped ? ends[1] : -1);
    mRemover = piped ? fork() : -1;
    if (mRemover == 0)
        removeAtEnd(end.get(), folder.c_str());
    if (mRemover > 0) {
        mFolder = folder;
        return true;
    }
    *error = "there is no process to remove what is unpacked: " + errorText(errno);
    (void)rmdir(folder.c_str());
    return false;
}

bool OpenBundle::open(const std::string& file, std::string* error) {
    FileDescriptor in = openFile(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    struct stat info;
    if (!in.valid() || fstat(in.get(), &info) != 0) {
        *error = errorText(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        *error = "it is no file";
        return false;
    }
    Reader reader = openArchive(in.get(), error);
    if (reader == nullptr || !makeFolder(error))
        return false;
    Damage damage;
    Unpacking unpacking(reader.get(), mFolder, &damage);
    unpacking.run();
    uint32_t right = unpacking.sums() ? checkSums(mFolder, &damage) + 1 : 0;
    if (!unpacking.sums() && unpacking.ofOurs())
        damage.add("SHA256SUMS is missing");
    else if (right > 0 && right < unpacking.files() && damage.text().empty())
        damage.add("SHA256SUMS does not tell of all files");
    mDamage = damage.text();
    if (unpacking.foundLogs())
        return true;
    *error = "it is no bundle: " + (mDamage.empty() ? "there is no store in it" : mDamage);
    return false;
}

} // namespace vnlog
