// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Record.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vnlog {

/** Which lines are asked for; what is empty or at its default asks for nothing. */
struct QueryOptions {
    bool kernel = false; ///< the kernel's lines; with android both; neither: all sources
    bool android = false;
    int priority = 0; ///< lowest, 2 to 7; 0: any; 8: none
    std::vector<std::string> tags; ///< one of them, as the shell's patterns (fnmatch)
    std::vector<std::string> patterns; ///< one of them, as PCRE2, anywhere in the line as stored
    enum class Case { Smart, Sensitive, Insensitive } letters = Case::Smart; ///< smart: without capitals
    bool fixed = false; ///< the patterns are plain texts
    bool invert = false; ///< lines that match no pattern
    int64_t since = INT64_MIN; ///< ns since the epoch; lines without a time pass
    int64_t until = INT64_MAX;
};

/** Finds a lowest priority by its word: Android's, syslog's, or a letter, in any case. */
[[nodiscard]] bool findPriority(std::string_view word, int* priority);

/**
 * Tells whether a line is asked for. Conditions of different kinds must all hold. Lines of the service and
 * the reader need to meet those of pattern and time alone, for what was lost concerns everybody. One thread.
 */
class Query {
  public:
    Query();
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    /** False with `error` set: a pattern is no regular expression. */
    [[nodiscard]] bool compile(const QueryOptions& options, std::string* error);
    /** Whether it looks at more of a record than its bytes. */
    bool wantsFields() const;
    [[nodiscard]] bool matches(const Record& record);
    /** Lines so far in which the search for a pattern was given up, for it took too many steps. They count
     * as lines without the pattern. */
    uint32_t givenUp() const;
    /** Whether they are so many in this pass that going on would take too long. */
    bool tooSlow() const;
    /** Whether that was so in a pass before this one. */
    bool wasTooSlow() const;
    /** Begins another pass over lines, in which those that were given up come again: so many at most, and
     * before all others that are. */
    void beginPass(uint32_t again);

  private:
    class Work;
    std::unique_ptr<Work> mWork;
};

} // namespace vnlog
