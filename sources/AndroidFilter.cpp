#include "platform/klog/ConsoleLevel.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "sources/AndroidFormat.h"

#include <cstdio>
#include <cstring>

namespace vnlog {

namespace {

constexpr size_t kExpressionSize = 32; // at least; an item that needs more gets more

bool beginsWith(const char* text, const char* word) {
    return std::strncmp(text, word, std::strlen(word)) == 0;
}

bool sameTag(const AndroidLogFilterRule_t* rule, const char* tag) {
    return std::strcmp(rule->tag, tag) == 0;
}

void reportRefusedRule(int line) {
    logError("line[%d] alog add filter failed \n", line);
}

} // namespace

int LogService::logFilterInit() {
    if (platform::setConsoleLevel(mSystemRoot, mKLogLevel) < 0) {
        logError("fail to set the kernel log level,level is :%d\n", mKLogLevel.load());
        logErrno();
    }
    std::lock_guard<std::mutex> lock(mFilterLock);
    if (mLogFormat != nullptr) { // of an earlier start
        releaseRules(mLogFormat);
        android_log_format_free(mLogFormat);
    }
    mLogFormat = android_log_format_new();
    if (applyFormatWord(mFormatCfg) != 0)
        logError("fail to set format init,format is :%s\n", mFormatCfg);

    Text expression = allocateText(kExpressionSize);
    if (expression == nullptr) {
        logError("fail to malloc filterExpression!\n");
        logErrno();
        return -1;
    }
    if (beginsWith(mModuleCfg, kAllModules)) {
        std::snprintf(expression.get(), kExpressionSize, "*:%s", mALogLevel);
        if (!addRule(expression.get()))
            reportRefusedRule(__LINE__);
        mModuleMode = kModeAll;
    } else if (beginsWith(mModuleCfg, kNoModule)) {
        if (!addRule("*:s"))
            reportRefusedRule(__LINE__);
        mModuleMode = kModeNone;
    } else {
        mModuleMode = kModeListed;
        addModuleRules(mModuleCfg, [] { reportRefusedRule(__LINE__); });
    }
    return 0;
}

/** Adds a rule, or sets the global priority for the tag "*". False when the library refuses the expression.
 */
bool LogService::addRule(const char* expression) {
    return android_log_addFilterRule(mLogFormat, expression) >= 0;
}

/** Adds the items of a module list, the current level behind those without one; mFilterLock is held. */
void LogService::addModuleRules(const char* list, void (*reportRefused)()) {
    size_t total = std::strlen(list);
    size_t used = 0;
    do {
        size_t length = std::strcspn(list, "+");
        // An item of any length fits with the level behind it.
        Text item = allocateText(length + sizeof ":" + sizeof mALogLevel);
        if (item == nullptr)
            return;
        std::memcpy(item.get(), list, length);
        if (std::strchr(item.get(), ':') == nullptr)
            std::sprintf(item.get() + length, ":%s", mALogLevel);
        if (!addListedRule(mLogFormat, item.get()))
            reportRefused();
        used += length + 1;
        list += length + 1;
    } while (used < total);
}

int LogService::logFilterPriForTag(AndroidLogFormat_t* format, const char* tag) {
    std::lock_guard<std::mutex> lock(mFilterLock);
    switch (mModuleMode) {
    case kModeAll:
        return format->globalPriority;
    case kModeNone:
        return ANDROID_LOG_SILENT;
    default:
        break;
    }
    const AndroidLogFilterRule_t* rule = format->rules;
    while (rule != nullptr && !sameTag(rule, tag))
        rule = rule->next;
    if (rule == nullptr)
        return ANDROID_LOG_ERROR;
    return rule->priority == ANDROID_LOG_DEFAULT ? format->globalPriority : rule->priority;
}

int LogService::androidLogShouldPrintLine(AndroidLogFormat_t* format, const char* tag,
                                          android_LogPriority priority) {
    return priority >= logFilterPriForTag(format, tag) ? 1 : 0;
}

void LogService::androidLogClearAllFilterRule(AndroidLogFormat_t* format) {
    std::lock_guard<std::mutex> lock(mFilterLock);
    releaseRules(format);
}

int LogService::androidLogDelFilterRule(AndroidLogFormat_t* format, const char* tag) {
    std::lock_guard<std::mutex> lock(mFilterLock);
    if (format->rules == nullptr)
        return -1;
    AndroidLogFilterRule_t** link = &format->rules;
    while (*link != nullptr && !sameTag(*link, tag))
        link = &(*link)->next;
    if (AndroidLogFilterRule_t* rule = *link) {
        *link = rule->next;
        releaseRule(rule);
    }
    return 0;
}

int LogService::setLogFormat(const char* text) {
    std::lock_guard<std::mutex> lock(mFilterLock);
    return applyFormatWord(text);
}

/** setLogFormat for callers that hold mFilterLock. */
int LogService::applyFormatWord(const char* text) {
    AndroidLogPrintFormat value = formatFromString(text);
    if (value == FORMAT_OFF)
        return -1;
    android_log_setPrintFormat(mLogFormat, value);
    return 0;
}

char LogService::filterPriToChar(android_LogPriority priority) {
    if (priority < ANDROID_LOG_VERBOSE || priority > ANDROID_LOG_SILENT)
        return '?';
    return kPriorityLetters[priority - ANDROID_LOG_VERBOSE];
}

AndroidLogPrintFormat LogService::formatFromString(const char* text) {
    return lineFormat(text);
}

const char* LogService::formattostring(AndroidLogPrintFormat value) {
    return lineFormatWord(value);
}

} // namespace vnlog
