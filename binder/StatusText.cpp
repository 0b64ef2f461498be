// SPDX-License-Identifier: Apache-2.0
#include "binder/StatusText.h"

#include "base/KeyValue.h"
#include "base/Text.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <string_view>

namespace vnlog {

namespace {

constexpr size_t kMostDigits = 18; // whatever fits 64 bits

bool isNumber(const std::string& value) {
    bool sized = !value.empty() && value.size() <= kMostDigits && (value.size() == 1 || value[0] != '0');
    return sized && std::all_of(value.begin(), value.end(), [](unsigned char c) { return std::isdigit(c); });
}

/** A character as it stands in a JSON string; empty for bytes that are none. */
std::string jsonCharacter(std::string_view character) {
    constexpr char kHex[] = "0123456789abcdef";
    if (character.empty())
        return "\xef\xbf\xbd";
    auto first = static_cast<unsigned char>(character[0]);
    if (first < ' ')
        return std::string("\\u00") + kHex[first >> 4] + kHex[first & 15];
    return (first == '"' || first == '\\' ? "\\" : "") + std::string(character);
}

std::string jsonString(std::string_view text) {
    std::string quoted = "\"";
    while (!text.empty()) {
        size_t length = utf8Length(text);
        quoted += jsonCharacter(text.substr(0, length));
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return quoted + "\"";
}

std::string jsonValue(const std::string& value) {
    if (value == kYes || value == kNo)
        return value == kYes ? "true" : "false";
    return isNumber(value) ? value : jsonString(value);
}

} // namespace

std::vector<StatusLine> statusLines(const std::string& status) {
    std::vector<StatusLine> lines;
    std::istringstream in(status);
    for (std::string line; std::getline(in, line);) {
        size_t equals = std::min(line.find('='), line.size());
        size_t dot = line.rfind('.', equals);
        StatusLine parsed;
        if (dot != std::string::npos)
            parsed.group = line.substr(0, dot++);
        else
            dot = 0;
        parsed.name = line.substr(dot, equals - dot);
        parsed.value = line.substr(std::min(equals + 1, line.size()));
        lines.push_back(parsed);
    }
    return lines;
}

std::string statusJson(const std::string& status) {
    std::string json = "{", group;
    const char* before = "\n";
    for (const StatusLine& line : statusLines(status)) {
        if (line.group != group) {
            if (!group.empty())
                json += "\n  }";
            if (!line.group.empty())
                json += before + ("  " + jsonString(line.group)) + ": {";
            before = line.group.empty() ? before : "\n";
            group = line.group;
        }
        json += before + std::string(group.empty() ? "  " : "    ") + jsonString(line.name) + ": " +
                jsonValue(line.value);
        before = ",\n";
    }
    return json + (group.empty() ? "\n}\n" : "\n  }\n}\n");
}

} // namespace vnlog
