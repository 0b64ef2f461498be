// SPDX-License-Identifier: Apache-2.0
/*
 * Writes entries to a logger device: one, one a line, or a saved log with its own stamps.
 */
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "platform/logger/LoggerDevice.h"
#include "platform/sysroot/SystemRoot.h"
#include "tools/Options.h"

#include <algorithm>
#include <cinttypes>
#include <ctime>
#include <regex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

using vnlog::FileDescriptor;
using vnlog::platform::LoggerAccess;
using vnlog::platform::LoggerHeader;

namespace {

constexpr char kProgram[] = "logwrite";
constexpr char kHelp[] =
    "Usage: logwrite [OPTION]... -t TAG [MESSAGE]...\n"
    "       logwrite [OPTION]... --replay FILE\n"
    "Writes an entry to a logger device; without a MESSAGE one for each line of standard input.\n"
    "\n"
    "  -b DEVICE                 the device: main or system (main)\n"
    "  -p PRIORITY               the priority: v, d, i, w, e or f (i)\n"
    "  -t TAG                    the tag\n"
    "      --replay FILE         write a saved log in the threadtime form, with its own stamps and ids;\n"
    "                            what is zero is filled in by the device\n"
    "      --year YYYY           the year of its stamps (the present one)\n"
    "      --lossless            wait while a reader would lose an entry\n"
    "      --sysroot DIR         the system root that the service was started with\n"
    "  -h, --help                show this text\n"
    "  -V, --version             show the version\n"
    "\n"
    "Environment: VNLOG_SYSROOT as --sysroot.\n"
    "Status: 0 written; 1 the device or the input failed; 2 wrong usage.\n";

constexpr char kPriorityLetters[] = "vdiwef";
/** Bytes that tag and text have together: without the header, the priority and the end of each. */
constexpr size_t kMaxText = vnlog::platform::kMaxLoggerEntry - sizeof(LoggerHeader) - 3;
constexpr size_t kLongestMark = sizeof " [cut: 18446744073709551615 bytes more]" - 1;
/** With the longest tag a text still has room to say that it was cut. */
constexpr size_t kMaxTag = kMaxText - kLongestMark;

struct Arguments {
    std::string device = "main";
    char priority = 'i';
    std::string tag;
    std::string replay;
    int year = 0;
    bool lossless = false;
};

/** The number 2 (verbose) to 7 (fatal) of a priority letter, 0 for another one. */
char priorityOf(char letter) {
    const char* found = letter != '\0' ? std::strchr(kPriorityLetters, letter | 0x20) : nullptr;
    return found != nullptr ? static_cast<char>(found - kPriorityLetters + 2) : '\0';
}

/**
 * The text; when it is larger than `most`, or `missing` bytes of it are left out already, as much of it as
 * leaves room for the mark that then ends it, up to a whole UTF-8 character. `cut` is where that is kept.
 */
std::string_view cutTo(size_t most, std::string_view text, uint64_t missing, std::string* cut) {
    constexpr size_t kMostFollowing = 3; // bytes of a character behind its first
    if (missing == 0 && text.size() <= most)
        return text;
    size_t kept = std::min(text.size(), most - kLongestMark);
    auto follows = [&](size_t place) { return place < text.size() && (text[place] & 0xC0) == 0x80; };
    size_t whole = kept;
    while (whole > 0 && kept - whole < kMostFollowing && follows(whole))
        --whole;
    if (!follows(whole)) // otherwise it is no UTF-8
        kept = whole;
    char mark[kLongestMark + 1];
    std::snprintf(mark, sizeof mark, " [cut: %" PRIu64 " bytes more]", missing + (text.size() - kept));
    cut->assign(text.substr(0, kept)).append(mark);
    return *cut;
}

/**
 * An open device. Counts what had to be shortened. Entries for the stand-in are gathered and sent together:
 * what has been written is on its way only after flush().
 */
class Writer {
  public:
    explicit Writer(FileDescriptor device)
        : mDevice(std::move(device)), mStandIn(vnlog::platform::isStandIn(mDevice.get())) {}

    bool standIn() const { return mStandIn; }
    int shortened() const { return mShortened; }
    bool write(LoggerHeader header, char priority, std::string_view tag, std::string_view text,
               uint64_t missing = 0);
    bool flush();
    bool finish();

