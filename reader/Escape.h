// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/TextOut.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

/* Stored bytes, which may be any, in forms that hold text. Any thread. */
namespace vnlog {

/** Writes bytes for a terminal: control bytes but tab, the control characters up to U+009F, and bytes that
 * are no UTF-8 as \xNN. */
void writeEscaped(std::string_view bytes, TextOut& out);

/** Writes bytes as the inside of a JSON string, in which no control character stays; those that are no UTF-8
 * become U+FFFD each. Whether there were none. */
bool writeJsonText(std::string_view bytes, TextOut& out);

/** Writes bytes as base64, padded. */
void writeBase64(std::string_view bytes, TextOut& out);

void writeNumber(int64_t number, TextOut& out);

} // namespace vnlog
