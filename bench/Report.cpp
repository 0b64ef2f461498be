// SPDX-License-Identifier: Apache-2.0
#include "bench/Report.h"

#include "bench/Child.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <set>
#include <sstream>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <thread>

namespace vnlog::bench {

namespace {

using Number = std::function<double(const Sample&)>;

std::vector<double> valuesOf(const Row& row, const Number& value) {
    std::vector<double> values;
    for (const Sample& sample : row.samples)
        values.push_back(value(sample));
    return values;
}

/** The median, with the smallest and the largest where there are several. */
std::string spread(const std::vector<double>& values) {
    std::string text = format("%.2f", median(values));
    if (values.size() > 1)
        text += format(" (%.2f–%.2f)", *std::min_element(values.begin(), values.end()),
                       *std::max_element(values.begin(), values.end()));
    return text;
}

const Row* find(const std::vector<Row>& rows, const char* name) {
    for (const Row& row : rows)
        if (row.name == name && row.measured())
            return &row;
    return nullptr;
}

std::string lostOf(const Row& row) {
    size_t lost = 0;
    for (const Sample& sample : row.samples)
        lost = std::max(lost, sample.lost);
    return format("%.0f", static_cast<double>(lost));
}

std::string memoryOf(const Row& row) {
    double kib = median(valuesOf(row, [](const Sample& sample) { return sample.peakKib; }));
    return kib > 0 ? format("%.0f", kib) : "–";
}

/** What a pattern finds in a small system file, from behind it to the end of the line. */
std::string field(const char* path, const std::string& name) {
    std::istringstream lines(contentOf(path));
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(name, 0) == 0)
            return line.substr(std::min(line.size(), line.find_first_not_of(" \t:", name.size())));
    return "unknown";
}

/** Name of the file system that holds a folder: the type of the longest mount point above it. */
std::string fileSystemOf(const std::string& folder) {
    std::istringstream mounts(contentOf("/proc/self/mounts"));
    std::string best, type = "unknown";
    for (std::string line; std::getline(mounts, line);) {
        std::string device, point, kind;
        std::istringstream(line) >> device >> point >> kind;
        bool above = point == "/" || folder == point || folder.rfind(point + "/", 0) == 0;
        if (above && point.size() >= best.size()) {
            best = point;
            type = kind;
        }
    }
    return type;
}

} // namespace

std::string Row::failure() const {
    for (const Sample& sample : samples)
        if (!sample.failure.empty()) {
            std::string line = sample.failure;
            std::replace(line.begin(), line.end(), '\n', ' ');
            return line;
        }
    return "";
}

double wallOf(const Sample& sample) {
    return sample.wall;
}

double processorOf(const Sample& sample) {
    return sample.processor;
}

std::vector<double> ratios(const Row& row, const Row& base, Value value) {
    std::vector<double> values = valuesOf(row, value);
    const std::vector<double> bases = valuesOf(base, value);
    for (size_t i = 0; i < values.size(); ++i)
        values[i] /= std::max(bases[i], 1e-9);
    return values;
}

std::string format(const char* form, ...) {
    std::array<char, 1024> text{};
    va_list args;
    va_start(args, form);
    std::vsnprintf(text.data(), text.size(), form, args);
    va_end(args);
    return text.data();
}

double median(std::vector<double> values) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string describeMachine(const std::string& folder) {
    utsname system{};
    uname(&system);
    std::string load = contentOf("/proc/loadavg");
    return format("%s, %u processors, memory %s, %s %s, %s, load before %s; programs of %u bits",
                  field("/proc/cpuinfo", "model name").c_str(), std::thread::hardware_concurrency(),
                  field("/proc/meminfo", "MemTotal").c_str(), system.sysname, system.release,
                  fileSystemOf(folder).c_str(), load.substr(0, load.find(' ')).c_str(),
                  static_cast<unsigned>(sizeof(void*) * 8));
}

