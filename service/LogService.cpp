// SPDX-License-Identifier: Apache-2.0
#include "service/LogService.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "config/Report.h"
#include "service/Parts.h"
#include "sources/AndroidFormat.h"
#include "sources/Merge.h"

#include <cstdarg>
#include <cstring>

namespace vnlog {

namespace {

constexpr int result(bool done) {
    return done ? 0 : -1;
}

LogService& asService(void* argument) {
    return *static_cast<LogService*>(argument);
}

void destroySemaphore(sem_t* semaphore, int number) {
    if (sem_destroy(semaphore) == 0)
        return;
    logError("error destroy sem failure [%d]\n", number);
    logErrno();
}

} // namespace

ServiceParts::ServiceParts(LogService& service)
    : medium(service, storageLock), ring(service, medium), shell(service),
      store(service, storageLock, ring, files, systemRoot), flusher(service, ring, store), filter(service),
      intake(service, ring, lifecycle), kernelReader(service, systemRoot, intake),
      androidLine(service, service, filter, intake, console), androidReader(service, systemRoot, androidLine),
      settings(service, storageLock, filter), workers(service, *this), status(service, *this),
      lastWords(service, *this), comeback(service, *this),
      dispatcher({service, service, commandLock, systemRoot, service, settings, store, filter, kernelReader,
                  androidReader, comeback, ring, console, status}),
      lifecycle(service, *this) {}

LogService::LogService(DeferStart) : mParts(std::make_unique<ServiceParts>(*this)) {
    (void)sem_init(&mKLogSem, 0, 0); // cannot fail for a private semaphore of count 0
    (void)sem_init(&mALogSem, 0, 0);
    (void)mParts->systemRoot.read(); // the start refuses one that is too long
}

LogService::LogService() : LogService(DeferStart{}) {
    const bool flags[] = {true, true, true};
    if (serviceStart(flags) != 0)
        logError("%s", kStartFailed);
}

LogService::~LogService() {
    const bool flags[] = {true, true, true};
    if (serviceStop(flags) < 0)
        logError("serviceStop failed \n");
    destroySemaphore(&mKLogSem, 0);
    destroySemaphore(&mALogSem, 1);
}

// --- Life cycle

int LogService::serviceStart(const bool* flags) {
    return result(mParts->lifecycle.start(flags));
}
int LogService::serviceStop(const bool* flags) {
    return result(mParts->lifecycle.stop(flags));
}
int LogService::getLogFd() {
    return mParts->store.openOlderText();
}
uint32_t LogService::bufferedBytes() const {
    return mParts->ring.used();
}
uint32_t LogService::droppedBytes() const {
    return mParts->ring.droppedBytes();
}

// --- Shell and files

int LogService::shellexecute(const char* format, ...) {
    va_list args;
    va_start(args, format);
    bool done = runCommandArgs(format, args);
    va_end(args);
    return result(done);
}
int LogService::shellexecNotwait(const char* format, ...) {
    va_list args;
    va_start(args, format);
    bool started = mParts->shell.startCommand(format, args);
    va_end(args);
    return result(started);
}
void* LogService::shellexe(void* command) {
    runUnwatched(static_cast<const char*>(command));
    return nullptr;
}
int LogService::checkDirEmpty(const char* path) {
    switch (folderState(path)) {
    case FolderState::Empty:
        return 1;
    case FolderState::NotEmpty:
        return 0;
    case FolderState::Unreadable:
        break;
    }
    return -1;
}
int LogService::getFolderSize(const char* path) {
    uint32_t sum = 0;
    return folderSize(path, &sum) ? static_cast<int>(sum) : -1;
}
uint32_t LogService::getFileSize(const char* path) {
    return fileSize(path);
}
uint32_t LogService::getFileFreeSpace(const char* path) {
    return freeSpace(path);
}

// --- Configuration

int LogService::logConfigParse(const char* path) {
    LockGuard<CommandLock> lock(mParts->commandLock);
    return mParts->settings.parse(path) ? 1 : -1;
}
int LogService::logConfigInit() {
    LockGuard<CommandLock> lock(mParts->commandLock);
    mParts->settings.takeDefaults();
    return 2;
}
bool LogService::getCfgValue(const char* text, const char* key) {
    return valueIsYes(text, key);
}
int LogService::getCfgStr(const char* text, const char* key, char* out, int limit, int* length) {
    return result(copyValue(text, key, out, limit, length));
}
int LogService::getCfgInt(const char* text, const char* key, int* out, int minimum, int maximum,
                          int fallback) {
    return result(readNumber(text, key, out, minimum, maximum, fallback));
}
bool LogService::strToBool(const char* text) {
    return isYes(text);
}
int LogService::logConfigSave() {
    LockGuard<CommandLock> lock(mParts->commandLock);
    return result(mParts->settings.save());
}
void LogService::showLogCfg() {
    showConfiguration(mCfgPath, mParts->console);
}

// --- Ring buffer

int LogService::logBufWrite(const void* bytes, uint32_t length) {
    return mParts->intake.append(bytes, length) ? static_cast<int>(length) : -1;
}
int LogService::logBufRead2File(int fd, uint32_t wanted) {
    TakeResult taken = mParts->ring.take(fd, wanted);
    return taken.status == TakeStatus::WriteFailed ? -1 : static_cast<int>(taken.count);
}
void* LogService::logBufFlush(void* service) {
    asService(service).mParts->flusher.run();
    return nullptr;
}
void LogService::logBufFlushExit() {
    mParts->store.closeSection();
}
int LogService::flushLogBufAll() {
    (void)mParts->ring.requestFlush(); // nobody asks what became of it
    return 0;
}

// --- Stored log

int LogService::logGetSavePath() {
    return result(mParts->store.resolveRoot());
}
int LogService::logStorageDataSave() {
    return result(mParts->store.saveNumbers());
}
int LogService::logStorageDataParse() {
    return mParts->store.parseNumbers() ? 1 : -1;
}
int LogService::saveLogSection(unsigned int count) {
    SaveStatus status = mParts->store.save(count).status;
    return result(status == SaveStatus::Saved || status == SaveStatus::WriteFailed);
}
int LogService::initLogStorage() {
    return static_cast<int>(mParts->store.prepareRoot());
}
int LogService::deleteLogSection() {
    return static_cast<int>(mParts->store.deleteOldest());
}
int LogService::deleteAllLog() {
    return result(mParts->store.deleteAll());
}
int LogService::init_Log_Storage() {
    return static_cast<int>(mParts->store.closePreviousRun());
}
int LogService::repairLogDatFile() {
    return static_cast<int>(mParts->store.rebuildNumbers());
}

// --- Kernel log

void* LogService::kernelLogReader(void* service) {
    asService(service).mParts->kernelReader.run();
    return nullptr;
}
void LogService::kernelLog_cleanup(void* record) {
    KernelReader::cleanUp(record);
}
int LogService::clearKernelLog() {
    return result(mParts->kernelReader.clear());
}

// --- Android filter

int LogService::logFilterInit() {
    LockGuard<CommandLock> lock(mParts->commandLock);
    return result(mParts->lifecycle.applyFilter());
}
int LogService::logFilterPriForTag(AndroidLogFormat_t* format, const char* tag) {
    return mParts->filter.priorityFor(format, tag);
}
int LogService::androidLogShouldPrintLine(AndroidLogFormat_t* format, const char* tag,
                                          android_LogPriority priority) {
    return priority >= mParts->filter.priorityFor(format, tag) ? 1 : 0;
}
void LogService::androidLogClearAllFilterRule(AndroidLogFormat_t* format) {
    mParts->filter.clearRules(format);
}
int LogService::androidLogDelFilterRule(AndroidLogFormat_t* format, const char* tag) {
    return result(mParts->filter.deleteRule(format, tag));
}
int LogService::setLogFormat(const char* text) {
    return result(mParts->filter.setLineFormat(text));
}
char LogService::filterPriToChar(android_LogPriority priority) {
    return priorityLetter(priority);
}
AndroidLogPrintFormat LogService::formatFromString(const char* text) {
    return lineFormat(text);
}
const char* LogService::formattostring(AndroidLogPrintFormat value) {
    return lineFormatWord(value);
}

// --- Android log

void* LogService::logcat(void* service) {
    asService(service).mParts->androidReader.run();
    return nullptr;
}
void LogService::setupOutput() {
    mParts->androidReader.setupOutput();
}
void LogService::readLogLines(log_device_t* list) {
    mParts->androidReader.readLines(list);
}
void LogService::chooseFirst(log_device_t* list, log_device_t** first) {
    *first = oldestDevice(list);
}
void LogService::printNextEntry(log_device_t* dev) {
    mParts->androidReader.printFirst(dev);
}
void LogService::skipNextEntry(log_device_t* dev) {
    mParts->androidReader.skipFirst(dev);
}
void LogService::maybePrintStart(log_device_t* dev) {
    mParts->androidReader.announce(dev);
}
void LogService::processBuffer(log_device_t* dev, logger_entry* entry) {
    mParts->androidLine.process(dev, entry);
}
int LogService::androidLogPrintLogLine(AndroidLogFormat_t* format, int fd, const AndroidLogEntry_t* entry) {
    return mParts->androidLine.print(format, fd, *entry);
}
int LogService::clearAndroidLog() {
    return result(mParts->androidReader.clear());
}
int LogService::clearLog(int fd) {
    return platform::controlLogger(fd, platform::kRequestFlush);
}
int LogService::getLogSize(int fd) {
    return platform::controlLogger(fd, platform::kRequestSize);
}
int LogService::getLogReadableSize(int fd) {
    return platform::controlLogger(fd, platform::kRequestReadable);
}

// --- Commands

int LogService::logCMD(int cmd, const char* param) {
    return mParts->dispatcher.run(cmd, param);
}
int LogService::logQuery(int cmd, const char* param, std::string* answer) {
    return mParts->dispatcher.query(cmd, param, answer);
}
void LogService::showHelp() {
    mParts->dispatcher.showHelp();
}

} // namespace vnlog
