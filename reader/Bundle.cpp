// SPDX-License-Identifier: Apache-2.0
#include "reader/Inspection.h"

#include "base/Clock.h"
#include "base/Text.h"
#include "config/ConfigFile.h"
#include "reader/BundleNames.h"
#include "storage/FileSteps.h"
#include "storage/Listing.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <sha256.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace vnlog {

namespace {

constexpr size_t kPiece = 65536;
constexpr mode_t kBundleMode = 0600;
constexpr size_t kLongestHost = 64;

struct WriteEnd {
    void operator()(archive* out) const { (void)archive_write_free(out); }
};
struct EntryEnd {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using Entry = std::unique_ptr<archive_entry, EntryEnd>;

std::string realPath(const std::string& path) {
    Text real(realpath(path.c_str(), nullptr));
    return real != nullptr ? real.get() : "";
}

/** The folder in which a file is, or is to be. */
std::string folderOf(const std::string& file) {
    size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : file.substr(0, std::max<size_t>(slash, 1));
}

/** Whether the file would lie in the folder, by way of links as well. */
bool liesIn(const std::string& file, const std::string& folder) {
    std::string place = realPath(folderOf(file)) + "/", outer = realPath(folder) + "/";
    return outer.size() > 1 && place.compare(0, outer.size(), outer) == 0;
}

/** Writes a bundle member by member. After a failure, which error() tells, nothing more is done. */
class BundleWriter {
  public:
    BundleWriter(int fd, std::string name, BundleTotals* totals)
        : mName(std::move(name)), mTotals(totals), mBuffer(kPiece), mOut(archive_write_new()) {
        archive* out = mOut.get();
        bool begun = out != nullptr && archive_write_set_format_pax_restricted(out) == ARCHIVE_OK &&
                     archive_write_add_filter_gzip(out) == ARCHIVE_OK &&
                     archive_write_set_filter_option(out, "gzip", "compression-level", "1") == ARCHIVE_OK &&
                     archive_write_open_fd(out, fd) == ARCHIVE_OK;
        if (!begun)
            fail();
    }

    const std::string& error() const { return mError; }

    /** A folder below the bundle's, or with an empty name that itself. */
    void folder(const std::string& name) {
        struct stat info {};
        info.st_mode = S_IFDIR | kFolderMode;
        info.st_mtime = static_cast<time_t>(secondsOf(CLOCK_REALTIME));
        (void)head(name, info);
    }

    /** A file of a folder, AT_FDCWD for a path, in the length that it has now. False when it is not there;
     * one that cannot be read is a failure. */
    bool file(const std::string& name, int from, const std::string& path) {
        FileDescriptor file = openEntry(from, path.c_str(), O_RDONLY);
        struct stat info;
        if (!file.valid() && (errno == ENOENT || errno == ELOOP))
            return false;
        if (!file.valid() || fstat(file.get(), &info) != 0)
            unreadable(name);
        else if (S_ISREG(info.st_mode) && head(name, info))
            content(name, file.get(), static_cast<uint64_t>(info.st_size));
        return true;
    }

    void text(const std::string& name, const std::string& text) {
        struct stat info {};
        info.st_mode = S_IFREG | kRunListMode;
        info.st_mtime = static_cast<time_t>(secondsOf(CLOCK_REALTIME));
        info.st_size = static_cast<off_t>(text.size());
        SHA2_CTX sum;
        SHA256Init(&sum);
        if (head(name, info))
            put(text.data(), text.size(), &sum);
        noteFile(name, text.size(), &sum);
    }

    /** As errno tells. */
    void unreadable(const std::string& name) {
        mError = mError.empty() ? name + " cannot be read: " + errorText(errno) : mError;
    }
    void missed() { ++mTotals->changed; }

    /** Writes the sums, and the end. */
    void finish() {
        text(kSumsName, std::string(mSums));
        if (mError.empty() && archive_write_close(mOut.get()) != ARCHIVE_OK)
            fail();
    }

  private:
    void fail() {
        int error = mOut != nullptr ? archive_errno(mOut.get()) : ENOMEM;
        const char* told = mOut != nullptr ? archive_error_string(mOut.get()) : nullptr;
        if (mError.empty())
            mError = error > 0 ? errorText(error) : told != nullptr ? told : "the archive cannot be made";
    }

