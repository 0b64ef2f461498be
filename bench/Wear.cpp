// SPDX-License-Identifier: Apache-2.0
#include "bench/Wear.h"

#include "bench/Report.h"
#include "storage/Layout.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace vnlog::bench {

namespace {

constexpr size_t kWriteBackSeconds = 30; ///< after which the kernel writes dirty pages by itself
constexpr size_t kFewLines = 6000; ///< about a dozen sections
constexpr size_t kFewSeconds = 600; ///< two of the longest interval
constexpr double kPage = 4096, kSector = 512;
constexpr int kProbes = 200;

/** A pace and a setting. */
struct Pace {
    size_t interval; ///< FLUSH_INTERVAL in seconds, 0: none
    size_t rate; ///< lines a second
};

constexpr std::array<Pace, 9> kPaces = {
    {{30, 1}, {30, 10}, {30, 100}, {300, 1}, {300, 10}, {300, 100}, {0, 1}, {0, 10}, {0, 100}}};

/** What one pace has written; bytes and numbers for all of its lines. */
struct Wear {
    double data = 0; ///< bytes of pages
    double syncs = 0;
    double archived = 0; ///< bytes of an archive for each line in it
    std::string failure;
};

/** Bytes that the folder's block device has written since the system's start; negative without one. */
double deviceWrites(const std::string& folder) {
    struct stat info {};
    if (stat(folder.c_str(), &info) != 0)
        return -1;
    std::ostringstream path;
    path << "/sys/dev/block/" << major(info.st_dev) << ':' << minor(info.st_dev) << "/stat";
    std::istringstream fields(contentOf(path.str()));
    double value = -1;
    for (int i = 0; i < 7; ++i)
        if (!(fields >> value))
            return -1;
    return value * kSector;
}

/**
 * Bytes that a sync after a small append costs beside the page itself: the file system's metadata, and its
 * journal where it has one. The median of many, for others write to the device meanwhile. Negative when not
 * to be told.
 */
double metadataOfSync(const std::string& folder) {
    const Place place(folder);
    FileDescriptor file = openFile((place.path() + "/probe").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const std::string line(15, '.'); // all of them stay in one page
    std::vector<double> costs;
    for (int i = 0; i < kProbes && file.valid(); ++i) {
        const double before = deviceWrites(folder);
        if (before < 0 || !writeAll(file.get(), line.data(), line.size()) || fsync(file.get()) != 0)
            return -1;
        costs.push_back(deviceWrites(folder) - before - kPage);
    }
    return costs.empty() ? -1 : median(costs);
}

/**
 * Syncs in a trace that the file system has something to do for: all but those of a folder right after one of
 * the text in it, which follow each other at every interval, whether or not a name has changed.
 */
double syncsIn(const std::string& trace) {
    double count = 0;
    bool afterText = false;
    std::istringstream lines(contentOf(trace));
    for (std::string line; std::getline(lines, line);) {
        if (line.find("sync(") == std::string::npos)
            continue; // its return, in a line of its own
        const bool folder = line.find('.', line.rfind('/')) == std::string::npos;
        count += folder && afterText ? 0 : 1;
        afterText = line.find(".txt>") != std::string::npos;
    }
    return count;
}

/** Has the service bring everything to the medium, as it does by itself when the interval is over. */
bool syncNow(const ServiceOptions& options, const Service& service) {
    Sample unused;
    return Child({options.programs + "/logset", "--sysroot", service.root(), "FLUSH", "--wait", "--sync"})
               .wait(&unused) == 0;
}

/** Does what the kernel does with pages that have been dirty for long. */
bool writeBack(const Service& service) {
    for (const std::string& path : filesOf(service.logFolder() + "/current")) {
        FileDescriptor file = openFile(path.c_str(), O_RDONLY);
        if (file.valid() ? fdatasync(file.get()) != 0 : errno != ENOENT) // a section may just be archived
            return false;
    }
    return true;
}

/** Sends the corpus at a pace, without the pauses. False with errno set, or when logset has failed. */
bool sendPaced(const ServiceOptions& options, const Service& service, int writer, const Corpus& corpus,
               const Pace& pace, size_t count) {
    const size_t step = pace.rate * kWriteBackSeconds;
    size_t seconds = 0;
    for (size_t begin = 1; begin < count; begin += step) {
        const size_t end = std::min(count, begin + step);
        if (!sendPackets(writer, begin, end, [&](size_t i) { return corpus.packet(i); }))
            return false;
        seconds += kWriteBackSeconds;
        const bool due = pace.interval != 0 && seconds % pace.interval == 0;
        if (due ? !syncNow(options, service) : !writeBack(service))
            return false;
    }
    return syncNow(options, service);
}

/** Bytes of an archive for each line in it; 0 when there is no archive. */
double archivedPerLine(const std::vector<std::string>& sections, const Corpus& corpus, size_t count) {
    double archives = 0, plain = 0;
    for (const std::string& path : sections) {
        struct stat info {};
        if (stat(path.c_str(), &info) == 0)
            (path.find(".gz") != std::string::npos ? archives : plain) += static_cast<double>(info.st_size);
    }
    const double line = static_cast<double>(corpus.text().size()) / static_cast<double>(corpus.count());
    return archives / (static_cast<double>(count) - plain / line);
}

/** Why the numbers cannot be true; empty when they can. */
std::string implausible(const Wear& wear, size_t count, const std::string& folder) {
    if (wear.data <= 0)
        return deviceWrites(folder) < 0
                   ? "the folder (--folder) is on no block device, the kernel counts nothing"
                   : "the kernel counts nothing for the folder's block device";
    if (wear.data < wear.archived * static_cast<double>(count))
        return "fewer bytes were counted than are stored";
    return wear.syncs < 1 ? "no sync was counted" : "";
}

Wear measurePace(const ServiceOptions& options, const Corpus& corpus, const Pace& pace, size_t count) {
    Wear wear;
    Service service(options);
    const std::string trace = service.root() + "/syncs";
    FileDescriptor writer;
    bool good =
        service.start({"strace", "-f", "-y", "-o", trace, "-e", "trace=fsync,fdatasync,syncfs,sync"}) &&
        service.openRoad(corpus, (writer = service.connect()).get());
    const double data = bytesToMedium(service.pid()), syncs = syncsIn(trace);
    if (good && !sendPaced(options, service, writer.get(), corpus, pace, count)) {
        wear.failure = std::string("not all could be sent and synced: ") + std::strerror(errno);
        return wear;
    }
    wear.data = bytesToMedium(service.pid()) - data;
    wear.syncs = syncsIn(trace) - syncs;
    Sample sample;
    if (!good || !service.stop(&sample)) {
        wear.failure = service.failure();
        return wear;
    }
    const std::vector<std::string> sections = storedSections(service.root());
    compare(sections, corpus, count, Form::Exact, &sample);
    wear.archived = archivedPerLine(sections, corpus, count);
    wear.failure = sample.lost > 0 ? "lines were lost" : sample.failure;
    if (wear.failure.empty())
        wear.failure = implausible(wear, count, options.folder);
    return wear;
}

std::string row(const Pace& pace, const Wear& wear, size_t count, double metadata) {
    const auto lines = static_cast<double>(count);
    const double data = wear.data / lines, all = (wear.data + wear.syncs * std::max(metadata, 0.0)) / lines;
    const double day = all * static_cast<double>(pace.rate) * 86400 / 1048576;
    return format("| %s | %s | %.0f | %.1f | ",
                  pace.interval != 0 ? std::to_string(pace.interval).c_str() : "0 (none)",
                  std::to_string(pace.rate).c_str(), data, wear.syncs * 1000 / lines) +
           (metadata < 0 ? "– | – |\n" : format("%.0f | %.0f |\n", all, day));
}

std::string summary(const Corpus& corpus, double archived, double metadata) {
    const double line = static_cast<double>(corpus.text().size()) / static_cast<double>(corpus.count());
    return format("A line has %.0f bytes as text and %.0f in an archive. ", line, archived) +
           (metadata < 0 ? std::string("What a sync costs beside its page cannot be told here.")
                         : format("A sync costs %.0f bytes beside its page.", metadata)) +
           "\n\n";
}

/** Why nothing can be traced; empty when it can. A container may have the program and refuse its calls. */
std::string cannotTrace() {
    Sample unused;
    if (!isInstalled("strace"))
        return "strace is not installed";
    return Child({"strace", "-f", "-o", "/dev/null", "true"}).wait(&unused) == 0 ? ""
                                                                                 : "strace cannot trace here";
}

} // namespace

std::string measureWear(ServiceOptions options, size_t lines, std::string* failure) {
    *failure = cannotTrace();
    if (!failure->empty())
        return {};
    // The clock must not ask for more syncs than the paces do, nor a line by its priority.
    options.memoryFile = false;
    options.settings = "FLUSH_INTERVAL=0\nFLUSH_PRIORITY=s\n";
    const Corpus corpus = Corpus::makeUp(std::min(lines, kPaces.back().rate * kFewSeconds));
    const double metadata = metadataOfSync(options.folder);
    std::string table =
        "| `FLUSH_INTERVAL` | lines a second | data, bytes a line | syncs per 1000 lines | with "
        "metadata, bytes a line | MiB a day |\n|---|---|---|---|---|---|\n";
    double archived = 0;
    for (const Pace& pace : kPaces) {
        const size_t count = std::min(corpus.count(), std::max(pace.rate * kFewSeconds, kFewLines));
        const Wear wear = measurePace(options, corpus, pace, count);
        *failure = wear.failure;
        if (!failure->empty())
            return {};
        archived = wear.archived;
        table += row(pace, wear, count, metadata);
    }
    return summary(corpus, archived, metadata) + table;
}

} // namespace vnlog::bench
