#include "sources/AndroidFormat.h"

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

bool addListedRule(AndroidLogFormat_t* format, const char* item) {
    return std::strpbrk(item, "\n=") == nullptr && android_log_addFilterRule(format, item) >= 0;
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
