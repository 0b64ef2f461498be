// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sources/FilterState.h"

#include <cstddef>
#include <cstdio>

namespace vnlog {

/**
 * Which Android entries pass, and how their lines look. Every operation takes the filter lock. A rule that
 * the log library refuses is reported and skipped; everything else goes on.
 */
class Filter {
  public:
    explicit Filter(FilterState& state) : mState(state) {}
    ~Filter();
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;

    /**
     * Begins anew with a line format's word, the text of ALOG_MODULE and the level's letter. Of a list, the
     * first rule for a module acts; an empty one has none. False without memory.
     */
    [[nodiscard]] bool build(const char* format, const char* modules, const char* level)
        VNLOG_EXCLUDES(FilterLock::role);

    // --- decisions

    /** Lowest priority that passes for the tag. */
    int priorityFor(const AndroidLogFormat_t* format, const char* tag) VNLOG_EXCLUDES(FilterLock::role);
    /** The line of an entry, in `usual` of `size` bytes or in memory of its own; null without memory. */
    char* formatLine(AndroidLogFormat_t* format, char* usual, size_t size, const AndroidLogEntry& entry,
                     size_t* length) VNLOG_EXCLUDES(FilterLock::role);

    // --- edits

    void clearRules(AndroidLogFormat_t* format) VNLOG_EXCLUDES(FilterLock::role);
    /** Removes the newest rule for the tag, if there is one. False when there are no rules at all. */
    bool deleteRule(AndroidLogFormat_t* format, const char* tag) VNLOG_EXCLUDES(FilterLock::role);
    /** Takes a line format's word. False for an unknown one. */
    [[nodiscard]] bool setLineFormat(const char* word) VNLOG_EXCLUDES(FilterLock::role);
    /** Makes the letter's priority the one of modules without a rule. */
    void setLevel(const char* level) VNLOG_EXCLUDES(FilterLock::role);
    /** Lets all modules pass from the level on (kModeAll) or none (kModeNone); without effect in that mode
     * already. */
    void setMode(int mode, const char* level) VNLOG_EXCLUDES(FilterLock::role);
    /**
     * Adds the items of a module list; those without a level take `level`. A module that is listed gets the
     * item's level and keeps its place. Earlier rules stay in list mode only.
     */
    void addModules(const char* list, const char* level) VNLOG_EXCLUDES(FilterLock::role);
    /** Removes a module's rule, in list mode only. */
    void deleteModule(const char* name) VNLOG_EXCLUDES(FilterLock::role);

    /** Whether the mode is that of a list and the module has a rule there. */
    bool lists(const char* name) VNLOG_EXCLUDES(FilterLock::role);

    // --- as log.cfg has it

    /**
     * Prints the value of ALOG_MODULE: one of the two words, or the rules in the order in which they act,
     * none for an empty list. build makes the same of it again.
     */
    void printModules(FILE* out) VNLOG_EXCLUDES(FilterLock::role);
    /** Prints the word of the line format. */
    void printLineFormat(FILE* out) VNLOG_EXCLUDES(FilterLock::role);

  private:
    using Report = void (*)();
    enum class ListEnd { Newest, Oldest }; ///< where a rule goes that is not in the list yet

    bool addRule(const char* expression) VNLOG_REQUIRES(FilterLock::role);
    void addLevel(char* expression, const char* level, Report refused) VNLOG_REQUIRES(FilterLock::role);
    void addItems(const char* list, const char* level, ListEnd end, Report refused)
        VNLOG_REQUIRES(FilterLock::role);
    void placeNewest(ListEnd end) VNLOG_REQUIRES(FilterLock::role);
    bool takeLineFormat(const char* word) VNLOG_REQUIRES(FilterLock::role);
    void releaseFormat() VNLOG_REQUIRES(FilterLock::role);

    FilterState& mState;
    Mutex<FilterLock> mLock;
};

} // namespace vnlog
