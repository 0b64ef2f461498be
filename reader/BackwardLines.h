// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/StreamParts.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace vnlog {

/**
 * The lines of a scope, newest first. A section is read forward and its lines kept, and of one that holds
 * more than are kept at a time, once for each time that they fit.
 */
class BackwardLines {
  public:
    explicit BackwardLines(StreamParts& parts) : mParts(parts) {}

    /** At the end of the scope that the parts have. */
    void begin();
    [[nodiscard]] bool next(Record* record);

  private:
    /** The beginning of a section that may be the end of a line of the one before. */
    struct Rest {
        bool there = false;
        bool ended = false;
        bool open = false; ///< it is all of the section
        std::string bytes;
        LinePlace place;
        LineTime time; ///< as a line of its own in its section
    };

    /** A record that is no line of a section. */
    struct Extra {
        std::string text;
        LinePlace place;
        bool remark = false;
        bool ended = true;
        LineTime time; ///< unless it is a remark
    };

    bool goBack();
    void enter();
    void readWindow(uint32_t wanted);
    void tellShorter(uint32_t wanted);
    bool keepAll(uint32_t wanted, std::string* last);
    void takeHead(const Fragment& fragment, uint32_t wanted);
    bool keep(std::string_view bytes, bool ended, bool rest, uint32_t wanted);
    void keepTag(LogLine* line);
    void finishSection(std::string last, uint32_t wanted);
    void fetchRest();
    void giveRestUp();
    LinePlace place(size_t index, uint32_t line) const;

    StreamParts& mParts;
    size_t mRunsLeft = 0; ///< of the scope
    size_t mLeft = 0; ///< sections of the run that is open; the one behind them is being given
    bool mInside = false; ///< that is so
    bool mEmpty = false; ///< it holds nothing
    enum class Head : uint8_t { Line, Within, Rest } mHeadKind = Head::Line; ///< what it begins with
    std::string mCutLine; ///< what is known of the line within which it begins

    LineParser mParser;
    uint32_t mWindow = 0; ///< which part of the section's lines is kept
    uint32_t mLine = 0; ///< lines of the section so far
    Text mText; ///< of the lines that are kept
    size_t mUsed = 0; ///< bytes of it
    std::vector<Record> mLines;
    std::deque<std::string> mTags; ///< of entries in the long form

    Rest mBehind; ///< of the section behind the one that is given
    Rest mHead; ///< of this one
    bool mBehindLeftOut = false; ///< that section, or the one behind empty ones, is none of the scope
    std::deque<Extra> mExtra; ///< given before the lines
    Extra mGiven;
};

} // namespace vnlog
