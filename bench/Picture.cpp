// SPDX-License-Identifier: Apache-2.0
#include "bench/Report.h"

#include <algorithm>

namespace vnlog::bench {

namespace {

constexpr int kLabels = 140, kBars = 480, kRight = 60; ///< widths in pixels
constexpr int kRowHeight = 44, kBarHeight = 15, kTop = 46;

// Colours with enough contrast on white and on black.
constexpr char kStyle[] = "<style>text{font:13px sans-serif;fill:#7d8590}.n{text-anchor:end}"
                          ".w{fill:#4c8dd6}.p{fill:#d9822b}.f{stroke:#7d8590;stroke-dasharray:3 3}</style>\n";

std::string bar(const char* kind, double ratio, double scale, int y) {
    return format("<rect class=\"%s\" x=\"%d\" y=\"%d\" width=\"%.1f\" height=\"%d\"/>"
                  "<text x=\"%.1f\" y=\"%d\">%.2f</text>\n",
                  kind, kLabels, y, ratio * scale, kBarHeight, kLabels + ratio * scale + 5, y + 12, ratio);
}

std::string key(const char* kind, const char* text, int x) {
    return format("<rect class=\"%s\" x=\"%d\" y=\"12\" width=\"12\" height=\"12\"/>"
                  "<text x=\"%d\" y=\"23\">%s</text>\n",
                  kind, x, x + 18, text);
}

} // namespace

std::string drawRows(const std::vector<Row>& rows) {
    struct Bars {
        const char* name;
        double wall, processor;
    };
    std::vector<Bars> drawn;
    double most = 1;
    for (const Row& row : rows) {
        if (!row.measured() || !rows[0].measured())
            continue;
        drawn.push_back({row.name.c_str(), median(ratios(row, rows[0], wallOf)),
                         median(ratios(row, rows[0], processorOf))});
        most = std::max({most, drawn.back().wall, drawn.back().processor});
    }
    const double scale = kBars / most;
    const int width = kLabels + kBars + kRight, height = kTop + kRowHeight * static_cast<int>(drawn.size());
    std::string picture =
        format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %d %d\" width=\"%d\">\n", width,
               height, width) +
        "<title>Wall and processor time against the floor's</title>\n" + kStyle +
        key("w", "wall time", kLabels) + key("p", "processor time", kLabels + 110) +
        format("<text x=\"%d\" y=\"23\">floor = 1</text>\n", kLabels + 250);
    int y = kTop;
    for (const Bars& bars : drawn) {
        picture += format("<text class=\"n\" x=\"%d\" y=\"%d\">%s</text>\n", kLabels - 8, y + 19, bars.name) +
                   bar("w", bars.wall, scale, y) + bar("p", bars.processor, scale, y + kBarHeight);
        y += kRowHeight;
    }
    const double floor = kLabels + scale;
    return picture + format("<line class=\"f\" x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%d\"/>\n</svg>\n",
                            floor, kTop - 6, floor, height);
}

} // namespace vnlog::bench
