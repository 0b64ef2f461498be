// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vnlog::bench {

/**
 * Entries of the Android log, ready to be sent, and the same entries as the lines that the service stores in
 * the threadtime form. Stamps never run backwards, and no message holds a newline. The program's time zone is
 * UTC. Nothing changes once it is made, so any thread may read.
 */
class Corpus {
  public:
    /** `count` entries of made-up modules; the same seed gives the same entries. */
    static Corpus makeUp(size_t count);
    /** `count` entries whose messages have this many characters. */
    static Corpus ofLength(size_t count, size_t length);
    /**
     * The first `count` lines of a saved log. Lines of another form become messages of the tag "corpus";
     * messages that are too long for an entry are cut, verbose ones become debug. False with errno set when
     * the file cannot be read; EINVAL when it holds no line.
     */
    [[nodiscard]] static bool read(const char* path, size_t count, Corpus* corpus);

    size_t count() const { return mPacketEnds.size(); }
    /** The lines, each with its newline. */
    const std::string& text() const { return mText; }
    /** Entry `index` as the logger device takes it: header and payload. */
    std::string_view packet(size_t index) const { return piece(mPackets, mPacketEnds, index); }
    /** Line `index` with its newline. */
    std::string_view line(size_t index) const { return piece(mText, mLineEnds, index); }

  private:
    struct Entry;
    static std::string_view piece(const std::string& all, const std::vector<size_t>& ends, size_t index);
    void add(const Entry& entry);

    std::string mPackets, mText;
    std::vector<size_t> mPacketEnds, mLineEnds;
};

} // namespace vnlog::bench
