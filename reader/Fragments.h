// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/SectionText.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace vnlog {

/** Bytes of one line that lie in one section. */
struct Fragment {
    std::string_view bytes; ///< without the newline
    bool ended = false; ///< by a newline
    bool cut = false; ///< by the length that lines may have: the line goes on in the next fragment
};

/** Splits the text of sections at the newlines. One thread at a time. */
class Fragments {
  public:
    /** Of a line. */
    static constexpr size_t kLongest = 262144;

    /** Goes to the beginning of a section, see SectionText::open. */
    [[nodiscard]] bool open(int run, uint32_t name, const StoredSection& section);
    /** Goes back to its beginning, see SectionText::rewind. */
    [[nodiscard]] bool rewind();
    /** The next fragment, valid until the next call. One without an end or a cut is the section's last. */
    [[nodiscard]] bool next(Fragment* fragment);
    const SectionText& text() const { return mText; }
    void close() { mText.close(); }

  private:
    void forget();
    bool join(size_t length, Fragment* fragment);

    SectionText mText;
    std::string_view mPiece; ///< what is left of it
    std::string mCarry; ///< the beginning of a fragment that goes on in the next piece
    bool mGiven = false; ///< mCarry was given
};

} // namespace vnlog
