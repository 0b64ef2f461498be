// SPDX-License-Identifier: Apache-2.0
#include "reader/Escape.h"

#include "base/Text.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace vnlog {

namespace {

using ByteSet = std::array<bool, 256>;

/** Printable ASCII, but for `left`, and with `added`. */
constexpr ByteSet plainBytes(std::string_view left, std::string_view added) {
    ByteSet set{};
    for (size_t byte = ' '; byte < 0x7f; ++byte)
        set[byte] = true;
    for (char c : left)
        set[static_cast<unsigned char>(c)] = false;
    for (char c : added)
        set[static_cast<unsigned char>(c)] = true;
    return set;
}

constexpr ByteSet kTerminal = plainBytes("", "\t");
constexpr ByteSet kJson = plainBytes("\"\\", "");
constexpr char kHex[] = "0123456789abcdef";

unsigned char byteAt(std::string_view text, size_t at) {
    return static_cast<unsigned char>(text[at]);
}

/** Of a character of two bytes: whether it is one of U+0080 to U+009F. */
bool isControl(std::string_view character) {
    return byteAt(character, 0) == 0xc2 && byteAt(character, 1) < 0xa0;
}

/** Writes bytes that are plain, and characters beyond ASCII, as they are; `replace` is called for any other
 * with its bytes, and whether they are a character. */
template <typename Replace>
void writeReplaced(std::string_view bytes, const ByteSet& plain, TextOut& out, Replace replace) {
    size_t start = 0, at = 0;
    while (at < bytes.size()) {
        if (plain[byteAt(bytes, at)]) {
            ++at;
            continue;
        }
        size_t length = utf8Length(bytes.substr(at));
        std::string_view character = bytes.substr(at, std::max<size_t>(length, 1));
        at += character.size();
        if (length > 2 || (length == 2 && !isControl(character)))
            continue;
        out.write(bytes.substr(start, at - character.size() - start));
        replace(character, length > 0);
        start = at;
    }
    out.write(bytes.substr(start));
}

void writeHexByte(std::string_view before, unsigned char byte, TextOut& out) {
    const char digits[] = {kHex[byte >> 4], kHex[byte & 15]};
    out.write(before);
    out.write(std::string_view(digits, sizeof digits));
}

void writeJsonCharacter(std::string_view character, TextOut& out) {
    constexpr std::string_view kShort = "\"\\\b\f\n\r\t", kLetters = "\"\\bfnrt";
    size_t found = character.size() == 1 ? kShort.find(character[0]) : kShort.npos;
    if (found == kShort.npos) {
        writeHexByte("\\u00", byteAt(character, character.size() - 1), out);
        return;
    }
    out.write('\\');
    out.write(kLetters[found]);
}

} // namespace

void writeEscaped(std::string_view bytes, TextOut& out) {
    writeReplaced(bytes, kTerminal, out, [&](std::string_view character, bool) {
        for (size_t at = 0; at < character.size(); ++at)
            writeHexByte("\\x", byteAt(character, at), out);
    });
}

bool writeJsonText(std::string_view bytes, TextOut& out) {
    bool whole = true;
    writeReplaced(bytes, kJson, out, [&](std::string_view character, bool valid) {
        whole = whole && valid;
        if (valid)
            writeJsonCharacter(character, out);
        else
            out.write("\xef\xbf\xbd");
    });
    return whole;
}

void writeBase64(std::string_view bytes, TextOut& out) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t at = 0; at < bytes.size(); at += 3) {
        size_t count = std::min<size_t>(bytes.size() - at, 3);
        uint32_t bits = 0;
        for (size_t i = 0; i < 3; ++i)
            bits = bits << 8 | (i < count ? byteAt(bytes, at + i) : 0u);
        char group[4] = {kDigits[bits >> 18], kDigits[bits >> 12 & 63], kDigits[bits >> 6 & 63],
                         kDigits[bits & 63]};
        std::fill(group + 1 + count, std::end(group), '=');
        out.write(std::string_view(group, sizeof group));
    }
}

void writeNumber(int64_t number, TextOut& out) {
    char digits[24];
    char* end = std::to_chars(digits, std::end(digits), number).ptr;
    out.write(std::string_view(digits, static_cast<size_t>(end - digits)));
}

} // namespace vnlog
