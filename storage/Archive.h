#pragma once

/* The gzip form of a text, written and compared. Both need some 300 KiB of memory while they run, little of
 * it on the stack. Any thread that is not cancelled meanwhile. */
namespace vnlog {

/**
 * Compresses what `text` holds from where it stands to its end into `archive`, as one gzip member that
 * carries `name` and the text's time of change. Both are open descriptors and stay open; nothing is synced.
 * False with errno set, ENOMEM for memory; a part may have been written then.
 */
[[nodiscard]] bool writeArchive(int text, int archive, const char* name);

/** What an archive is to a text. All but Damaged and Unreadable imply that the archive is whole. */
enum class PairKind {
    Damaged, ///< no whole gzip file: cut off, altered, empty, or with something else behind its last member
    Covers, ///< its content begins with the text, which may be cut short or end in zeros
    Continued, ///< the text begins with its whole content and goes on
    Different, ///< neither
    Unreadable, ///< one of the two cannot be opened as a file of ours or read, or no memory: see errno
};

/** Reads both files to the end, as far as that matters, and tells what they are to each other. */
[[nodiscard]] PairKind comparePair(const char* archive, const char* text);

/** Whether the archive is whole and its content is the text, no more and no less. */
[[nodiscard]] bool archiveHolds(const char* archive, const char* text);

} // namespace vnlog
