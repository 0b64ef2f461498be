// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace vnlog {

/** The page that shows a report, reader/report.html; what it shows goes into the place of kReportData. */
extern const std::string_view kReportPage;
constexpr std::string_view kReportData = "<!--data-->\n";

} // namespace vnlog
