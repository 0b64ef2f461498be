// SPDX-License-Identifier: Apache-2.0
#define PCRE2_CODE_UNIT_WIDTH 8

#include "reader/Query.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fnmatch.h>
#include <pcre2.h>
#include <strings.h>

namespace vnlog {

namespace {

constexpr uint32_t kMostSteps = 1000000; ///< of a search from one place in a line
constexpr uint32_t kMostHeapKiB = 4096; ///< of a search without the just-in-time compiler
constexpr size_t kLeastStack = size_t{32} * 1024; ///< of a search with it
constexpr size_t kMostStack = size_t{1024} * 1024;
constexpr uint32_t kMostGivenUp = 100; ///< lines of a pass, after which going on would take too long
constexpr int kSilent = 8;

struct Releaser {
    void operator()(pcre2_code* code) const { pcre2_code_free(code); }
    void operator()(pcre2_compile_context* context) const { pcre2_compile_context_free(context); }
    void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
    void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
    void operator()(pcre2_jit_stack* stack) const { pcre2_jit_stack_free(stack); }
};
template <class T> using Owned = std::unique_ptr<T, Releaser>;

PCRE2_SPTR units(std::string_view text) {
    return reinterpret_cast<PCRE2_SPTR>(text.data());
}

std::string reasonOf(int error) {
    PCRE2_UCHAR text[256] = {};
    (void)pcre2_get_error_message(error, text, sizeof text);
    return reinterpret_cast<const char*>(text);
}

bool isAscii(std::string_view text) {
    constexpr uint64_t kHighBits = 0x8080808080808080;
    uint64_t all = 0, piece = 0;
    size_t at = 0;
    for (; at + sizeof piece <= text.size(); at += sizeof piece) {
        std::memcpy(&piece, text.data() + at, sizeof piece);
        all |= piece;
    }
    for (; at < text.size(); ++at)
        all |= static_cast<unsigned char>(text[at]);
    return (all & kHighBits) == 0;
}

/** A pattern made ready for many searches. */
struct Pattern {
    Owned<pcre2_code> quick; ///< compiled to machine code where that can be, for lines that are UTF-8
    /// For others. It is interpreted: compiled, \D, \S and \W miss letters beyond ASCII (PCRE2 10.42).
    Owned<pcre2_code> tolerant;
};

/** What searches need beside the patterns. */
class Searcher {
  public:
    enum class Found { Yes, No, GivenUp };

    Searcher()
        : mContext(pcre2_match_context_create(nullptr)),
          mStack(pcre2_jit_stack_create(kLeastStack, kMostStack, nullptr)),
          mData(pcre2_match_data_create(1, nullptr)) {
        if (mContext == nullptr)
            return;
        (void)pcre2_set_match_limit(mContext.get(), kMostSteps);
        (void)pcre2_set_heap_limit(mContext.get(), kMostHeapKiB);
        if (mStack != nullptr) // a smaller one is at hand otherwise
            pcre2_jit_stack_assign(mContext.get(), nullptr, mStack.get());
    }
    bool ready() const { return mContext != nullptr && mData != nullptr; }
    Found search(const Pattern& pattern, std::string_view text) {
        int found = search(pattern.quick, text, isAscii(text) ? PCRE2_NO_UTF_CHECK : 0);
        if (found <= PCRE2_ERROR_UTF8_ERR1 && found >= PCRE2_ERROR_UTF8_ERR21)
            found = search(pattern.tolerant, text, 0);
        return found >= 0 ? Found::Yes : found == PCRE2_ERROR_NOMATCH ? Found::No : Found::GivenUp;
    }

  private:
    int search(const Owned<pcre2_code>& code, std::string_view text, uint32_t options) {
        return pcre2_match(code.get(), units(text), text.size(), 0, options, mData.get(), mContext.get());
    }