std::string compareRows(const std::vector<Row>& rows, const Workload& workload) {
    const Row& floor = rows.front();
    const Row* peer = find(rows, "svlogd");
    std::string table =
        "| | wall s | × floor | × svlogd | processor s | × floor | stored MB | lost | own memory KiB |\n"
        "|---|---|---|---|---|---|---|---|---|\n";
    std::string legend;
    for (const Row& row : rows) {
        legend += "- " + row.name + ": " + row.legend + "\n";
        if (!row.measured()) {
            table +=
                "| " + row.name + " | not measured: " + row.failure().substr(0, 200) + " | | | | | | | |\n";
            continue;
        }
        bool comparable = floor.measured();
        table +=
            "| " + row.name + " | " + spread(valuesOf(row, wallOf)) + " | " +
            (comparable ? format("%.2f", median(ratios(row, floor, wallOf))) : "–") + " | " +
            (peer != nullptr ? format("%.2f", median(ratios(row, *peer, wallOf))) : "–") + " | " +
            spread(valuesOf(row, processorOf)) + " | " +
            (comparable ? format("%.2f", median(ratios(row, floor, processorOf))) : "–") + " | " +
            format("%.1f", median(valuesOf(row, [](const Sample& sample) { return sample.bytes / 1e6; }))) +
            " | " + lostOf(row) + " | " + memoryOf(row) + " |\n";
    }
    return format(
               "%.0f lines, %.1f MB of text, %.0f bytes a line (%s); median of %.0f rounds (least–most).\n\n",
               static_cast<double>(workload.lines), workload.textBytes / 1e6,
               workload.textBytes / static_cast<double>(workload.lines), workload.origin.c_str(),
               static_cast<double>(floor.samples.size())) +
           table + "\n" + legend;
}

std::string detailRows(const std::vector<Row>& rows, const Workload& workload) {
    std::vector<const Row*> services;
    std::set<std::string> threads;
    for (const Row& row : rows) {
        if (row.kind != Kind::Service || !row.measured())
            continue;
        services.push_back(&row);
        for (const Sample& sample : row.samples)
            for (const auto& thread : sample.threads)
                threads.insert(thread.first);
    }
    std::string table = "| |";
    for (const Row* row : services)
        table += " " + row->name + " |";
    table += "\n|---|" + std::string(services.size() * 4, '-') + "\n";
    for (size_t i = 0, at = table.rfind("\n|---|") + 6; i < services.size(); ++i)
        table[at + i * 4 + 3] = '|';

    auto line = [&](const std::string& name, const char* form, const Number& value) {
        table += "| " + name + " |";
        for (const Row* row : services) {
            double middle = median(valuesOf(*row, value));
            std::array<char, 64> text{};
            std::snprintf(text.data(), text.size(), form, middle);
            table += std::string(" ") + (middle < 0 ? "not measured" : text.data()) + " |";
        }
        table += "\n";
    };
    const auto lines = static_cast<double>(workload.lines);
    line("processor time, µs a line", "%.2f", [=](const Sample& s) { return s.processor / lines * 1e6; });
    line("of its children, s", "%.2f", [](const Sample& s) { return s.children; });
    for (const std::string& name : threads)
        line("thread " + name + " before the stop, s", "%.2f", [&](const Sample& s) {
            auto found = s.threads.find(name);
            return found != s.threads.end() ? found->second : 0;
        });
    line("own memory when idle, KiB", "%.0f", [](const Sample& s) { return s.idleKib; });
    line("own memory at most, KiB", "%.0f", [](const Sample& s) { return s.peakKib; });
    line("read by calls, MB", "%.1f", [](const Sample& s) { return s.readCalls / 1e6; });
    line("written by calls, MB", "%.1f", [](const Sample& s) { return s.writtenCalls / 1e6; });
    line("read from the medium, MB", "%.1f", [](const Sample& s) { return s.readMedium / 1e6; });
    line("written to the medium, MB", "%.1f", [](const Sample& s) { return s.writtenMedium / 1e6; });
    line("voluntary context switches a line", "%.3f", [=](const Sample& s) { return s.voluntary / lines; });
    line("involuntary context switches a line", "%.3f",
         [=](const Sample& s) { return s.involuntary / lines; });
    line("system calls a line (under strace)", "%.2f", [](const Sample& s) { return s.calls; });
    return table;
}

} // namespace vnlog::bench
