#include "Fixture.h"

#include "storage/Listing.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <zlib.h>

namespace fs = std::filesystem;

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
    std::string text;
    char chunk[4096];
    ssize_t length;
    for (off_t at = 0; (length = pread(fileno(captured), chunk, sizeof chunk, at)) > 0; at += length)
        text.append(chunk, static_cast<size_t>(length));
    return text;
}

} // namespace

bool eventually(const std::function<bool()>& condition) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void makeFolder(const std::string& path) {
    fs::create_directories(path);
}

void writeFile(const std::string& path, const std::string& text) {
    makeFolder(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

bool exists(const std::string& path) {
    return fs::exists(path);
}

std::string runCommand(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    char chunk[4096];
    while (size_t length = fread(chunk, 1, sizeof chunk, pipe))
        output.append(chunk, length);
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

void writeGzip(const std::string& path, const std::string& text) {
    makeFolder(fs::path(path).parent_path());
    gzFile file = gzopen(path.c_str(), "wb");
    EXPECT_EQ(gzwrite(file, text.data(), static_cast<unsigned>(text.size())), static_cast<int>(text.size()));
    EXPECT_EQ(gzclose(file), Z_OK);
}

std::string noise(size_t length, unsigned seed) {
    std::mt19937 random(seed);
    std::string text(length, 0);
    for (char& c : text)
        c = static_cast<char>(random());
    return text;
}

int openDescriptors() {
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

std::string storedText(const std::string& logs) {
    std::map<std::pair<uint32_t, uint32_t>, std::string> sections; // an unfinished text replaces its archive
    vnlog::Listing runs(logs.c_str());
    vnlog::StoredEntry run;
    while (runs.valid() && runs.next(&run)) {
        bool current = run.kind == vnlog::NameKind::Current;
        vnlog::Path path;
        if ((!current && run.kind != vnlog::NameKind::Run) || run.type != vnlog::EntryType::Folder ||
            !runs.path(run, &path))
            continue;
        vnlog::Listing entries(path.text);
        vnlog::StoredEntry found;
        while (entries.valid() && entries.next(&found)) {
            std::string file = std::string(path.text) + "/" + found.name;
            std::pair<uint32_t, uint32_t> place(current ? ~0U : run.number, found.number);
            if (found.kind == vnlog::NameKind::PlainText)
                sections[place] = readFile(file);
            else if (found.kind == vnlog::NameKind::Archive && !exists(file.substr(0, file.size() - 3)))
                sections[place] = readGzip(file);
        }
    }
    std::string text;
    for (auto& [place, part] : sections)
        text += part;
    return text;
}

uint64_t storedArchiveBytes(const std::string& logs) {
    uint64_t sum = 0;
    for (auto& entry : fs::recursive_directory_iterator(logs))
        sum += entry.path().extension() == ".gz" ? entry.file_size() : 0;
    return sum;
}

FolderTest::FolderTest() : mWorkingFolder(fs::current_path()) {
    std::string pattern = fs::temp_directory_path() / "vnlog-XXXXXX";
    alarm(280); // a hang is a failure, within the limit that a test has
    home = mkdtemp(pattern.data());
    root = home + "/media/flash/nvm";
    logs = root + "/log_service";
    cfg = root + "/log.cfg";
    makeFolder(root);
    setenv("VNLOG_SYSROOT", home.c_str(), 1);
    for (const char* name : {"LOG_DEFAULT_CFG", "UART_OUTPUT", "NAND_FILE_OUTPUT", "SAVE_FLUSH_SWITCH",
                             "LOG_SECTION_SIZE", "MAX_LOG_SIZE", "KLOG_OUTPUT", "KLOG_LEVEL", "ALOG_OUTPUT",
                             "ALOG_LEVEL", "ALOG_MODULE", "ALOG_FORMAT", "STORAGE_PATH"})
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

ServiceTest::~ServiceTest() {
    stop();
}

void ServiceTest::configure(const std::vector<std::pair<std::string, std::string>>& changes) {
    std::vector<std::pair<std::string, std::string>> settings = {
        {"UART_OUTPUT", "n"},      {"NAND_FILE_OUTPUT", "y"}, {"SAVE_FLUSH_SWITCH", "n"},
        {"STORAGE_PATH", root},    {"MAX_LOG_SIZE", "1"},     {"LOG_SECTION_SIZE", "64"},
        {"LOG_DELETE_SIZE", "64"}, {"KLOG_OUTPUT", "y"},      {"KLOG_LEVEL", "7"},
        {"ALOG_OUTPUT", "y"},      {"ALOG_LEVEL", "d"},       {"ALOG_MODULE", "ALL_MODULE"},
        {"ALOG_FORMAT", "brief"},
    };
    std::string text;
    for (auto& [key, value] : settings) {
        for (auto& [changedKey, changedValue] : changes)
            value = key == changedKey ? changedValue : value;
        if (value != "-") // leaves the key out
            text += key + "=" + value + "\n";
    }
    fs::remove(cfg);
    writeFile(cfg, text);
}

LogService& ServiceTest::deferred() {
    mService = new LogService(LogService::DeferStart{});
    return *mService;
}

void ServiceTest::start(bool flush, bool kernel, bool android) {
    const bool flags[] = {flush, kernel, android};
    ASSERT_EQ(deferred().serviceStart(flags), 0);
}

void ServiceTest::stop() {
    mService = nullptr;
}

void ServiceTest::feed(const std::string& text) {
    int fd = -1;
    ASSERT_TRUE(eventually([&] { // the reader opens its end in its own time
        fd = open((home + "/proc/kmsg").c_str(), O_WRONLY | O_NONBLOCK);
        return fd >= 0;
    }));
    fcntl(fd, F_SETFL, 0);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

bool ServiceTest::put(const std::string& text) {
    return service().logBufWrite(text.data(), static_cast<uint32_t>(text.size())) ==
           static_cast<int>(text.size());
}

void ServiceTest::plugDevices(bool withSystem) {
    makeFolder(home + "/dev");
    std::vector<std::string> paths = {home + "/dev/log_main"};
    if (withSystem)
        paths.push_back(home + "/dev/log_system");
    mDriver = std::make_unique<vnlog::platform::LoggerDriver>();
    ASSERT_TRUE(mDriver->start(paths, 65536)) << strerror(errno);
}

void ServiceTest::rawEntry(const char* device, const std::string& bytes) {
    vnlog::FileDescriptor& writer = mWriters[device];
    if (!writer.valid())
        writer = vnlog::platform::openLogger((home + "/dev/log_" + device).c_str(),
                                             vnlog::platform::LoggerAccess::WriteLossless);
    ASSERT_EQ(write(writer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

void ServiceTest::entry(const char* device, int seconds, int nanoseconds, char priority,
                        const std::string& tag, const std::string& text) {
    std::string payload = priority + tag + '\0' + text + '\0';
    vnlog::platform::LoggerHeader header{
        static_cast<uint16_t>(payload.size()), 0, 17, 18, seconds, nanoseconds};
    rawEntry(device, std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload);
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

void ServiceTest::setStorageData(uint32_t total, unsigned head, unsigned tail, unsigned oldest) {
    std::ostringstream text;
    text << "TOTAL_LOG_SIZE=" << total << "\nHEAD_FOLDER_NUM=" << head << "\nTAIL_FOLDER_NUM=" << tail
         << "\nOLDEST_FILE_NUM=" << oldest << "\n";
    writeFile(root + "/log_storage.dat", text.str());
}

std::string ServiceTest::section(const std::string& run, unsigned number, const char* suffix) {
    return logs + "/" + run + "/log_" + std::to_string(number) + suffix;
}

void ServiceTest::makeSection(const std::string& run, unsigned number, const std::string& text) {
    writeGzip(section(run, number), text);
}

void ServiceTest::makeSectionOfSize(const std::string& run, unsigned number, size_t size) {
    writeFile(section(run, number), std::string(size, 'x'));
}

bool FolderTest::logged(const std::string& text) {
    return loggedTimes(text) > 0;
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
