// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/LineStream.h"
#include "reader/Record.h"
#include "reader/RunHistory.h"
#include "reader/StoreFolder.h"
#include "reader/TextOut.h"

#include <memory>
#include <string>

/* What is told of many lines at once. */
namespace vnlog {

/**
 * Prints a line for each run of the scope: number, first and last time, lines, sections, stored and plain
 * size, how it ended; runs outside the scope's times are left out. Reads the text only of sections that do
 * not tell that themselves. False when a section is damaged.
 */
[[nodiscard]] bool printRuns(const StoreFolder& folder, const RunHistory& history, const Scope& scope,
                             TextOut& out);

/** Counts the lines that it is given and prints at the end, by run, source, priority and tag, lines and
 * bytes, lines per minute as a bar chart, the top tags, and the gaps. All arguments must outlive it. */
std::unique_ptr<RecordSink> makeStatistics(const StoreFolder& folder, const RunHistory& history,
                                           TextOut& out);

/** Writes the lines that it is given as one HTML page that needs nothing else. `title` names the store,
 * `selection` tells which of its lines were asked for; empty for all. `history` and `out` must outlive it. */
std::unique_ptr<RecordSink> makeReport(const std::string& title, const RunHistory& history, TextOut& out,
                                       const std::string& selection = {});

} // namespace vnlog
