#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <regex.h>

/*
 * The stored form: names, numbers and limits that the writer, the deletion and the start check share.
 * docs/on-disk-format.md walks through a small store.
 */
namespace vnlog {

/** Storage root and home of log.cfg when nothing else is configured; goes behind the system root. */
constexpr char kDefaultRoot[] = "/media/flash/nvm";

/** Longest storage root in characters with which every derived path fits its 128 bytes. */
constexpr size_t kMaxRootLength = 99;

constexpr char kLogServiceSuffix[] = "/log_service";
constexpr char kLastPrefixSuffix[] = "/log_service/last";
constexpr char kCurrentSuffix[] = "/log_service/current";
constexpr char kCurrentFileSuffix[] = "/log_service/current/log.txt";
constexpr char kStorageDataSuffix[] = "/log_storage.dat";

/** Largest value of the four bookkeeping numbers. */
constexpr int kMaxBookkeepingNumber = 999999999;

/** Deletion passes after which a bound that still does not hold counts as a failure. */
constexpr int kDeletionPasses = 10;

constexpr mode_t kFolderMode = 0777;
constexpr mode_t kSectionMode = 0777;
constexpr mode_t kBookkeepingMode = 0555;

/** A path built on the stack; longer ones are cut. */
struct Path {
    char text[256];
};

/** vsnprintf into a fixed buffer. Returns whether the whole text fitted. */
bool formatText(char* out, size_t size, const char* format, va_list args);

template <size_t N> [[gnu::format(printf, 2, 3)]] bool formatPath(char (&out)[N], const char* format, ...) {
    va_list args;
    va_start(args, format);
    bool whole = formatText(out, N, format, args);
    va_end(args);
    return whole;
}

// Names of sections and archived runs, built here and parsed by NamePatterns below.
Path sectionText(const char* folder, uint32_t number); ///< log_<number>.txt
Path sectionArchive(const char* folder, uint32_t number); ///< log_<number>.txt.gz
Path lastFolder(const char* prefix, uint32_t folder); ///< last_<folder>
Path lastArchive(const char* prefix, uint32_t folder, uint32_t section); ///< a section in it

/** Recognises the names of archived runs and of finished sections. */
class NamePatterns {
  public:
    NamePatterns();
    ~NamePatterns();
    NamePatterns(const NamePatterns&) = delete;
    NamePatterns& operator=(const NamePatterns&) = delete;

    /** False when a pattern could not be compiled; nothing else may be called then. */
    [[nodiscard]] bool valid() const { return mLastValid && mSectionValid && mTextValid; }
    /** Whether `name` is last_<N>; stores N. Numbers beyond the bookkeeping's range are not ours. */
    bool isLastFolder(const char* name, uint32_t* number) const;
    /** Whether `name` is log_<k>.txt.gz; stores k. */
    bool isSection(const char* name, uint32_t* number) const;
    /** Whether `name` is log_<k>.txt. */
    bool isSectionText(const char* name) const;

  private:
    regex_t mLast;
    regex_t mSection;
    regex_t mText;
    bool mLastValid;
    bool mSectionValid;
    bool mTextValid;
};

enum class EntryType { Folder, File, Other };

/** Type of the entry `name` of `folder`, from the listing's `type`; lstat decides where that says nothing. */
EntryType entryType(const char* folder, const char* name, unsigned char type);

/**
 * Whether a path can stand unquoted in the service's shell commands: it is not empty, is no option, and holds
 * nothing that a shell splits at or interprets.
 */
bool shellSafe(const char* path);

/** Whether a path can be a storage root: every path derived from it fits, and shell and log.cfg take it as it
 * is. */
bool usableRoot(const char* root);

} // namespace vnlog