    bool head(const std::string& name, const struct stat& info) {
        Entry entry(archive_entry_new());
        if (!mError.empty() || entry == nullptr) {
            mError = mError.empty() ? errorText(ENOMEM) : mError;
            return false;
        }
        archive_entry_set_pathname(entry.get(), (name.empty() ? mName : mName + "/" + name).c_str());
        archive_entry_set_filetype(entry.get(), info.st_mode & S_IFMT);
        archive_entry_set_perm(entry.get(), (info.st_mode & kFolderMode) | S_IRUSR);
        archive_entry_set_size(entry.get(), S_ISREG(info.st_mode) ? info.st_size : 0);
        archive_entry_set_mtime(entry.get(), info.st_mtim.tv_sec, info.st_mtim.tv_nsec);
        if (archive_write_header(mOut.get(), entry.get()) >= ARCHIVE_WARN)
            return true;
        fail();
        return false;
    }

    void put(const char* bytes, size_t length, SHA2_CTX* sum) {
        SHA256Update(sum, reinterpret_cast<const uint8_t*>(bytes), length);
        while (mError.empty() && length > 0) {
            la_ssize_t written = archive_write_data(mOut.get(), bytes, length);
            if (written <= 0)
                return fail();
            bytes += written;
            length -= static_cast<size_t>(written);
        }
    }

    /** Copies so many bytes; what a file has no more is filled up with zeros, for its length is told already.
     */
    void content(const std::string& name, int file, uint64_t size) {
        SHA2_CTX sum;
        SHA256Init(&sum);
        bool shrank = false;
        for (uint64_t left = size; left > 0 && mError.empty();) {
            auto length = static_cast<size_t>(std::min<uint64_t>(left, kPiece));
            size_t count = 0;
            if (!readPiece(file, mBuffer.data(), length, &count))
                return unreadable(name);
            std::fill(mBuffer.begin() + static_cast<std::ptrdiff_t>(count), mBuffer.end(), '\0');
            shrank = shrank || count < length;
            put(mBuffer.data(), length, &sum);
            left -= length;
        }
        mTotals->changed += shrank ? 1 : 0;
        noteFile(name, size, &sum);
    }

    void noteFile(const std::string& name, uint64_t size, SHA2_CTX* sum) {
        char digits[SHA256_DIGEST_STRING_LENGTH];
        mSums.append(SHA256End(sum, digits)).append("  ").append(name).append("\n");
        ++mTotals->files;
        mTotals->bytes += size;
    }

    std::string mName; ///< of the bundle's folder
    BundleTotals* mTotals;
    std::vector<char> mBuffer;
    std::string mSums, mError;
    std::unique_ptr<archive, WriteEnd> mOut;
};

/** An entry of a folder, kept while others are read. */
struct Name {
    uint32_t number;
    std::string text;
    bool operator<(const Name& other) const {
        return std::tie(number, text) < std::tie(other.number, other.text);
    }
};

/** Puts a store's files into a bundle. */
class StoreBundle {
  public:
    StoreBundle(const StoreFolder& folder, BundleWriter* out) : mFolder(folder), mOut(out) {}

    /** False with errno set when the log folder cannot be listed. */
    bool write(const std::string& config) {
        FileDescriptor current = openRun(kCurrentFolder); // stays the same should a start archive it
        std::set<Name> runs;
        Listing listing(openFile(mFolder.logs().c_str(), O_RDONLY | O_DIRECTORY));
        StoredEntry entry;
        while (listing.valid() && listing.next(&entry))
            if (entry.isRun())
                runs.insert({entry.number, entry.name});
        if (!listing.valid() || listing.failed())
            return false;
        mOut->folder("");
        if (!config.empty())
            (void)mOut->file(kConfigurationName + 1, AT_FDCWD, config);
        (void)mOut->file(kBookkeepingFile, AT_FDCWD, mFolder.root() + "/" + kBookkeepingFile);
        mOut->folder(kLogFolder);
        (void)mOut->file(inLogs(kRunListFile), AT_FDCWD, mFolder.logs() + "/" + kRunListFile);
        for (const Name& run : runs)
            writeArchivedRun(run.text, current.get());
        if (current.valid())
            writeRun(kCurrentFolder, std::move(current));
        return true;
    }

