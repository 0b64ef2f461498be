// SPDX-License-Identifier: Apache-2.0
/*
 * The reader of a store: chooses lines and shows them.
 */
#include "tools/logviewLines.h"
#include "tools/logviewOptions.h"
#include "tools/logviewOutput.h"
#include "tools/logviewStore.h"

#include "config/ConfigFile.h"
#include "reader/FindStore.h"
#include "reader/Inspection.h"
#include "reader/Outputs.h"
#include "reader/RunHistory.h"
#include "reader/Summaries.h"
#include "reader/SystemFacts.h"
#include "reader/TextOut.h"
#include "tools/Conversation.h"
#include "tools/Options.h"

#include <android/log.h>
#include <cinttypes>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

/** What the parts that the service has, too, tell its log is of no interest to a reader. */
void ignoreDiagnostic(const __android_logger_data* /*about*/, const char* /*message*/) {}

std::string plural(uint32_t number, const char* one, const char* several) {
    return std::to_string(number) + " " + (number == 1 ? one : several);
}

/** Tells what could not be read. kGoOn or kDamaged. */
int reportDamage(const vnlog::StreamCounts& counts, const OpenStore& store) {
    std::string what;
    if (!store.bundle.damage().empty())
        std::fprintf(stderr, "%s: the bundle is damaged: %s\n", kViewer, store.bundle.damage().c_str());
    if (counts.damaged > 0)
        what = plural(counts.damaged, "section is damaged", "sections are damaged");
    if (counts.unreadable > 0)
        what += (what.empty() ? plural(counts.unreadable, "section", "sections")
                              : ", " + std::to_string(counts.unreadable)) +
                " could not be read";
    if (!what.empty())
        std::fprintf(stderr, "%s: %s; see above\n", kViewer, what.c_str());
    return what.empty() && store.bundle.damage().empty() ? kGoOn : kDamaged;
}

/** Tells of patterns that took too long. kGoOn or kWrongUsage. */
int reportGivenUp(const ViewOptions& options, const vnlog::Query& query) {
    if (query.givenUp() == 0)
        return kGoOn;
    const bool newer = query.tooSlow() && !options.reverse;
    const char* missing = newer                                   ? "; newer lines were not searched"
                          : query.tooSlow() || query.wasTooSlow() ? "; older lines were not searched"
                                                                  : ", which may be missing";
    std::fprintf(stderr, "%s: the search for a pattern took too many steps in %s%s\n", kViewer,
                 plural(query.givenUp(), "line", "lines").c_str(), missing);
    return kWrongUsage;
}

/** The store's place, whole: whoever opens the report may be elsewhere. */
std::string reportTitle(const ViewOptions& options, const OpenStore& store) {
    const std::string& given = options.store.empty() ? store.root : options.store;
    std::unique_ptr<char, decltype(&std::free)> whole(realpath(given.c_str(), nullptr), std::free);
    return whole != nullptr ? whole.get() : given;
}

std::unique_ptr<vnlog::RecordSink> makeSink(const ViewOptions& options, const OpenStore& store,
                                            const vnlog::RunHistory& history, const ViewOutput& output,
                                            vnlog::TextOut& out) {
    switch (options.task) {
    case Task::Statistics:
        return vnlog::makeStatistics(store.folder, history, out);
    case Task::Report:
        return vnlog::makeReport(reportTitle(options, store), history, out, options.selection);
    case Task::Lines:
    case Task::Runs:
    case Task::Verify:
    case Task::Bundle:
        break;
    }
    return vnlog::makeOutput(options.form, output.style(), history, out);
}

/** The status of a view that has ended, of the most serious reason. */
int finishView(const ViewOptions& options, const Viewed& viewed, const vnlog::Query& query,
               const OpenStore& store, vnlog::TextOut& out, ViewOutput& output) {
    (void)out.flush(); // error() tells
    int status = output.finish(out.error());
    int slow = reportGivenUp(options, query);
    int damaged = reportDamage(viewed.counts, store);
    for (int reason : {viewed.failed ? kWrongUsage : kGoOn, status, slow, damaged})
        if (reason != kGoOn)
            return reason;
    return viewed.lines > 0 || out.error() == EPIPE ? 0 : kNothing;
}