  private:
    static constexpr unsigned kMaxEntries = 64;

    FileDescriptor mDevice;
    bool mStandIn;
    int mShortened = 0;
    char mBytes[65536]; ///< the gathered entries, one behind the other
    size_t mUsed = 0;
    iovec mPieces[kMaxEntries];
    mmsghdr mMessages[kMaxEntries] = {};
    unsigned mCount = 0;
};

/**
 * Writes one entry; the device fills in what is zero in the header. `missing` bytes of the text were left out
 * before.
 */
bool Writer::write(LoggerHeader header, char priority, std::string_view tag, std::string_view text,
                   uint64_t missing) {
    if ((mCount == kMaxEntries || mUsed + vnlog::platform::kMaxLoggerEntry > sizeof mBytes) && !flush())
        return false;
    char* entry = mBytes + mUsed;
    char* payload = entry + sizeof header;
    size_t length = 0;
    payload[length++] = priority;
    std::string cutTag, cutText;
    tag = cutTo(kMaxTag, tag, 0, &cutTag);
    for (std::string_view part : {tag, cutTo(kMaxText - tag.size(), text, missing, &cutText)}) {
        length += part.copy(payload + length, part.size());
        payload[length++] = '\0';
    }
    mShortened += cutTag.empty() && cutText.empty() ? 0 : 1;
    if (!mStandIn) // the driver makes the header
        return ::write(mDevice.get(), payload, length) >= 0;
    header.length = static_cast<uint16_t>(length);
    std::memcpy(entry, &header, sizeof header);
    mPieces[mCount] = {entry, sizeof header + length};
    mMessages[mCount].msg_hdr.msg_iov = &mPieces[mCount];
    mMessages[mCount++].msg_hdr.msg_iovlen = 1;
    mUsed += sizeof header + length;
    return true;
}

/** Sends what is gathered, one packet an entry. */
bool Writer::flush() {
    unsigned sent = 0;
    while (sent < mCount) { // SIGPIPE would end the program without a word
        int more = sendmmsg(mDevice.get(), mMessages + sent, mCount - sent, MSG_NOSIGNAL);
        if (more < 0)
            return false;
        sent += static_cast<unsigned>(more);
    }
    mCount = 0;
    mUsed = 0;
    return true;
}

/** Sends what is gathered, and waits until the device has taken all that was written. */
bool Writer::finish() {
    if (!flush())
        return false;
    if (!mStandIn)
        return true;
    char nothing;
    (void)shutdown(mDevice.get(), SHUT_WR); // the device hangs up when it has taken the last
    ssize_t got;
    do
        got = recv(mDevice.get(), &nothing, sizeof nothing, 0);
    while (got < 0 && errno == EINTR);
    return got == 0; // less where it has hung up on this client before that
}

/** The lines of a file. One that is far longer than an entry loses something of what an entry would not hold,
 * which is counted.
 */
class Lines {
  public:
    explicit Lines(int fd) : mFd(fd) {}

    /** Whether the next line is there without waiting for input. */
    bool ready() const { return mOver || std::memchr(mBegin, '\n', length()) != nullptr; }
    bool next(std::string_view* line, uint64_t* missing);
    /** The error that ended the input, or 0. */
    int error() const { return mError; }

  private:
    size_t length() const { return static_cast<size_t>(mEnd - mBegin); }
    void read();

