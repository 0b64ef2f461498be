// SPDX-License-Identifier: Apache-2.0
#include "sources/Filter.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "sources/AndroidFormat.h"

#include <cstring>

namespace vnlog {

namespace {

constexpr size_t kExpressionSize = 32;
constexpr char kSilentLevel[] = "s";

bool sameTag(const AndroidLogFilterRule_t* rule, const char* tag) {
    return std::strcmp(rule->tag, tag) == 0;
}

void reportAtStart(int line) {
    logError("line[%d] alog add filter failed \n", line);
}

void reportToCommand() {
    logError("Cmd alog add filter failed \n");
}

} // namespace

Filter::~Filter() {
    LockGuard<FilterLock> lock(mLock);
    releaseFormat();
}

void Filter::releaseFormat() {
    if (mState.mLogFormat == nullptr)
        return;
    releaseRules(mState.mLogFormat);
    android_log_format_free(mState.mLogFormat);
    mState.mLogFormat = nullptr;
}

bool Filter::build(const char* format, const char* modules, const char* level) {
    LockGuard<FilterLock> lock(mLock);
    releaseFormat(); // of an earlier start
    mState.mLogFormat = android_log_format_new();
    if (!takeLineFormat(format))
        logError("fail to set format init,format is :%s\n", format);
    Text expression = allocateText(kExpressionSize);
    if (expression == nullptr) {
        logError("fail to malloc filterExpression!\n");
        logErrno();
        return false;
    }
    if (beginsWithWord(modules, kAllModules)) {
        addLevel(expression.get(), level, [] { reportAtStart(__LINE__); });
        mState.mModuleMode = kModeAll;
    } else if (beginsWithWord(modules, kNoModule)) {
        addLevel(expression.get(), kSilentLevel, [] { reportAtStart(__LINE__); });
        mState.mModuleMode = kModeNone;
    } else {
        mState.mModuleMode = kModeListed;
        if (modules[0] != '\0') // a list may be empty
            addItems(modules, level, ListEnd::Oldest, [] { reportAtStart(__LINE__); });
    }
    return true;
}

/** Adds a rule, or sets the global priority for the tag "*". False when the library refuses the expression.
 */
bool Filter::addRule(const char* expression) {
    return android_log_addFilterRule(mState.mLogFormat, expression) >= 0;
}

/** Makes the level the global priority; `expression` has room for kExpressionSize bytes. */
void Filter::addLevel(char* expression, const char* level, Report refused) {
    std::snprintf(expression, kExpressionSize, "*:%s", level);
    if (!addRule(expression))
        refused();
}

/** Adds the items of a module list, the level behind those without one. */
void Filter::addItems(const char* list, const char* level, ListEnd end, Report refused) {
    size_t total = std::strlen(list);
    size_t used = 0;
    do {
        size_t length = std::strcspn(list, "+");
        Text item = completeItem(list, length, level);
        if (item == nullptr)
            return;
        const AndroidLogFilterRule_t* newest = mState.mLogFormat->rules;
        if (!addListedRule(mState.mLogFormat, item.get()))
            refused();
        else if (mState.mLogFormat->rules != newest) // "*" makes no rule
            placeNewest(end);
        used += length + 1;
        list += length + 1;
    } while (used < total);
}

/** Lets there be one rule for each module: the library puts every one in front. */
void Filter::placeNewest(ListEnd end) {
    AndroidLogFormat_t* format = mState.mLogFormat;
    AndroidLogFilterRule_t* added = format->rules;
    AndroidLogFilterRule_t** link = &added->next;
    while (*link != nullptr && !sameTag(*link, added->tag))
        link = &(*link)->next;
    if (AndroidLogFilterRule_t* listed = *link) {
        if (end == ListEnd::Newest) // a file's first rule for a module is the one that acts
            listed->priority = added->priority;
        format->rules = added->next;
        releaseRule(added);
    } else if (end == ListEnd::Oldest && link != &added->next) {
        *link = added;
        format->rules = added->next;
        added->next = nullptr;
    }
}

int Filter::priorityFor(const AndroidLogFormat_t* format, const char* tag) {
    LockGuard<FilterLock> lock(mLock);
    if (mState.mModuleMode == kModeAll)
        return format->globalPriority;
    if (mState.mModuleMode == kModeNone)
        return ANDROID_LOG_SILENT;
    const AndroidLogFilterRule_t* rule = format->rules;
    while (rule != nullptr && !sameTag(rule, tag))
        rule = rule->next;
    if (rule == nullptr)
        return ANDROID_LOG_ERROR;
    return rule->priority == ANDROID_LOG_DEFAULT ? format->globalPriority : rule->priority;
}

char* Filter::formatLine(AndroidLogFormat_t* format, char* usual, size_t size, const AndroidLogEntry& entry,
                         size_t* length) {
    CancelGuard guard;
    LockGuard<FilterLock> lock(mLock);
    return android_log_formatLogLine(format, usual, size, &entry, length);
}

void Filter::clearRules(AndroidLogFormat_t* format) {
    LockGuard<FilterLock> lock(mLock);
    releaseRules(format);
}

bool Filter::deleteRule(AndroidLogFormat_t* format, const char* tag) {
    LockGuard<FilterLock> lock(mLock);
    if (format->rules == nullptr)
        return false;
    AndroidLogFilterRule_t** link = &format->rules;
    while (*link != nullptr && !sameTag(*link, tag))
        link = &(*link)->next;
    if (AndroidLogFilterRule_t* rule = *link) {
        *link = rule->next;
        releaseRule(rule);
    }
    return true;
}

bool Filter::setLineFormat(const char* word) {
    LockGuard<FilterLock> lock(mLock);
    return takeLineFormat(word);
}

bool Filter::takeLineFormat(const char* word) {
    AndroidLogPrintFormat value = lineFormat(word);
    if (value == FORMAT_OFF)
        return false;
    android_log_setPrintFormat(mState.mLogFormat, value);
    return true;
}

void Filter::setLevel(const char* level) {
    LockGuard<FilterLock> lock(mLock);
    char expression[kExpressionSize];
    addLevel(expression, level, reportToCommand);
}

void Filter::setMode(int mode, const char* level) {
    LockGuard<FilterLock> lock(mLock);
    if (mState.mModuleMode == mode)
        return;
    mState.mModuleMode = mode;
    releaseRules(mState.mLogFormat);
    char expression[kExpressionSize];
    addLevel(expression, mode == kModeAll ? level : kSilentLevel, reportToCommand);
}

void Filter::addModules(const char* list, const char* level) {
    LockGuard<FilterLock> lock(mLock);
    if (mState.mModuleMode != kModeListed) {
        mState.mModuleMode = kModeListed;
        releaseRules(mState.mLogFormat);
    }
    addItems(list, level, ListEnd::Newest, reportToCommand);
}

void Filter::deleteModule(const char* name) {
    if (mState.mModuleMode == kModeListed && !deleteRule(mState.mLogFormat, name))
        logError("failed to delete filter rule \n");
}

bool Filter::lists(const char* name) {
    LockGuard<FilterLock> lock(mLock);
    if (mState.mModuleMode != kModeListed)
        return false;
    const AndroidLogFilterRule_t* rule = mState.mLogFormat->rules;
    while (rule != nullptr && !sameTag(rule, name))
        rule = rule->next;
    return rule != nullptr;
}

void Filter::printModules(FILE* out) {
    LockGuard<FilterLock> lock(mLock);
    if (mState.mModuleMode != kModeListed) {
        std::fputs(mState.mModuleMode == kModeNone ? kNoModule : kAllModules, out);
        return;
    }
    for (const AndroidLogFilterRule_t* rule = mState.mLogFormat->rules; rule != nullptr; rule = rule->next)
        std::fprintf(out, "%s:%c%s", rule->tag, priorityLetter(rule->priority),
                     rule->next != nullptr ? "+" : "");
}

void Filter::printLineFormat(FILE* out) {
    LockGuard<FilterLock> lock(mLock);
    const char* word = lineFormatWord(mState.mLogFormat->printFormat);
    std::fputs(word != nullptr ? word : kDefaultLineFormat, out);
}

} // namespace vnlog
