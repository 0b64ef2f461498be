#pragma once

#include "reader/Record.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vnlog {

/** Which lines are asked for; what is empty or at its default asks for nothing. */
struct QueryOptions {
    bool kernel = false; ///< the kernel's lines; with android both; neither: all sources
    bool android = false;
    int priority = 0; ///< lowest, 2 to 7; 0: any
    std::vector<std::string> tags; ///< one of them, as the shell's patterns (fnmatch)
    std::vector<std::string> patterns; ///< one of them, as PCRE2, anywhere in the line as stored
    enum class Case { Smart, Sensitive, Insensitive } letters = Case::Smart; ///< smart: without capitals
    bool fixed = false; ///< the patterns are plain texts
    bool invert = false; ///< lines that match no pattern
    int64_t since = INT64_MIN; ///< ns since the epoch; lines without a time pass
    int64_t until = INT64_MAX;
};

/** Tells whether a line is asked for. One thread. */
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

  private:
    class Work;
    std::unique_ptr<Work> mWork;
};

} // namespace vnlog
