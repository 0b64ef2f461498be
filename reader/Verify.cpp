// SPDX-License-Identifier: Apache-2.0
#include "reader/Inspection.h"

#include "base/Text.h"
#include "reader/BundleNames.h"
#include "reader/SectionText.h"
#include "storage/Archive.h"
#include "storage/Bookkeeping.h"
#include "storage/FileSteps.h"
#include "storage/Listing.h"
#include "storage/RootLock.h"
#include "storage/RunList.h"
#include "storage/SectionFacts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

namespace vnlog {

namespace {

constexpr size_t kMostOfTheList = 1048576; ///< bytes of the list of runs that are looked at
constexpr char kLeaves[] = "leave it as it is";

/** A name as it can be shown. */
std::string shown(const char* name) {
    std::string text;
    for (; *name != '\0'; ++name) {
        char escaped[8];
        auto byte = static_cast<unsigned char>(*name);
        (void)formatText(escaped, byte < ' ' || byte >= 0x7f || byte == '\\' ? "\\x%02x" : "%c", byte);
        text += escaped;
    }
    return text;
}

std::string many(uint64_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string range(uint32_t first, uint32_t last) {
    return first == last ? " " + std::to_string(first)
                         : "s " + std::to_string(first) + " to " + std::to_string(last);
}

/** The bookkeeping's numbers as they are told; the state is nobody else's. */
std::string numbersOf(const StorageState& state) VNLOG_UNCHECKED {
    return "total " + std::to_string(state.mTotalLogSize) + ", head " + std::to_string(state.mHeadFolderNum) +
           ", tail " + std::to_string(state.mTailFolderNum) + ", oldest " +
           std::to_string(state.mOldestFileNum);
}

/** What the list of runs tells of a run. */
struct ListedRun {
    uint32_t archived = 0;
    bool moved = false; ///< it began under another root
    bool closed = false; ///< a start has archived it
};

/** Checks one store, once. */
class Verification {
  public:
    Verification(const StoreFolder& folder, TextOut& out) : mFolder(folder), mOut(out) {}

    uint32_t run();

  private:
    void finding(const std::string& what, const std::string& next);
    void note(const std::string& what);

    void tellService();
    void checkRoot();
    bool checkLogs();
    void checkLogEntry(const Listing& listing, const StoredEntry& entry);
    void checkOwner(const std::string& name, const struct stat& info, const char* next);
    void checkRunNumbers();
    bool isThere(uint32_t run) const;
    void readRunList();
    void checkListLine(std::string_view line, uint32_t number);
    void checkListedRuns();
    FileDescriptor openNumbers();
    void checkNumbers() VNLOG_UNCHECKED;

    void checkRun(uint32_t run);
    bool walkRun(uint32_t run);
    void checkRunEntry(uint32_t run, const StoredEntry& entry, const RunContent& content);
    void checkGaps(uint32_t run, const std::vector<StoredSection>& sections);
    void checkSection(int folder, uint32_t run, const StoredSection& section, bool newest);
    void checkArchive(int folder, uint32_t run, const StoredSection& section);
    void checkPair(int folder, const StoredSection& section, const std::string& name);
    void checkText(int folder, uint32_t run, const StoredSection& section, bool newest);
    bool readText(int folder, uint32_t run, const StoredSection& section, SectionSummary* archive);
    bool mayBeginLater(uint32_t run) const;

    const StoreFolder& mFolder;
    TextOut& mOut;
    int mService = 0; ///< process of the service that uses the store
    uid_t mOwner = 0; ///< user of the store
    std::set<uint32_t> mRuns;
    bool mCurrent = false;
    std::map<uint32_t, ListedRun> mListed; ///< by the run's number in the list
    uint32_t mOldestHolding = kNoNumber;
    SectionText mText;

    uint32_t mFindings = 0;
    uint32_t mSections = 0;
    uint64_t mStored = 0, mChecked = 0; ///< bytes
};

void Verification::finding(const std::string& what, const std::string& next) {
    ++mFindings;
    mOut.write(what + "; the next start will " + next + "\n");
}

/** Tells of a usual state. */
void Verification::note(const std::string& what) {
    mOut.write("note: " + what + "\n");
}

uint32_t Verification::run() {
    tellService();
    checkRoot();
    if (checkLogs()) {
        checkRunNumbers();
        readRunList();
        checkListedRuns();
        checkNumbers();
        for (uint32_t number : mRuns)
            checkRun(number);
        if (mCurrent)
            checkRun(kCurrentRun);
    }
    mOut.write(many(mRuns.size() + (mCurrent ? 1 : 0), "run") + ", " + many(mSections, "section") + ", " +
               many(mStored, "byte") + " stored, " + many(mChecked, "byte") +
               " of text checked: " + (mFindings == 0 ? "in order" : many(mFindings, "finding")) + "\n");
    return mFindings;
}

void Verification::tellService() {
    mService = RootLock::holderAt(mFolder.root().c_str());
    note(mService == 0 ? "no service uses the store now"
                       : "the service of process " + std::to_string(mService) + " uses the store");
}

/** What lies beside the log folder. */
void Verification::checkRoot() {
    struct stat info;
    const std::string data = mFolder.root() + "/" + kBookkeepingFile, damaged = mFolder.logs() + ".damaged";
    if (lstat((data + kDraftEnd).c_str(), &info) == 0)
        note(std::string(kBookkeepingFile) + kDraftEnd + " was not finished; the next save will replace it");
    if (lstat(damaged.c_str(), &info) == 0)
        finding(shown(std::strrchr(damaged.c_str(), '/') + 1) + " is a store that contradicted itself",
                "leave it; it is the first to go when a section needs room");
}

/** Lists the log folder. False, told, when that cannot be done. */
bool Verification::checkLogs() {
    FileDescriptor folder = openFile(mFolder.logs().c_str(), O_RDONLY | O_DIRECTORY);
    struct stat info;
    if (folder.valid() && fstat(folder.get(), &info) == 0) {
        mOwner = info.st_uid;
        if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
            note("others may write to the log folder; the next start will take that right away");
    }
    Listing listing(std::move(folder));
    StoredEntry entry;
    while (listing.valid() && listing.next(&entry))
        checkLogEntry(listing, entry);
    if (listing.valid() && !listing.failed())
        return true;
    finding("the log folder cannot be listed: " + errorText(errno), "store nothing where it cannot, either");
    return false;
}

void Verification::checkLogEntry(const Listing& listing, const StoredEntry& entry) {
    const std::string name = shown(entry.name);
    struct stat info;
    if (!listing.examine(entry, &info))
        return; // it has gone
    const bool list = std::strcmp(entry.name, kRunListFile) == 0;
    const bool current = entry.kind == NameKind::Current;
    const bool folder = entry.type == EntryType::Folder && (current || entry.kind == NameKind::Run);
    if (folder || (list && entry.type == EntryType::File))
        checkOwner(name, info, current ? "refuse it and store nothing" : "perhaps not be able to work on it");
    if (entry.isRun() && entry.number != kCurrentRun)
        mRuns.insert(entry.number);
    else if (folder && current)
        mCurrent = true;
    else if (current)
        finding(name + " is no folder", "refuse it and store nothing");
    else if (entry.kind == NameKind::Run)
        finding(name + " has the name of a run and is none", "leave it, and give its number to no run");
    else if (list && entry.type != EntryType::File)
        finding(name + " is no regular file", "go on without a list of runs");
    else if (name == std::string(kRunListFile) + kDraftEnd)
        note(name + " was not finished; a later one will take its place");
    else if (!list && name.find(".stray") != std::string::npos &&
             name.compare(0, sizeof kRunName - 1, kRunName) == 0)
        finding(name + " was moved aside by an earlier start, for it held no section", kLeaves);
    else if (!list)
        finding(name + " has no name of the store's", kLeaves);
}

void Verification::checkOwner(const std::string& name, const struct stat& info, const char* next) {
    if (info.st_uid != mOwner && info.st_uid != 0)
        finding(name + " belongs to user " + std::to_string(info.st_uid) + ", the store to user " +
                    std::to_string(mOwner),
                next);
}

void Verification::checkRunNumbers() {
    uint32_t expected = mRuns.empty() ? 0 : *mRuns.begin();
    for (uint32_t run : mRuns) {
        if (run > expected && !isThere(expected) && isThere(*mRuns.begin()))
            finding("run" + range(expected, run - 1) + (run - expected > 1 ? " are" : " is") + " missing",
                    "go on with the runs that are there");
        expected = run + 1;
    }
}

/** Whether anything has the name of the run: one that is deleted for the bound meanwhile has not. */
bool Verification::isThere(uint32_t run) const {
    struct stat info;
    return lstat(mFolder.runPath(run).c_str(), &info) == 0;
}

// --- The list of runs

void Verification::readRunList() {
    FileDescriptor file = openFile((mFolder.logs() + "/" + kRunListFile).c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    std::string text(kMostOfTheList, '\0');
    size_t count = 0;
    if (!file.valid())
        return note("there is no list of runs"); // or none that may be read, which its owner tells
    if (!readPiece(file.get(), text.data(), text.size(), &count))
        return finding(std::string(kRunListFile) + " cannot be read: " + errorText(errno),
                       "go on without it");
    text.resize(count);
    uint32_t number = 1;
    for (size_t at = 0; at < text.size(); ++number) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos && mService == 0 && count < kMostOfTheList)
            finding(std::string(kRunListFile) + ": its last line is cut off", "go on behind it");
        if (end == std::string::npos)
            break;
        checkListLine(std::string_view(text).substr(at, end - at), number);
        at = end + 1;
    }
}

void Verification::checkListLine(std::string_view line, uint32_t number) {
    RunLine parsed;
    if (!parseRunLine(line, &parsed))
        return finding(std::string(kRunListFile) + ": line " + std::to_string(number) +
                           " is none of the store's",
                       kLeaves);
    ListedRun& run = mListed[parsed.number(RunKey::Run)];
    run.moved = run.moved || !parsed[RunKey::From].empty();
    if (parsed[RunKey::Event] == kRunArchived) {
        run.closed = true;
        run.archived = parsed.number(RunKey::Archived);
    }
}

void Verification::checkListedRuns() {
    std::set<uint32_t> told;
    for (const auto& [number, run] : mListed) {
        if (run.archived == 0)
            continue;
        if (!told.insert(run.archived).second)
            finding(std::string(kRunListFile) + " tells of last_" + std::to_string(run.archived) + " twice",
                    kLeaves);
        if (mRuns.count(run.archived) == 0 && mService == 0)
            finding(std::string(kRunListFile) + " tells of last_" + std::to_string(run.archived) +
                        ", which is not there",
                    "take those lines out");
    }
    uint64_t untold = static_cast<uint64_t>(
        std::count_if(mRuns.begin(), mRuns.end(), [&](uint32_t run) { return told.count(run) == 0; }));
    if (untold > 0 && !mListed.empty())
        note(std::string(kRunListFile) + " does not tell of " + many(untold, "run"));
}

// --- The bookkeeping

/** Opens the file with the numbers. Not valid, told, when there is nothing to be read. */
FileDescriptor Verification::openNumbers() {
    FileDescriptor file = openFile((mFolder.root() + "/" + kBookkeepingFile).c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    struct stat info;
    const std::string name = kBookkeepingFile;
    if (!file.valid() && errno == ENOENT) {
        note(name + " is not there; the next start will count the folders");
    } else if (!file.valid() || fstat(file.get(), &info) != 0) {
        finding(name + " cannot be read: " + errorText(errno), "count the folders");
    } else if (!S_ISREG(info.st_mode)) {
        finding(name + " is no regular file", "count the folders");
        file = FileDescriptor();
    } else {
        checkOwner(name, info, "count the folders");
    }
    return file;
}

/** Counts as a start does. */
void Verification::checkNumbers() { // nobody else knows the state
    FileDescriptor file = openNumbers();
    FileDescriptor logs = openFile(mFolder.logs().c_str(), O_RDONLY | O_DIRECTORY);
    if (!file.valid())
        return;
    StorageState state;
    formatText(state.mLogServiceDir, "/proc/self/fd/%d/.", logs.get()); // short, whatever the store's path is
    formatText(state.mCurrentDir, "/proc/self/fd/%d/%s", logs.get(), kCurrentFolder);
    formatText(state.mStorageDataFile, "%s", kBookkeepingFile);
    Bookkeeping numbers(state);
    if (!numbers.parse(std::move(file)))
        return finding(std::string(kBookkeepingFile) + " is damaged", "count the folders");
    const std::string read = numbersOf(state);
    bool differs = false;
    if (!numbers.recount(&differs))
        return finding("the folders cannot be counted: " + errorText(errno),
                       "store nothing where it cannot, either");
    const std::string what =
        std::string(kBookkeepingFile) + " says " + read + "; the folders say " + numbersOf(state);
    if (differs && mService != 0)
        note(what + ", for the service is at work");
    else if (differs)
        finding(what, "take what the folders say");
}

// --- The runs

void Verification::checkRun(uint32_t run) {
    FileDescriptor folder = mFolder.openRun(run);
    std::vector<StoredSection> sections;
    if (!folder.valid() && errno == ENOENT && mService != 0)
        return; // deleted, or archived
    if (!walkRun(run) || !folder.valid() || !listSections(folder.get(), &sections))
        return finding(shown(lastName(mFolder.runPath(run).c_str())) +
                           " cannot be listed: " + errorText(errno),
                       "not list it, either");
    mSections += static_cast<uint32_t>(sections.size());
    checkGaps(run, sections);
    for (const StoredSection& section : sections)
        checkSection(folder.get(), run, section, &section == &sections.back());
}

/** Looks at the names in a run. False with errno set. */
bool Verification::walkRun(uint32_t run) {
    const std::string path = mFolder.runPath(run);
    RunContent content;
    if (!lookIntoRun(path.c_str(), &content, Look::Names))
        return false;
    Listing listing(path.c_str());
    StoredEntry entry;
    bool empty = true;
    while (listing.valid() && listing.next(&entry)) {
        empty = false;
        checkRunEntry(run, entry, content);
        struct stat info;
        if (entry.type != EntryType::File || !listing.examine(entry, &info))
            continue;
        checkOwner(shownName(run, entryPath(".", shown(entry.name).c_str())).text, info, kLeaves);
        mStored += bundledFromRun(entry.name) ? static_cast<uint64_t>(info.st_size) : 0;
    }
    if (run != kCurrentRun && !content.holdsSection() && !content.older)
        finding(runFolder(kRunName, run).text + std::string(empty ? " is empty" : " holds no section"),
                empty ? "remove it"
                      : "move it to " + std::string(strayFolder(runFolder(kRunName, run).text, 0).text));
    return listing.valid() && !listing.failed();
}

void Verification::checkRunEntry(uint32_t run, const StoredEntry& entry, const RunContent& content) {
    const std::string name = shownName(run, entryPath(".", shown(entry.name).c_str())).text;
    const bool section = entry.kind == NameKind::Archive || entry.kind == NameKind::PlainText;
    const bool older = entry.kind == NameKind::OlderArchive || entry.kind == NameKind::OlderText;
    const bool closes = run == kCurrentRun || content.text || content.older || content.draft;
    if (entry.type != EntryType::File && entry.kind != NameKind::Foreign)
        finding(name + " is no regular file", kLeaves);
    else if (older)
        finding(name + " is a log of an older form", "give it the number of a section");
    else if (entry.kind == NameKind::OtherText)
        finding(name + " is no section's text", closes ? "compress it" : kLeaves);
    else if (entry.kind == NameKind::Draft)
        note(name +
             (mService != 0 ? " is being written" : " was not finished; the next start will remove it"));
    else if (!section)
        finding(name + " has no name of the store's", kLeaves);
}

/** Whether sections at a run's beginning can have been deleted by the bound, or lie under another root. */
bool Verification::mayBeginLater(uint32_t run) const {
    if (run == mOldestHolding || mOldestHolding == kNoNumber || !isThere(mOldestHolding))
        return true;
    return std::any_of(mListed.begin(), mListed.end(), [run](const auto& listed) {
        return listed.second.moved &&
               (run == kCurrentRun ? !listed.second.closed : listed.second.archived == run);
    });
}

void Verification::checkGaps(uint32_t run, const std::vector<StoredSection>& sections) {
    if (!sections.empty() && run != kCurrentRun)
        mOldestHolding = std::min(mOldestHolding, run);
    const bool later = mayBeginLater(run);
    uint32_t expected = 1;
    for (const StoredSection& section : sections) {
        bool first = &section == &sections.front();
        if (section.number > expected && !(first && later))
            finding(std::string(run == kCurrentRun ? kCurrentFolder : runFolder(kRunName, run).text) +
                        ": section" + range(expected, section.number - 1) +
                        (section.number - expected > 1 ? " are" : " is") + " missing",
                    "go on with those that are there");
        expected = section.number + 1;
    }
}

void Verification::checkSection(int folder, uint32_t run, const StoredSection& section, bool newest) {
    if (section.archive)
        checkArchive(folder, run, section);
    if (section.archive && section.text)
        checkPair(folder, section, shownName(run, textName(section.number)).text);
    else if (section.text)
        checkText(folder, run, section, newest);
}

/** Reads a section's text to its end, with `archive` that of its archive, which is summed up there. False,
 * told, when that cannot be done. */
bool Verification::readText(int folder, uint32_t run, const StoredSection& section, SectionSummary* archive) {
    std::string_view piece;
    const StoredSection form = {section.number, section.archive, section.text && archive == nullptr};
    if (mText.open(folder, run, form))
        while (mText.read(&piece)) {
            mChecked += piece.size();
            if (archive != nullptr)
                archive->add(piece);
        }
    if (mText.state() == TextState::Whole)
        return true;
    if (mText.state() == TextState::Vanished && mService != 0)
        note(mText.finding());
    else
        finding(mText.finding(), section.text ? "decide by the text beside it" : kLeaves);
    return false;
}

void Verification::checkArchive(int folder, uint32_t run, const StoredSection& section) {
    const std::string name = shownName(run, archiveName(section.number)).text;
    FileDescriptor archive = openStored(folder, archiveName(section.number).text);
    SectionFacts facts, before;
    const bool told = archive.valid() && readFacts(archive.get(), &facts);
    before.openEnd = facts.continues; // all that matters of the section before for what is compared
    SectionSummary summary;
    summary.begin(facts.origin, section.number, facts.continuesKnown ? &before : nullptr, facts.reference);
    if (!readText(folder, run, section, &summary))
        return;
    // The service takes only what has nothing behind it, not even zeros.
    FileDescriptor nothing = openFile("/dev/null", O_RDONLY);
    if (archive.valid() && comparePair(archive.get(), nothing.get()) == PairKind::Damaged)
        finding(name + " has something behind its end", kLeaves);
    const SectionFacts sum = summary.end();
    const bool same = sum.lines == facts.lines && sum.forms == facts.forms &&
                      sum.lostHere == facts.lostHere && sum.openEnd == facts.openEnd &&
                      std::memcmp(sum.counts, facts.counts, sizeof sum.counts) == 0;
    if (archive.valid() && hasDamagedFacts(archive.get()))
        finding(name + " has damaged facts about its lines", kLeaves);
    if (told && !same)
        finding(name + " says something else of its lines than its text", kLeaves);
}

void Verification::checkPair(int folder, const StoredSection& section, const std::string& name) {
    FileDescriptor archive = openStored(folder, archiveName(section.number).text);
    FileDescriptor text = openStored(folder, textName(section.number).text);
    if (!archive.valid() || !text.valid())
        return; // the service has settled it meanwhile, or it was told when the archive was read
    std::string next;
    switch (comparePair(archive.get(), text.get())) {
    case PairKind::Covers:
        next = "remove the text, which the archive holds";
        break;
    case PairKind::Damaged:
    case PairKind::Continued:
        next = "compress the text in the archive's place";
        break;
    case PairKind::Different:
        next = "keep both: the text becomes a section of the next free number";
        break;
    case PairKind::Unreadable:
        next = kLeaves;
        break;
    }
    if (mService != 0)
        note(name + " has an archive beside it, for the service is at work");
    else
        finding(name + " has an archive beside it", next);
}

void Verification::checkText(int folder, uint32_t run, const StoredSection& section, bool newest) {
    const std::string name = shownName(run, textName(section.number)).text;
    if (!readText(folder, run, section, nullptr) || section.number == 0) // which is told with the names
        return;
    if (run == kCurrentRun && mService != 0)
        return note(name + (newest ? " is being written" : " is not compressed yet"));
    if (run == kCurrentRun && newest)
        return note(name +
                    " is where the last run ended; the next start will compress it and archive the run");
    finding(name + " is not compressed", "compress it");
}

} // namespace

uint32_t verifyStore(const StoreFolder& folder, TextOut& out) {
    return Verification(folder, out).run();
}

} // namespace vnlog
