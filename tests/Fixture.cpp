#include "Fixture.h"

#include <fstream>
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

/** Calls `visit` with every entry of a folder of a store and its path. */
template <typename Visit> static void walk(const std::string& folder, const Visit& visit) {
    vnlog::Listing listing(folder.c_str());
    vnlog::StoredEntry entry;
    while (listing.valid() && listing.next(&entry))
        visit(entry, folder + "/" + entry.name);
}

std::string storedText(const std::string& logs) {
    using vnlog::NameKind;
    std::map<std::pair<uint32_t, uint32_t>, std::string> sections; // an unfinished text replaces its archive
    walk(logs, [&](const vnlog::StoredEntry& run, const std::string& folder) {
        if (run.kind != NameKind::Current && run.kind != NameKind::Run)
            return;
        uint32_t age = run.kind == NameKind::Current ? ~0U : run.number;
        walk(folder, [&](const vnlog::StoredEntry& found, const std::string& file) {
            if (found.kind == NameKind::PlainText)
                sections[{age, found.number}] = readFile(file);
            else if (found.kind == NameKind::Archive && !exists(file.substr(0, file.size() - 3)))
                sections[{age, found.number}] = readGzip(file);
        });
    });
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

void ServiceTest::configure(const Changes& changes) {
    std::map<std::string, std::string> changed(changes.begin(), changes.end());
    std::istringstream defaults("UART_OUTPUT=n NAND_FILE_OUTPUT=y SAVE_FLUSH_SWITCH=n STORAGE_PATH=" + root +
                                " MAX_LOG_SIZE=1 LOG_SECTION_SIZE=64 LOG_DELETE_SIZE=64 KLOG_OUTPUT=y "
                                "KLOG_LEVEL=7 ALOG_OUTPUT=y ALOG_LEVEL=d "
                                "ALOG_MODULE=ALL_MODULE ALOG_FORMAT=brief");
    std::string text;
    for (std::string line; defaults >> line;) {
        std::string key = line.substr(0, line.find('='));
        if (changed.count(key) == 0)
            text += line + "\n";
        else if (changed[key] != "-") // which leaves the key out
            text += key + "=" + changed[key] + "\n";
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
    vnlog::FileDescriptor log = vnlog::openFile((home + "/proc/kmsg").c_str(), O_WRONLY);
    EXPECT_TRUE(vnlog::writeAll(log.get(), text.data(), text.size()));
}

bool ServiceTest::put(const std::string& text) {
    return service().logBufWrite(text.data(), static_cast<uint32_t>(text.size())) ==
           static_cast<int>(text.size());
}

void ServiceTest::plugDevices() {
    makeFolder(home + "/dev");
    mDriver = std::make_unique<vnlog::platform::LoggerDriver>();
    ASSERT_TRUE(mDriver->start({home + "/dev/log_main", home + "/dev/log_system"}, 65536)) << strerror(errno);
}

void ServiceTest::entry(const char* device, int seconds, int nanoseconds, char priority,
                        const std::string& tag, const std::string& text) {
    vnlog::FileDescriptor& writer = mWriters[device];
    if (!writer.valid())
        writer = vnlog::platform::openLogger((home + "/dev/log_" + device).c_str(),
                                             vnlog::platform::LoggerAccess::WriteLossless);
    std::string payload = priority + tag + '\0' + text + '\0';
    vnlog::platform::LoggerHeader header{
        static_cast<uint16_t>(payload.size()), 0, 17, 18, seconds, nanoseconds};
    payload.insert(0, reinterpret_cast<const char*>(&header), sizeof header);
    ASSERT_TRUE(vnlog::writeAll(writer.get(), payload.data(), payload.size()));
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