    Owned<pcre2_match_context> mContext;
    Owned<pcre2_jit_stack> mStack;
    Owned<pcre2_match_data> mData;
};

/** Null with `error` set. */
Owned<pcre2_code> compileCode(std::string_view pattern, uint32_t options, std::string* error) {
    Owned<pcre2_compile_context> context(pcre2_compile_context_create(nullptr));
    if (context != nullptr)
        (void)pcre2_set_newline(context.get(), PCRE2_NEWLINE_LF);
    int number = 0;
    PCRE2_SIZE place = 0;
    Owned<pcre2_code> code(
        pcre2_compile(units(pattern), pattern.size(), options, &number, &place, context.get()));
    if (code == nullptr)
        *error = "'" + std::string(pattern) + "' is no regular expression: " + reasonOf(number) +
                 " (behind " + std::to_string(place) + " bytes)";
    return code;
}

bool compilePattern(std::string_view text, uint32_t options, Pattern* pattern, std::string* error) {
    pattern->quick = compileCode(text, options | PCRE2_UTF, error);
    pattern->tolerant = compileCode(text, options | PCRE2_UTF | PCRE2_MATCH_INVALID_UTF, error);
    if (pattern->quick == nullptr || pattern->tolerant == nullptr)
        return false;
    (void)pcre2_jit_compile(pattern->quick.get(), PCRE2_JIT_COMPLETE); // otherwise it is interpreted, too
    return true;
}

/** How far an escape goes that begins at `at`: with the name in braces or the letter of a property. */
size_t endOfEscape(std::string_view pattern, size_t at) {
    constexpr std::string_view kNamed = "pPxokgNu";
    size_t end = std::min(at + 2, pattern.size());
    if (end - at < 2 || end == pattern.size() || kNamed.find(pattern[at + 1]) == std::string_view::npos)
        return end;
    size_t brace = pattern[end] == '{' ? pattern.find('}', end) : std::string_view::npos;
    if (brace != std::string_view::npos)
        return brace + 1;
    return pattern[at + 1] == 'p' || pattern[at + 1] == 'P' ? end + 1 : end;
}

/** A pattern without its escapes. */
std::string literalsOf(std::string_view pattern) {
    std::string literals;
    for (size_t at = 0; at < pattern.size();) {
        if (pattern.substr(at, 2) == "\\Q") {
            size_t end = std::min(pattern.find("\\E", at), pattern.size());
            literals += pattern.substr(at + 2, end - at - 2);
            at = std::min(end + 2, pattern.size());
        } else if (pattern[at] == '\\') {
            at = endOfEscape(pattern, at);
        } else {
            literals += pattern[at++];
        }
    }
    return literals;
}

bool holdsCapital(std::string_view text) {
    std::string error;
    Searcher searcher;
    Pattern capital;
    return compilePattern("\\p{Lu}", 0, &capital, &error) && searcher.ready() &&
           searcher.search(capital, text) == Searcher::Found::Yes;
}

bool foldsCase(const QueryOptions& options, const std::string& pattern) {
    switch (options.letters) {
    case QueryOptions::Case::Sensitive:
        return false;
    case QueryOptions::Case::Insensitive:
        return true;
    case QueryOptions::Case::Smart:
        return !holdsCapital(options.fixed ? pattern : literalsOf(pattern));
    }
    return false;
}

struct PriorityWord {
    const char* word;
    int priority;
};

constexpr PriorityWord kPriorityWords[] = {
    {"verbose", 2}, {"debug", 3},  {"info", 4},  {"warn", 5},    {"warning", 5},
    {"error", 6},   {"fatal", 7},  {"emerg", 7}, {"alert", 7},   {"crit", 7},
    {"err", 6},     {"notice", 4}, {"v", 2},     {"d", 3},       {"i", 4},
    {"w", 5},       {"e", 6},      {"f", 7},     {"s", kSilent}, {"silent", kSilent},
};

} // namespace

bool findPriority(std::string_view word, int* priority) {
    for (const PriorityWord& known : kPriorityWords) {
        if (std::strlen(known.word) == word.size() &&
            strncasecmp(known.word, word.data(), word.size()) == 0) {
            *priority = known.priority;
            return true;
        }
    }
    return false;
}

class Query::Work {
  public:
    bool compile(const QueryOptions& options, std::string* error);
    bool matches(const Record& record);
    bool wantsFields() const { return mWantsFields; }
    uint32_t givenUp() const { return mEarlier + mGivenUp - std::min(mAgain, mGivenUp); }
    bool tooSlow() const { return mGivenUp >= kMostGivenUp; }
    bool wasTooSlow() const { return mWasTooSlow; }
    void beginPass(uint32_t again);

  private:
    bool dated(const LineTime& time) const;
    bool fromSource(const LogLine& line) const;
    bool important(const LogLine& line) const;
    bool tagged(std::string_view tag);
    bool holdsPattern(std::string_view text);

