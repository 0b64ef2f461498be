// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/Sample.h"

#include <string>
#include <vector>

/* What was measured, as text and as a picture. */
namespace vnlog::bench {

enum class Kind { Floor, Limit, Service, Peer };

/** One thing and its run in every round. */
struct Row {
    std::string name;
    Kind kind;
    std::string legend; ///< what exactly was run
    std::vector<Sample> samples;

    /** Why there are no numbers; empty when there are. */
    std::string failure() const;
    bool measured() const { return failure().empty(); }
};

struct Workload {
    size_t lines = 0;
    double textBytes = 0;
    std::string origin;
};

/** Processor, memory, kernel, file system of the folder, and the load before. */
std::string describeMachine(const std::string& folder);
/** The comparison, a table in Markdown with its legend; the first row is the floor. */
std::string compareRows(const std::vector<Row>& rows, const Workload& workload);
/** Where the service's time goes, a table in Markdown. */
std::string detailRows(const std::vector<Row>& rows, const Workload& workload);
/** A bar chart of wall and processor time against the floor's, as SVG. */
std::string drawRows(const std::vector<Row>& rows);

using Value = double (*)(const Sample&);
double wallOf(const Sample& sample);
double processorOf(const Sample& sample);
/** Quotients of the same round. */
std::vector<double> ratios(const Row& row, const Row& base, Value value);
/** The middle value; of an even count the mean of the two. 0 for none. */
double median(std::vector<double> values);
/** printf into a string. */
[[gnu::format(printf, 1, 2)]] std::string format(const char* form, ...);

} // namespace vnlog::bench
