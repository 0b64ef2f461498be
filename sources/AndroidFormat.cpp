// SPDX-License-Identifier: Apache-2.0
#include "sources/AndroidFormat.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vnlog {

namespace {

/** Format words with their values; a word stands before the one that it begins with. */
struct FormatWord {
    const char* word;
    AndroidLogPrintFormat value;
};

constexpr FormatWord kFormatWords[] = {
    {kDefaultLineFormat, FORMAT_BRIEF},
    {"process", FORMAT_PROCESS},
    {"tag", FORMAT_TAG},
    {"threadtime", FORMAT_THREADTIME},
    {"thread", FORMAT_THREAD},
    {"raw", FORMAT_RAW},
    {"time", FORMAT_TIME},
    {"long", FORMAT_LONG},
};

} // namespace

bool isPriorityLetter(char letter) {
    return letter != '\0' && std::strchr(kPriorityLetters, letter) != nullptr;
}

int letterPriority(char letter) {
    return ANDROID_LOG_VERBOSE + static_cast<int>(std::strchr(kPriorityLetters, letter) - kPriorityLetters);
}

char priorityLetter(android_LogPriority priority) {
    if (priority < ANDROID_LOG_VERBOSE || priority > ANDROID_LOG_SILENT)
        return '?';
    return kPriorityLetters[priority - ANDROID_LOG_VERBOSE];
}

void releaseRule(AndroidLogFilterRule_t* rule) {
    std::free(rule->tag);
    std::free(rule);
}

void releaseRules(AndroidLogFormat_t* format) {
    while (AndroidLogFilterRule_t* rule = format->rules) {
        format->rules = rule->next;
        releaseRule(rule);
    }
}

bool beginsWithWord(const char* text, const char* word) {
    return std::strncmp(text, word, std::strlen(word)) == 0;
}

Text completeItem(const char* list, size_t length, const char* level) {
    size_t room = length + 1 + std::strlen(level) + 1; // an item of any length fits with the level behind it
    Text item = allocateText(room);
    if (item == nullptr)
        return nullptr;
    std::memcpy(item.get(), list, length);
    if (std::strchr(item.get(), ':') == nullptr)
        std::snprintf(item.get() + length, room - length, ":%s", level);
    return item;
}

bool addListedRule(AndroidLogFormat_t* format, const char* item) {
    bool readBack = std::strpbrk(item, "\n=") == nullptr && !beginsWithWord(item, kAllModules) &&
                    !beginsWithWord(item, kNoModule);
    return readBack && android_log_addFilterRule(format, item) >= 0;
}

ListItems examineList(const char* list) {
    AndroidLogFormat_t* scratch = android_log_format_new();
    ListItems items;
    while (*list != '\0') {
        size_t length = std::strcspn(list, "+");
        Text item = completeItem(list, length, "v");
        bool accepted = item != nullptr && addListedRule(scratch, item.get());
        ++(accepted ? items.accepted : items.refused);
        list += length + (list[length] == '+' ? 1 : 0);
    }
    releaseRules(scratch);
    android_log_format_free(scratch);
    return items;
}

AndroidLogPrintFormat lineFormat(const char* text) {
    for (const FormatWord& entry : kFormatWords) {
        if (std::strncmp(text, entry.word, std::strlen(entry.word)) == 0)
            return entry.value;
    }
    return FORMAT_OFF;
}

const char* lineFormatWord(AndroidLogPrintFormat value) {
    for (const FormatWord& entry : kFormatWords) {
        if (entry.value == value)
            return entry.word;
    }
    return nullptr;
}

} // namespace vnlog
