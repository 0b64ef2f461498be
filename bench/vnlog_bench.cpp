// SPDX-License-Identifier: Apache-2.0
/*
 * Measures the service against the floor, the limit and other log programs, all with the same text.
 */
#include "bench/Bounds.h"
#include "bench/Child.h"
#include "bench/Corpus.h"
#include "bench/Peers.h"
#include "bench/Place.h"
#include "bench/Report.h"
#include "bench/Scaling.h"
#include "bench/ServiceRun.h"
#include "bench/Wear.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <getopt.h>

using namespace vnlog::bench;

namespace {

constexpr char kHelp[] =
    "Usage: vnlog_bench [OPTION]...\n"
    "Measures how long the service takes to store a log, and what that costs.\n"
    "\n"
    "  --programs DIR   the folder of logserviced (that of this program)\n"
    "  --folder DIR     work there, in a folder that is removed afterwards (/tmp)\n"
    "  --lines N        lines of the log (500000; at most 2000000)\n"
    "  --rounds N       how often everything is measured (3)\n"
    "  --corpus FILE    take the lines of a saved log in the threadtime form\n"
    "  --no-peers       leave out the other log programs\n"
    "  --scaling        also measure against writers, length of line and stored sections\n"
    "  --wear           measure the bytes that go to the medium instead; needs strace\n"
    "  --svg FILE       draw the comparison there\n"
    "  --markdown FILE  write the tables there as well\n"
    "  --help           show this text\n";

struct Arguments {
    std::string programs, folder = "/tmp", corpus, markdown, svg;
    bool peers = true, scaling = false, wear = false;
    size_t lines = 500000;
    size_t rounds = 3;
};

volatile std::sig_atomic_t interrupted = 0;

/** Ends what is running; the measurement then fails, and what it has made is removed. */
void interrupt(int) {
    interrupted = 1;
    Child::killLatest();
}

/** One thing to be measured, once a round. */
struct Task {
    Row row;
    std::function<Sample()> measure;
};

Task serviceTask(const char* name, const char* legend, const ServiceOptions& options, const Corpus& corpus) {
    const size_t few = std::min<size_t>(corpus.count(), 20000);
    auto measure = [=, &corpus, calls = -2.0]() mutable {
        if (calls < -1) // the same in every round
            calls = countSystemCalls(options, corpus, few);
        Sample sample = measureService(options, corpus, corpus.count());
        sample.calls = calls;
        return sample;
    };
    return {{name, Kind::Service, legend, {}}, measure};
}

ServiceOptions serviceOptions(const Arguments& arguments) {
    ServiceOptions options;
    options.programs = arguments.programs;
    options.folder = arguments.folder;
    return options;
}

std::vector<Task> makeTasks(const Arguments& arguments, const Corpus& corpus, std::string* missing) {
    std::vector<Task> tasks;
    tasks.push_back({{"floor", Kind::Floor, "the program gzip once per section of 64 KiB, nothing else", {}},
                     [&] { return measureFloor(arguments.folder, corpus.text()); }});
    tasks.push_back({{"limit",
                      Kind::Limit,
                      "zlib in one process, level 6, one state for all sections of 64 KiB, no sync",
                      {}},
                     [&] { return measureLimit(arguments.folder, corpus.text()); }});
    ServiceOptions options = serviceOptions(arguments);
    tasks.push_back(serviceTask("vnlog", "one lossless writer, sections of 64 KiB, archives by libdeflate",
                                options, corpus));
    options.sectionKib = 256;
    tasks.push_back(serviceTask("vnlog, 256 KiB", "the same with sections of 256 KiB", options, corpus));
    options.sectionKib = 64;
    options.kernelLines = corpus.count() / 5;
    tasks.push_back(serviceTask(
        "vnlog, kernel too", "as the first, with a fifth as many kernel lines beside them", options, corpus));
    for (const Peer& peer : knownPeers()) {
        if (!arguments.peers)
            break;
        if (!std::all_of(peer.programs.begin(), peer.programs.end(), isInstalled))
            *missing += peer.name + " is not installed and not measured.\n";
        else
            tasks.push_back({{peer.name, Kind::Peer, peer.legend, {}},
                             [&, measure = peer.measure] { return measure(arguments.folder, corpus); }});
    }
    return tasks;
}

void measureRounds(std::vector<Task>& tasks, size_t rounds) {
    for (size_t round = 1; round <= rounds; ++round)
        for (Task& task : tasks) {
            if (interrupted != 0)
                return;
            std::fprintf(stderr, "round %s: %s\n", std::to_string(round).c_str(), task.row.name.c_str());
            task.row.samples.push_back(task.measure());
        }
}

/** Whether the service lost nothing and everything could be measured; tells on standard error what not. */
bool inOrder(const std::vector<Row>& rows) {
    bool good = true;
    for (const Row& row : rows)
        for (const Sample& sample : row.samples) {
            const bool lost = sample.lost > 0 && row.kind == Kind::Service;
            if (sample.failure.empty() && !lost)
                continue;
            std::fprintf(stderr, "vnlog_bench: %s: %s\n", row.name.c_str(),
                         lost ? "lines were lost" : sample.failure.c_str());
            good = good && row.kind == Kind::Peer;
        }
    return good;
}

constexpr size_t kMostLines = 2000000; ///< all of them are held in memory

/** A number from 1 to the most lines; 0 for anything else. */
size_t parseCount(const char* text) {
    char* end = nullptr;
    errno = 0;
    unsigned long value = std::strtoul(text, &end, 10);
    return *text >= '1' && *text <= '9' && *end == '\0' && errno == 0 && value <= kMostLines ? value : 0;
}

/** The absolute path of a folder or a file; empty when there is none. */
std::string realPath(const std::string& path) {
    char* found = realpath(path.c_str(), nullptr);
    std::string result = found != nullptr ? found : "";
    std::free(found);
    return result;
}

bool takeOption(int choice, Arguments* arguments) {
    switch (choice) {
    case 'p':
        arguments->programs = optarg;
        return true;
    case 'f':
        arguments->folder = optarg;
        return true;
    case 'l':
        return (arguments->lines = parseCount(optarg)) != 0;
    case 'r':
        return (arguments->rounds = parseCount(optarg)) != 0;
    case 'c':
        arguments->corpus = optarg;
        return true;
    case 'n':
        arguments->peers = false;
        return true;
    case 'a':
        arguments->scaling = true;
        return true;
    case 'w':
        arguments->wear = true;
        return true;
    case 's':
        arguments->svg = optarg;
        return true;
    case 'm':
        arguments->markdown = optarg;
        return true;
    default:
        return false;
    }
}

int fail(const std::string& what) {
    std::fprintf(stderr, "vnlog_bench: %s: %s\n", what.c_str(), std::strerror(errno));
    return 1;
}

/** Prints a report and stores it where that is asked for. */
bool deliver(const Arguments& arguments, const std::string& report) {
    std::fputs(report.c_str(), stdout);
    return arguments.markdown.empty() || writeFile(arguments.markdown, report);
}

int measureOnlyWear(const Arguments& arguments) {
    std::string failure;
    const std::string table = measureWear(serviceOptions(arguments), arguments.lines, &failure);
    if (!failure.empty()) {
        std::fprintf(stderr, "vnlog_bench: wear: %s\n", failure.c_str());
        return 1;
    }
    return deliver(arguments, describeMachine(arguments.folder) + "\n\n" + table)
               ? 0
               : fail("cannot write " + arguments.markdown);
}

int measure(const Arguments& arguments) {
    Corpus corpus;
    Workload workload;
    workload.origin = arguments.corpus.empty() ? "made up from a fixed seed" : arguments.corpus;
    if (arguments.corpus.empty())
        corpus = Corpus::makeUp(arguments.lines);
    else if (!Corpus::read(arguments.corpus.c_str(), arguments.lines, &corpus))
        return fail("cannot read lines from " + arguments.corpus);
    workload.lines = corpus.count();
    workload.textBytes = static_cast<double>(corpus.text().size());

    std::string report = describeMachine(arguments.folder) + "\n\n", missing, failure;
    std::vector<Task> tasks = makeTasks(arguments, corpus, &missing);
    measureRounds(tasks, arguments.rounds);
    std::vector<Row> rows;
    rows.reserve(tasks.size());
    for (Task& task : tasks)
        rows.push_back(std::move(task.row));
    if (interrupted != 0)
        return 1; // what was made has been removed
    report += compareRows(rows, workload) + missing + "\n" + detailRows(rows, workload);
    if (arguments.scaling)
        report += "\n" + measureScaling(serviceOptions(arguments), std::min<size_t>(arguments.lines, 100000),
                                        arguments.rounds, &failure);
    if (!deliver(arguments, report))
        return fail("cannot write " + arguments.markdown);
    if (!arguments.svg.empty() && !writeFile(arguments.svg, drawRows(rows)))
        return fail("cannot write " + arguments.svg);
    if (!failure.empty())
        std::fprintf(stderr, "vnlog_bench: scaling: %s\n", failure.c_str());
    return inOrder(rows) && failure.empty() ? 0 : 1;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): without memory for the corpus, the program ends in any case
int main(int argc, char** argv) {
    setenv("TZ", "UTC", 1); // the stamps of the service's lines are those of the corpus
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGINT, interrupt);
    std::signal(SIGTERM, interrupt);
    std::signal(SIGHUP, interrupt);
    Arguments arguments;
    const option options[] = {
        {"programs", required_argument, nullptr, 'p'}, {"folder", required_argument, nullptr, 'f'},
        {"lines", required_argument, nullptr, 'l'},    {"rounds", required_argument, nullptr, 'r'},
        {"corpus", required_argument, nullptr, 'c'},   {"markdown", required_argument, nullptr, 'm'},
        {"svg", required_argument, nullptr, 's'},      {"no-peers", no_argument, nullptr, 'n'},
        {"scaling", no_argument, nullptr, 'a'},        {"wear", no_argument, nullptr, 'w'},
        {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0}};
    for (int choice; (choice = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (choice == 'h')
            return std::fputs(kHelp, stdout) >= 0 ? 0 : 1;
        if (!takeOption(choice, &arguments)) {
            if (optarg != nullptr)
                std::fprintf(stderr, "vnlog_bench: '%s' is out of range\n", optarg);
            std::fputs("Try 'vnlog_bench --help'.\n", stderr);
            return 2;
        }
    }
    if (optind != argc) {
        std::fprintf(stderr, "vnlog_bench: unexpected argument '%s'\n", argv[optind]);
        return 2;
    }
    const std::string self = realPath("/proc/self/exe");
    arguments.programs =
        realPath(arguments.programs.empty() ? self.substr(0, self.rfind('/')) : arguments.programs);
    arguments.folder = realPath(arguments.folder);
    if (arguments.programs.empty() || access((arguments.programs + "/logserviced").c_str(), X_OK) != 0)
        return fail("no programs in the folder of --programs");
    if (arguments.folder.empty() || !Place(arguments.folder).made())
        return fail("cannot make a folder in that of --folder");
    return arguments.wear ? measureOnlyWear(arguments) : measure(arguments);
}