  private:
    static std::string inLogs(const std::string& name) { return std::string(kLogFolder) + "/" + name; }

    FileDescriptor openRun(const std::string& run) {
        return openFile((mFolder.logs() + "/" + run).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    }

    void writeArchivedRun(const std::string& run, int current) {
        FileDescriptor folder = openRun(run);
        struct stat info, other;
        if (!folder.valid() && errno == ENOENT)
            return mOut->missed();
        if (!folder.valid() || fstat(folder.get(), &info) != 0)
            return mOut->unreadable(inLogs(run));
        if (fstat(current, &other) != 0 || !same(info, other))
            writeRun(run, std::move(folder));
    }

    void writeRun(const std::string& run, FileDescriptor descriptor) {
        Folder folder(std::move(descriptor));
        if (!folder.valid())
            return mOut->unreadable(inLogs(run));
        std::set<Name> files;
        while (const dirent* entry = folder.next())
            if (bundledFromRun(entry->d_name))
                files.insert({parseName(entry->d_name).number, entry->d_name});
        if (folder.failed())
            return mOut->unreadable(inLogs(run));
        mOut->folder(inLogs(run));
        for (const Name& file : files)
            if (!mOut->file(inLogs(run) + "/" + file.text, folder.descriptor(), file.text))
                writeSuccessor(run, folder.descriptor(), file.text, files);
    }

    /** Of a file that has gone since it was listed: what it has become. */
    void writeSuccessor(const std::string& run, int folder, const std::string& gone,
                        const std::set<Name>& listed) {
        std::string archive = archiveOf(gone.c_str()).text;
        struct stat info;
        if (fstatat(folder, gone.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
            return; // a link, which no bundle takes
        bool becameArchive = isText(parseName(gone.c_str()).kind) &&
                             listed.count({parseName(archive.c_str()).number, archive}) == 0;
        if (!becameArchive || !mOut->file(inLogs(run) + "/" + archive, folder, archive))
            mOut->missed();
    }

    const StoreFolder& mFolder;
    BundleWriter* mOut;
};

} // namespace

std::string bundleName() {
    char host[HOST_NAME_MAX + 1] = {}, date[32] = {};
    (void)gethostname(host, HOST_NAME_MAX);
    for (char* c = host; *c != '\0'; ++c)
        *c = std::isalnum(static_cast<unsigned char>(*c)) != 0 || *c == '.' ? *c : '-';
    time_t now = static_cast<time_t>(secondsOf(CLOCK_REALTIME));
    tm parts{};
    if (gmtime_r(&now, &parts) != nullptr)
        (void)std::strftime(date, sizeof date, "%Y%m%dT%H%M%SZ", &parts);
    return std::string(kBundleName) + "-" + std::string(host, strnlen(host, kLongestHost)) + "-" + date;
}

bool writeBundle(const StoreFolder& folder, const std::string& config, const std::vector<BundleText>& texts,
                 const std::string& file, BundleTotals* totals, std::string* error) {
    *totals = {};
    std::string draft = file + kDraftEnd;
    struct stat info;
    if (liesIn(file, folder.logs())) {
        *error = "it would lie in the store";
        return false;
    }
    if (stat(file.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        *error = "it is there already, and is no file";
        return false;
    }
    (void)unlink(draft.c_str()); // of an attempt that was cut off
    FileDescriptor out = openFile(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kBundleMode);
    if (!out.valid()) {
        *error = errorText(errno);
        return false;
    }
    BundleWriter writer(out.get(), bundleName(), totals);
    bool listed = StoreBundle(folder, &writer).write(config);
    if (!listed)
        *error = "the store cannot be listed: " + errorText(errno);
    for (const BundleText& text : texts)
        writer.text(text.name, text.text);
    writer.finish();
    if (listed && !writer.error().empty())
        *error = writer.error();
    bool whole = listed && writer.error().empty();
    if (whole && fsync(out.get()) == 0 && rename(draft.c_str(), file.c_str()) == 0 &&
        syncPath(folderOf(file).c_str()))
        return true;
    *error = whole ? errorText(errno) : *error;
    (void)unlink(draft.c_str());
    return false;
}

} // namespace vnlog
