// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <cstddef>
#include <log/logprint.h>

/*
 * The log library's format record as far as the service reads and edits it: the library declares it without
 * its fields. A test compares this layout with what the linked library really does.
 */

/** One filter rule; the record and its tag are allocated by the library with the C allocator. */
struct AndroidLogFilterRule_t {
    char* tag; ///< module name, owned by the rule
    android_LogPriority priority; ///< lowest priority that passes for the tag
    AndroidLogFilterRule_t* next; ///< next older rule
};

/** Filter rules and line format; the library's record goes on behind these fields. */
struct AndroidLogFormat_t {
    android_LogPriority globalPriority; ///< set by rules for the tag "*"
    AndroidLogFilterRule_t* rules; ///< newest rule first
    AndroidLogPrintFormat printFormat;
};

static_assert(offsetof(AndroidLogFormat_t, rules) == sizeof(void*), "priority, rule list, print format");
static_assert(offsetof(AndroidLogFormat_t, printFormat) == 2 * sizeof(void*), "no gap behind the rule list");
static_assert(sizeof(AndroidLogFilterRule_t) == 3 * sizeof(void*), "tag, priority, next rule");

namespace vnlog {

/** The letters of the priorities from verbose (2) to silent (8). */
constexpr char kPriorityLetters[] = "vdiwefs";

/** Whether the letter is one of them. */
bool isPriorityLetter(char letter);
/** The priority of such a letter. */
int letterPriority(char letter);
/** The letter of a priority; '?' when it has none. */
char priorityLetter(android_LogPriority priority);

// The two words of ALOG_MODULE that are not lists, and the three modes.
constexpr char kAllModules[] = "ALL_MODULE";
constexpr char kNoModule[] = "NONE_MODULE";
constexpr int kModeAll = 0;
constexpr int kModeNone = 1;
constexpr int kModeListed = 2;

/** Whether a value of ALOG_MODULE is one of those words, which count by their beginning. */
bool beginsWithWord(const char* text, const char* word);

/** Releases a rule that is in no list any more. */
void releaseRule(AndroidLogFilterRule_t* rule);
/** Removes every rule with its tag; the library's own release of a record leaves the tags. */
void releaseRules(AndroidLogFormat_t* format);

/** A copy of an item of `length` bytes, with the level behind it when it has none. Null without memory. */
Text completeItem(const char* list, size_t length, const char* level);

/**
 * Adds an item of a module list, complete with its level, as a rule. False when the library refuses it, and
 * for one that log.cfg could not give back: with a line end, which would cut the module line in two, with a
 * "=", for a key is found there wherever it stands, or with a name that begins like one of the two words.
 */
bool addListedRule(AndroidLogFormat_t* format, const char* item);

/** How many items of a module list addListedRule takes and refuses. */
struct ListItems {
    unsigned accepted = 0;
    unsigned refused = 0;
};
ListItems examineList(const char* list);

/** The word of the format that holds when nothing else is said. */
constexpr char kDefaultLineFormat[] = "brief";

/** The line format whose word `text` begins with; FORMAT_OFF when there is none. */
AndroidLogPrintFormat lineFormat(const char* text);
/** The word of a line format; null when it has none. */
const char* lineFormatWord(AndroidLogPrintFormat value);

} // namespace vnlog