    int mFd;
    int mError = 0;
    bool mOver = false; ///< the input has ended
    uint64_t mMissing = 0; ///< bytes of the next line that were left out
    char mBytes[65536];
    char *mBegin = mBytes, *mEnd = mBytes; ///< what has been read and not given yet
};

/** Gives the next line, which holds until the next call, and the number of bytes that it lacks. False at the
 * end of the input. */
bool Lines::next(std::string_view* line, uint64_t* missing) {
    while (!ready())
        read();
    char* end = std::find(mBegin, mEnd, '\n');
    bool found = mBegin < mEnd;
    *line = {mBegin, static_cast<size_t>(end - mBegin)};
    mBegin = end < mEnd ? end + 1 : end;
    *missing = std::exchange(mMissing, 0);
    return found;
}

void Lines::read() {
    mEnd = std::copy(mBegin, mEnd, mBytes);
    mBegin = mBytes;
    if (length() == sizeof mBytes) {
        mEnd -= sizeof mBytes / 2;
        mMissing += sizeof mBytes / 2;
    }
    ssize_t got = ::read(mFd, mEnd, sizeof mBytes - length());
    mError = got < 0 ? errno : 0;
    mOver = got <= 0;
    mEnd += std::max<ssize_t>(got, 0);
}

int failedRead(const char* what, int error) {
    std::fprintf(stderr, "%s: cannot read %s: %s\n", kProgram, what, std::strerror(error));
    return kFailure;
}

int failedWrite() {
    std::fprintf(stderr, "%s: cannot write: %s\n", kProgram, std::strerror(errno));
    return kFailure;
}

/** Takes a line of the threadtime form apart. False when it is none. */
bool parseLine(const std::string& line, int year, LoggerHeader* header, char* priority, std::string* tag,
               std::string* text) {
    static const std::regex form(
        "([0-9]{2})-([0-9]{2}) ([0-9]{2}):([0-9]{2}):([0-9]{2})\\.([0-9]{3}) +([0-9]{1,9}) "
        "+([0-9]{1,9}) ([VDIWEF]) ");
    constexpr size_t kLongestHead = 64; // the rest is taken as it is, whatever its length
    std::string head = line.substr(0, kLongestHead);
    std::smatch part;
    if (!std::regex_search(head, part, form, std::regex_constants::match_continuous))
        return false;
    std::string rest = line.substr(static_cast<size_t>(part.length()));
    size_t colon = rest.find(": ");
    if (colon == std::string::npos)
        return false;
    std::tm when{};
    when.tm_year = year - 1900;
    when.tm_mon = std::stoi(part[1]) - 1;
    when.tm_mday = std::stoi(part[2]);
    when.tm_hour = std::stoi(part[3]);
    when.tm_min = std::stoi(part[4]);
    when.tm_sec = std::stoi(part[5]);
    when.tm_isdst = -1;
    std::tm given = when;
    time_t seconds = std::mktime(&when);
    bool exists = seconds != -1 && when.tm_mon == given.tm_mon && when.tm_mday == given.tm_mday &&
                  when.tm_min == given.tm_min && when.tm_sec == given.tm_sec && given.tm_hour < 24;
    if (!exists)
        return false;
    *header = {};
    header->pid = std::stoi(part[7]);
    header->tid = std::stoi(part[8]);
    header->seconds = static_cast<int32_t>(seconds);
    header->nanoseconds = std::stoi(part[6]) * 1000000;
    *priority = priorityOf(part[9].str()[0]);
    *tag = rest.substr(0, colon);
    tag->erase(tag->find_last_not_of(' ') + 1); // the form pads it
    *text = rest.substr(colon + 2);
    return true;
}

/** Hands every line to `take`; nothing stays unsent while more input is waited for. 0 or the exit status. */
template <typename Take> int forEachLine(Writer& writer, int fd, const char* name, const Take& take) {
    Lines lines(fd);
    std::string_view line;
    uint64_t missing;
    bool sent = true;
    while ((sent = lines.ready() || writer.flush()) && lines.next(&line, &missing))
        if (!take(line, missing))
            return failedWrite();
    if (!sent || !writer.finish())
        return failedWrite();
    return lines.error() == 0 ? 0 : failedRead(name, lines.error());
}

int replay(Writer& writer, const Arguments& arguments) {
    FileDescriptor file = vnlog::openFile(arguments.replay.c_str(), O_RDONLY);
    if (!file.valid())
        return failedRead(arguments.replay.c_str(), errno);
    int written = 0, skipped = 0;
    int status = forEachLine(
        writer, file.get(), arguments.replay.c_str(), [&](std::string_view line, uint64_t missing) {
            LoggerHeader header;
            char priority;
            std::string tag, text;
            bool parsed = parseLine(std::string(line), arguments.year, &header, &priority, &tag, &text);
            ++(parsed ? written : skipped);
            return !parsed || writer.write(header, priority, tag, text, missing);
        });
    if (status == 0)
        std::fprintf(stderr, "%s: %d entries written, %d lines did not parse\n", kProgram, written, skipped);
    return status;
}

int writeLines(Writer& writer, const Arguments& arguments, const std::string& message, bool fromInput) {
    auto write = [&](std::string_view text, uint64_t missing) {
        return writer.write(LoggerHeader{}, priorityOf(arguments.priority), arguments.tag, text, missing);
    };
    if (fromInput)
        return forEachLine(writer, STDIN_FILENO, "standard input", write);
    return write(message, 0) && writer.finish() ? 0 : failedWrite();
}

int printHelp() {
    std::fputs(kHelp, stdout);
    return finishOutput(kProgram);
}

/** Takes over one option. kGoOn or the exit status. */
int takeOption(int choice, Arguments* arguments) {
    switch (choice) {
    case 'b':
        arguments->device = optarg;
        break;
    case 'p':
        arguments->priority = std::strlen(optarg) == 1 ? optarg[0] : '\0';
        break;
    case 't':
        arguments->tag = optarg;
        break;
    case 'r':
        arguments->replay = optarg;
        break;
    case 'y':
        arguments->year = vnlog::parseNumber(optarg);
        break;
    case 'l':
        arguments->lossless = true;
        break;
    default:
        return commonOption(choice, kProgram, printHelp);
    }
    return kGoOn;
}

/** What is wrong with the arguments; null when nothing is. */
const char* objection(const Arguments& arguments, bool withMessage) {
    if (arguments.device != "main" && arguments.device != "system")
        return "-b takes main or system";
    if (priorityOf(arguments.priority) == 0)
        return "-p takes v, d, i, w, e or f";
    if (arguments.replay.empty())
        return arguments.tag.empty()            ? "a tag (-t) is needed"
               : arguments.tag.size() > kMaxTag ? "the tag (-t) is too long for an entry"
                                                : nullptr;
    if (withMessage || !arguments.tag.empty())
        return "--replay takes neither a tag nor a message";
    return arguments.year >= 1970 && arguments.year <= 2037 ? nullptr : "--year takes 1970 to 2037";
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): without memory for a line, the program ends in any case
int main(int argc, char** argv) {
    fillStandardDescriptors();
    Arguments arguments;
    std::time_t now = std::time(nullptr);
    arguments.year = std::localtime(&now)->tm_year + 1900;
    const option options[] = {kHelpOption,
                              kVersionOption,
                              kSysrootOption,
                              {"replay", required_argument, nullptr, 'r'},
                              {"year", required_argument, nullptr, 'y'},
                              {"lossless", no_argument, nullptr, 'l'},
                              kEndOfOptions};
    int status = kGoOn;
    for (int choice;
         status == kGoOn && (choice = getopt_long(argc, argv, "b:p:t:hV", options, nullptr)) != -1;)
        status = takeOption(choice, &arguments);
    if (status != kGoOn)
        return status;
    bool withMessage = optind < argc;
    if (const char* wrong = objection(arguments, withMessage)) {
        std::fprintf(stderr, "%s: %s\n", kProgram, wrong);
        return hintAtHelp(kProgram);
    }
    vnlog::platform::SystemRoot root;
    (void)root.read(); // a root that is too long has no device
    std::string path = std::string(root.path) +
                       (arguments.device == "main" ? root.places().mainDevice : root.places().systemDevice);
    FileDescriptor device = vnlog::platform::openLogger(
        path.c_str(), arguments.lossless ? LoggerAccess::WriteLossless : LoggerAccess::Write);
    if (!device.valid()) {
        std::fprintf(stderr, "%s: cannot open %s: %s\n", kProgram, path.c_str(), std::strerror(errno));
        return kFailure;
    }
    Writer writer(std::move(device));
    if (arguments.lossless && !writer.standIn()) {
        std::fprintf(stderr, "%s: %s does not let a writer wait, --lossless cannot be kept\n", kProgram,
                     path.c_str());
        return kFailure;
    }
    if (!arguments.replay.empty() && !writer.standIn()) {
        std::fprintf(stderr, "%s: %s makes its own stamps, nothing can be replayed to it\n", kProgram,
                     path.c_str());
        return kFailure;
    }
    std::string message;
    for (int i = optind; i < argc; ++i)
        message += (i > optind ? " " : "") + std::string(argv[i]);
    status = arguments.replay.empty() ? writeLines(writer, arguments, message, !withMessage)
                                      : replay(writer, arguments);
    if (writer.shortened() > 0)
        std::fprintf(stderr, "%s: %d entries were too long and have been cut\n", kProgram,
                     writer.shortened());
    return status;
}
