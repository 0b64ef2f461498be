// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

/* The status that the service answers, as programs take it apart. Any thread. */
namespace vnlog {

/** A line of the status, "group.name=value" or "name=value". */
struct StatusLine {
    std::string group, name, value;
};

/** The lines of a status in their order. */
std::vector<StatusLine> statusLines(const std::string& status);

/**
 * The status as a JSON object, indented, with a newline at its end: a group is an object in it, y and n are
 * true and false, what is nothing but digits is a number, anything else a string. Bytes that are no UTF-8
 * become U+FFFD each. The lines of a group follow each other.
 */
std::string statusJson(const std::string& status);

} // namespace vnlog
