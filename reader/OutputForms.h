// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Outputs.h"

#include <memory>

/* The sinks behind makeOutput(), by the files that have them. */
namespace vnlog {

std::unique_ptr<RecordSink> makeShortOutput(const OutputStyle& style, TextOut& out);
std::unique_ptr<RecordSink> makeLongOutput(const OutputStyle& style, TextOut& out);
std::unique_ptr<RecordSink> makeIsoOutput(const OutputStyle& style, TextOut& out);
std::unique_ptr<RecordSink> makeJsonOutput(const RunHistory& history, TextOut& out);
std::unique_ptr<RecordSink> makeOtlpOutput(const RunHistory& history, TextOut& out);

} // namespace vnlog
