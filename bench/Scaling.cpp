// SPDX-License-Identifier: Apache-2.0
#include "bench/Scaling.h"

#include "bench/Report.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

namespace vnlog::bench {

namespace {

constexpr size_t kRunSections = 70; ///< sections of one archived run of a made-up store
constexpr size_t kCuts = 20; ///< sections that are cut by one measurement
constexpr size_t kSection = 65536;
constexpr size_t kMostText = size_t{32} * 1024 * 1024; ///< bytes of one measurement's lines

using Measure = std::function<std::vector<double>(std::string* failure)>;

/** A row of a table: a name, and the medians of what a measurement gives. */
std::string row(const std::string& name, size_t rounds, const Measure& measure, std::string* failure) {
    std::vector<std::vector<double>> columns;
    for (size_t round = 0; round < rounds && failure->empty(); ++round) {
        const std::vector<double> values = measure(failure);
        columns.resize(values.size());
        for (size_t i = 0; i < values.size(); ++i)
            columns[i].push_back(values[i]);
    }
    std::string text = "| " + name + " |";
    for (const auto& column : columns)
        text += " " + format(median(column) < 100 ? "%.2f" : "%.0f", median(column)) + " |";
    return text + "\n";
}

std::vector<double> perLine(const ServiceOptions& options, const Corpus& corpus, std::string* failure) {
    const Sample sample = measureService(options, corpus, corpus.count());
    *failure = !sample.failure.empty() ? sample.failure : sample.lost > 0 ? "lines were lost" : "";
    const auto lines = static_cast<double>(corpus.count());
    return {lines / sample.wall, sample.processor / lines * 1e6};
}

/** Puts archived runs with copies of one archive into a store that was never used. False with errno set. */
bool populate(const Service& service, size_t sections, const std::string& archive) {
    const std::string runs = service.logFolder() + "/" + kRunName;
    for (size_t i = 0; i < sections; ++i) {
        const Path run = runFolder(runs.c_str(), static_cast<uint32_t>(i / kRunSections + 1));
        const Path section = sectionArchive(run.text, static_cast<uint32_t>(i % kRunSections + 1));
        if ((i % kRunSections == 0 && !makeFolders(run.text)) || !writeFile(section.text, archive))
            return false;
    }
    return true;
}

/** An archive as the service makes it, of one section of the corpus; empty after a failure. */
std::string oneArchive(const ServiceOptions& options, const Corpus& corpus) {
    Service service(options);
    Sample unused;
    FileDescriptor writer;
    if (!service.start() || !service.openRoad(corpus, (writer = service.connect()).get()) ||
        !service.stop(&unused) || !service.start() || !service.stop(&unused))
        return {};
    return contentOf(service.logFolder() + "/last_1/log_1.txt.gz");
}

/** Milliseconds from the start to the first stored line, and of processor time for each section that is cut.
 */
std::vector<double> startAndCut(const ServiceOptions& options, const Corpus& corpus, size_t sections,
                                const std::string& archive, std::string* failure) {
    Service service(options);
    Sample sample;
    if (!populate(service, sections, archive)) {
        *failure = std::string("cannot make a store: ") + std::strerror(errno);
        return {};
    }
    // The first start finds the runs, and gives the store its bookkeeping.
    bool good = service.start() && service.stop(&sample);
    settle(options.folder);
    double begin = now();
    FileDescriptor writer;
    good = good && service.launch() && service.openRoad(corpus, (writer = service.connect()).get());
    double started = now() - begin, before = processorTime(service.pid());
    good = good && sendPackets(writer.get(), 1, corpus.count(), [&](size_t i) { return corpus.packet(i); }) &&
           service.stop(&sample);
    *failure = service.failure();
    if (!good && failure->empty())
        *failure = "the sources take no more";
    const double cuts = static_cast<double>(corpus.text().size()) / kSection;
    return {started * 1e3, (sample.processor - before) * 1e3 / cuts};
}

} // namespace

std::string measureScaling(ServiceOptions options, size_t lines, size_t rounds, std::string* failure) {
    std::string table = "| writers | lines a second | µs of processor time a line |\n|---|---|---|\n";
    const Corpus corpus = Corpus::makeUp(lines);
    for (size_t writers : std::initializer_list<size_t>{1, 4, 16, 64}) {
        options.writers = writers;
        table += row(
            std::to_string(writers), rounds, [&](std::string* why) { return perLine(options, corpus, why); },
            failure);
    }
    options.writers = 1;
    table += "\n| characters a message | lines a second | µs of processor time a line |\n|---|---|---|\n";
    for (size_t length : std::initializer_list<size_t>{40, 140, 400, 1000, 4000}) {
        const Corpus even = Corpus::ofLength(std::min(lines, kMostText / length), length);
        table += row(
            std::to_string(length), rounds, [&](std::string* why) { return perLine(options, even, why); },
            failure);
    }
    table += "\n| stored sections | ms from the start to the first stored line | ms of processor time a "
             "section |\n"
             "|---|---|---|\n";
    const Corpus some = Corpus::ofLength(std::min(lines, kCuts * kSection / 140), 95);
    const std::string archive = oneArchive(options, some);
    if (archive.empty())
        *failure = "no archive was made";
    for (size_t sections : std::initializer_list<size_t>{0, 140, 1400, 14000})
        if (sections <= lines)
            table += row(
                std::to_string(sections), rounds,
                [&](std::string* why) { return startAndCut(options, some, sections, archive, why); },
                failure);
    return failure->empty() ? table : "";
}

} // namespace vnlog::bench