    QueryOptions mOptions;
    bool mWantsFields = false;
    std::vector<Pattern> mPatterns;
    Searcher mSearcher;
    uint32_t mGivenUp = 0; ///< lines of this pass
    uint32_t mAgain = 0; ///< of them, those that count already, at most
    uint32_t mEarlier = 0; ///< lines of the passes before
    bool mWasTooSlow = false;
    std::string mTag; ///< that was looked at last
    bool mTagMatches = false;
};

bool Query::Work::compile(const QueryOptions& options, std::string* error) {
    mOptions = options;
    mPatterns.clear();
    mGivenUp = mAgain = mEarlier = 0;
    mWasTooSlow = false;
    mTag.clear();
    mTagMatches = false;
    mWantsFields = options.kernel || options.android || options.priority != 0 || !options.tags.empty() ||
                   options.since != INT64_MIN || options.until != INT64_MAX;
    if (!mSearcher.ready()) {
        *error = "there is no memory to search with";
        return false;
    }
    for (const std::string& pattern : options.patterns) {
        uint32_t flags =
            (options.fixed ? PCRE2_LITERAL : 0) | (foldsCase(options, pattern) ? PCRE2_CASELESS : 0);
        mPatterns.emplace_back();
        if (!compilePattern(pattern, flags, &mPatterns.back(), error))
            return false;
    }
    return true;
}

bool Query::Work::matches(const Record& record) {
    if (!mWantsFields)
        return holdsPattern(record.bytes);
    const LogLine& line = record.line;
    if (!dated(record.time))
        return false;
    bool everybodys = line.source == LineSource::Service || line.source == LineSource::Reader;
    if (!everybodys && !(fromSource(line) && important(line) && tagged(line.tag)))
        return false;
    return holdsPattern(record.bytes);
}

bool Query::Work::dated(const LineTime& time) const {
    return time.basis == TimeBasis::None ||
           (time.nanoseconds >= mOptions.since && time.nanoseconds <= mOptions.until);
}

bool Query::Work::fromSource(const LogLine& line) const {
    if (!mOptions.kernel && !mOptions.android)
        return true;
    return line.source == LineSource::Kernel ? mOptions.kernel
                                             : line.source == LineSource::Android && mOptions.android;
}

bool Query::Work::important(const LogLine& line) const {
    if (mOptions.priority == 0)
        return true;
    if (line.source != LineSource::Kernel)
        return line.priority >= mOptions.priority;
    return line.level >= 0 ? priorityOfLevel(line.level) >= mOptions.priority : mOptions.kernel;
}

bool Query::Work::tagged(std::string_view tag) {
    if (mOptions.tags.empty() || tag.empty())
        return mOptions.tags.empty();
    if (tag != mTag) {
        mTag = tag;
        mTagMatches =
            std::any_of(mOptions.tags.begin(), mOptions.tags.end(), [this](const std::string& pattern) {
                return fnmatch(pattern.c_str(), mTag.c_str(), 0) == 0;
            });
    }
    return mTagMatches;
}

bool Query::Work::holdsPattern(std::string_view text) {
    if (mPatterns.empty())
        return true;
    bool found = false, givenUp = false;
    for (const Pattern& pattern : mPatterns) {
        Searcher::Found result = mSearcher.search(pattern, text);
        givenUp = givenUp || result == Searcher::Found::GivenUp;
        found = result == Searcher::Found::Yes;
        if (found)
            break;
    }
    mGivenUp += givenUp ? 1 : 0;
    return found != mOptions.invert;
}

void Query::Work::beginPass(uint32_t again) {
    mWasTooSlow = mWasTooSlow || tooSlow();
    mEarlier = givenUp();
    mAgain = again;
    mGivenUp = 0;
}

Query::Query() : mWork(std::make_unique<Work>()) {}
Query::~Query() = default;

bool Query::compile(const QueryOptions& options, std::string* error) {
    return mWork->compile(options, error);
}

bool Query::wantsFields() const {
    return mWork->wantsFields();
}

bool Query::matches(const Record& record) {
    return mWork->matches(record);
}

uint32_t Query::givenUp() const {
    return mWork->givenUp();
}

bool Query::tooSlow() const {
    return mWork->tooSlow();
}

bool Query::wasTooSlow() const {
    return mWork->wasTooSlow();
}

void Query::beginPass(uint32_t again) {
    mWork->beginPass(again);
}

} // namespace vnlog