int view(const ViewOptions& options, OpenStore& store, vnlog::Scope scope) {
    vnlog::Query query;
    std::string error;
    if (!query.compile(options.query, &error))
        return wrongUsage("-g: " + error);
    vnlog::RunHistory history;
    history.read(store.folder.logs());
    ViewOutput output(options);
    vnlog::TextOut out(output.descriptor());
    std::unique_ptr<vnlog::RecordSink> sink = makeSink(options, store, history, output, out);
    scope.since = options.query.since;
    scope.until = options.query.until;
    scope.fields = query.wantsFields() || sink->wantsFields();
    View all = {options, store, history, std::move(scope), query, *sink, out};
    return finishView(options, showLines(all), query, store, out, output);
}

/** What is told of a store without showing its lines. `tell` prints it; true when all is in order. */
template <class Tell> int report(const ViewOptions& options, const OpenStore& store, Tell tell) {
    ViewOutput output(options);
    vnlog::TextOut out(output.descriptor());
    bool whole = tell(out);
    (void)out.flush(); // error() tells
    int status = output.finish(out.error());
    int damaged = reportDamage({}, store);
    return status != kGoOn ? status : whole && damaged == kGoOn ? 0 : kDamaged;
}

int listRuns(const ViewOptions& options, const OpenStore& store, vnlog::Scope scope) {
    vnlog::RunHistory history;
    history.read(store.folder.logs());
    scope.since = options.query.since;
    scope.until = options.query.until;
    return report(options, store,
                  [&](vnlog::TextOut& out) { return vnlog::printRuns(store.folder, history, scope, out); });
}

int verify(const ViewOptions& options, const OpenStore& store) {
    return report(options, store,
                  [&](vnlog::TextOut& out) { return vnlog::verifyStore(store.folder, out) == 0; });
}

/** The settings that belong to the store; empty when they are not there. */
std::string configurationOf(const OpenStore& store) {
    std::string error;
    std::string file = store.ofService ? vnlog::configurationOfSystem(&error)
                                       : store.folder.root() + vnlog::kConfigurationName;
    return access(file.c_str(), F_OK) == 0 ? file : "";
}

/** Packs the store; that of the service with its status, and with what there is to tell of this machine. */
int makeBundle(const ViewOptions& options, const OpenStore& store) {
    std::vector<vnlog::BundleText> texts;
    if (store.ofService)
        texts = {{"status.txt", statusForBundle()}, {"system.txt", vnlog::systemFacts(store.root)}};
    vnlog::BundleTotals totals;
    std::string error;
    if (!vnlog::writeBundle(store.folder, configurationOf(store), texts, options.bundle, &totals, &error)) {
        std::fprintf(stderr, "%s: %s cannot be made: %s\n", kViewer, options.bundle.c_str(), error.c_str());
        return kWrongUsage;
    }
    std::printf("%u files, %" PRIu64 " bytes in '%s'\n", totals.files, totals.bytes, options.bundle.c_str());
    if (totals.changed > 0)
        std::printf("%u files went or shrank meanwhile\n", totals.changed);
    int written = finishOutput(kViewer);
    return written != 0 ? kWrongUsage : reportDamage({}, store) == kGoOn ? 0 : kDamaged;
}

int work(const ViewOptions& options, OpenStore& store, vnlog::Scope scope) {
    switch (options.task) {
    case Task::Lines:
    case Task::Statistics:
    case Task::Report:
        return view(options, store, std::move(scope));
    case Task::Runs:
        return listRuns(options, store, std::move(scope));
    case Task::Verify:
        return verify(options, store);
    case Task::Bundle:
        return makeBundle(options, store);
    }
    return kWrongUsage;
}

int run(const ViewOptions& options) {
    OpenStore store;
    vnlog::Scope scope;
    int status = openStore(options, &store);
    if (status == kGoOn && (options.task != Task::Verify && options.task != Task::Bundle))
        status = chooseRuns(options, store, &scope);
    return status == kGoOn ? work(options, store, std::move(scope)) : status;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): without memory for a line, the program ends in any case
int main(int argc, char** argv) {
    fillStandardDescriptors();
    __android_log_set_logger(ignoreDiagnostic);
    ViewOptions options;
    int status = readCommandLine(argc, argv, &options);
    if (status != kGoOn)
        return status;
    status = run(options);
    (void)std::fflush(stdout); // what matters has been checked
    _exit(status); // without waiting for a conversation that has been given up
}
