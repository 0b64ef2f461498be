// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Record.h"
#include "reader/RunHistory.h"
#include "reader/TextOut.h"

#include <memory>
#include <string_view>

/* The forms in which lines are shown. */
namespace vnlog {

enum class OutputForm {
    Short, ///< as stored; a line without a newline at the end of a run gets one
    Long, ///< a heading with all that is known of the line, and its text below
    Iso, ///< date and time in front of the line as stored; '~' behind one that is only near
    Json, ///< an object a line; names as in OpenTelemetry's data model for logs
    Otlp, ///< OTLP/JSON: an export request a line
};

/** Finds a form by its word: short, long, iso, json, otlp. */
[[nodiscard]] bool findOutputForm(std::string_view word, OutputForm* form);

struct OutputStyle {
    bool colour = false; ///< by priority
    bool escape = false; ///< control bytes, and bytes that are no UTF-8, as \xNN: for a terminal
};

/** The sink for a form. All arguments must outlive it. Otlp alone gathers lines, up to 256. */
std::unique_ptr<RecordSink> makeOutput(OutputForm form, const OutputStyle& style, const RunHistory& history,
                                       TextOut& out);

} // namespace vnlog
