// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"

#include "reader/LineStream.h"

#include <fstream>
#include <sys/resource.h>
#include <zlib.h>

namespace {

/**
 * The diagnostics of the test, in a file: a thread that is cancelled hands them over in the middle of its
 * unwinding, where the thread sanitizer does not follow the locks that it takes.
 */
FILE* captured = nullptr;

void capture(const __android_logger_data* data, const char* message) {
    dprintf(fileno(captured), "%s/%d: %s", data->tag, data->priority, message);
}

std::string capturedText() {
    return readFile("/proc/self/fd/" + std::to_string(fileno(captured)));
}

} // namespace

bool eventually(const std::function<bool()>& condition) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    makeFolder(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

std::string runCommand(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    for (int c; (c = getc(pipe)) != EOF;)
        output += static_cast<char>(c);
    pclose(pipe);
    return output;
}

std::string readGzip(const std::string& path) {
    gzFile file = gzopen(path.c_str(), "rb");
    std::string text;
    char chunk[4096];
    int length = 0;
    while (file != nullptr && (length = gzread(file, chunk, sizeof chunk)) > 0)
        text.append(chunk, static_cast<size_t>(length));
    bool whole = file != nullptr && length == 0 && gzdirect(file) == 0;
    EXPECT_TRUE(file != nullptr && gzclose(file) == Z_OK && whole) << path << " is no whole gzip file";
    return text;
}

int openDescriptors() {
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

void starveOfDescriptors(bool on) {
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = on ? static_cast<rlim_t>(vnlog::FileDescriptor(dup(0)).get()) + 1 : limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

std::string deviceEntry(int seconds, int nanoseconds, const std::string& payload) {
    vnlog::platform::LoggerHeader header{
        static_cast<uint16_t>(payload.size()), 0, 17, 18, seconds, nanoseconds};
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

std::string storedText(const std::string& logs) {
    vnlog::StoreFolder folder;
    vnlog::Scope scope;
    bool current = false;
    if (!folder.open(logs.c_str()) || !folder.listRuns(&scope.runs, &current))
        return "";
    scope.runs.push_back(vnlog::kCurrentRun);
    scope.fields = false;
    const vnlog::RunHistory history;
    vnlog::LineStream lines(folder, history);
    lines.begin(scope);
    std::string text;
    vnlog::Record record;
    while (lines.next(&record)) {
        EXPECT_NE(record.line.source, vnlog::LineSource::Reader) << record.bytes;
        text.append(record.bytes).append(record.ended ? "\n" : "");
    }
    return text;
}

uint64_t storedArchiveBytes(const std::string& logs) {
    vnlog::StoreFolder folder;
    std::vector<uint32_t> runs;
    bool current = false;
    uint64_t sum = 0;
    if (folder.open(logs.c_str()) && folder.listRuns(&runs, &current))
        runs.push_back(vnlog::kCurrentRun);
    for (uint32_t run : runs) {
        std::vector<vnlog::StoredSection> sections;
        (void)folder.listSections(run, &sections);
        for (const vnlog::StoredSection& section : sections)
            sum += section.archive
                       ? fs::file_size(folder.runPath(run) + "/" + vnlog::archiveName(section.number).text)
                       : 0;
    }
    return sum;
}

FolderTest::FolderTest(const std::string& place) : mWorkingFolder(fs::current_path()) {
    std::string pattern = place + "/vnlog-XXXXXX";
    alarm(280); // a hang is a failure, within the limit that a test has
    home = mkdtemp(pattern.data());
    root = home + "/media/flash/nvm";
    logs = root + "/log_service";
    cfg = root + "/log.cfg";
    makeFolder(root);
    setenv("VNLOG_SYSROOT", home.c_str(), 1);
    for (const char* name : {"LOG_DEFAULT_CFG", "UART_OUTPUT", "NAND_FILE_OUTPUT", "SAVE_FLUSH_SWITCH",
                             "LOG_SECTION_SIZE", "MAX_LOG_SIZE", "KLOG_OUTPUT", "KLOG_LEVEL", "ALOG_OUTPUT",
                             "ALOG_LEVEL", "ALOG_MODULE", "ALOG_FORMAT", "STORAGE_PATH", "VNLOG_BUILD_ID"})
        unsetenv(name);
    faults.disarm();
    captured = tmpfile();
    fcntl(fileno(captured), F_SETFL, O_APPEND); // also when it is cut back in between
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(capture);
}

FolderTest::~FolderTest() {
    faults.disarm();
    if (mStdout >= 0) {
        fflush(stdout);
        dup2(mStdout, 1);
        close(mStdout);
        if (HasFailure()) // the reports went the same way
            puts(readFile(home + "/console").c_str());
    }
    if (HasFailure()) {
        std::string text = capturedText();
        puts(text.substr(text.size() > 8000 ? text.size() - 8000 : 0).c_str());
    }
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
    fclose(captured);
    fs::current_path(mWorkingFolder);
    fs::remove_all(home);
    alarm(0);
}

ServiceTest::ServiceTest() {
    writeFile(home + "/proc/sys/kernel/printk", "7\n");
    mkfifo((home + "/proc/kmsg").c_str(), 0600);
}

void ServiceTest::configure(const std::string& settings) {
    fs::remove(cfg);
    writeFile(cfg,
              settings + "\nUART_OUTPUT=n\nNAND_FILE_OUTPUT=y\nSAVE_FLUSH_SWITCH=n\nSTORAGE_PATH=" + root +
                  "\nMAX_LOG_SIZE=1\nLOG_SECTION_SIZE=64\nLOG_DELETE_SIZE=64\nKLOG_OUTPUT=y\n"
                  "KLOG_LEVEL=7\nALOG_OUTPUT=y\nALOG_LEVEL=d\nALOG_MODULE=ALL_MODULE\nALOG_FORMAT=brief\n");
}

LogService& ServiceTest::deferred() {
    mService = new LogService(LogService::DeferStart{});
    return *mService;
}

void ServiceTest::start(bool flush, bool kernel, bool android) {
    const bool flags[] = {flush, kernel, android};
    ASSERT_EQ(deferred().serviceStart(flags), 0);
}

void ServiceTest::feed(const std::string& text) {
    vnlog::FileDescriptor log = vnlog::openFile((home + "/proc/kmsg").c_str(), O_WRONLY);
    EXPECT_TRUE(vnlog::writeAll(log.get(), text.data(), text.size()));
}

bool ServiceTest::put(const std::string& text) {
    return service().logBufWrite(text.data(), static_cast<uint32_t>(text.size())) ==
           static_cast<int>(text.size());
}

void FolderTest::plugDevices() {
    makeFolder(home + "/dev");
    mDriver = std::make_unique<vnlog::platform::LoggerDriver>();
    ASSERT_TRUE(mDriver->start({home + "/dev/log_main", home + "/dev/log_system"}, 65536)) << strerror(errno);
}

void FolderTest::unplugDevices() {
    mWriters.clear();
    mDriver = nullptr;
}

const vnlog::FileDescriptor& FolderTest::writerOf(const char* device) {
    using namespace vnlog::platform;
    vnlog::FileDescriptor& writer = mWriters[device];
    if (!writer.valid())
        writer = openLogger((home + "/dev/log_" + device).c_str(), LoggerAccess::WriteLossless);
    return writer;
}

void FolderTest::entry(const char* device, int seconds, int nanoseconds, char priority,
                       const std::string& tag, const std::string& text) {
    std::string bytes = deviceEntry(seconds, nanoseconds, priority + tag + '\0' + text + '\0');
    ASSERT_TRUE(vnlog::writeAll(writerOf(device).get(), bytes.data(), bytes.size()));
}

bool FolderTest::readable() {
    return vnlog::platform::controlLogger(writerOf("main").get(), vnlog::platform::kRequestReadable) > 0;
}

void FolderTest::catchConsole() {
    fflush(stdout);
    mStdout = dup(1);
    int file = open((home + "/console").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    dup2(file, 1);
    close(file);
}

std::string FolderTest::console() {
    fflush(stdout);
    return readFile(home + "/console");
}

bool ServiceTest::flush() {
    service().flushLogBufAll();
    return eventually([&] {
        if (service().mFlushAll)
            return false;
        if (service().bufferedBytes() > 0) // came when the request was served already
            service().flushLogBufAll();
        return service().bufferedBytes() == 0;
    });
}

int FolderTest::loggedTimes(const std::string& text) {
    std::string all = capturedText();
    int times = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
        ++times;
    return times;
}

void FolderTest::forgetLog() {
    ASSERT_EQ(ftruncate(fileno(captured), 0), 0);
}
