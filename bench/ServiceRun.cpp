// SPDX-License-Identifier: Apache-2.0
#include "bench/ServiceRun.h"

#include "platform/logger/LoggerDevice.h"
#include "storage/Layout.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <linux/sockios.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

namespace vnlog::bench {

namespace {

constexpr size_t kBatch = 64; ///< entries that are sent by one call
constexpr double kPatience = 120; ///< seconds, after which something that is awaited never comes
constexpr char kKernelMark[] = "kmsg bench";

void nap(int microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

std::string configuration(const ServiceOptions& options, const std::string& store) {
    const std::string section = std::to_string(options.sectionKib);
    return "UART_OUTPUT=n\nNAND_FILE_OUTPUT=y\nKLOG_OUTPUT=y\nALOG_OUTPUT=y\nKLOG_LEVEL=7\nALOG_LEVEL=d\n"
           "ALOG_MODULE=ALL_MODULE\nALOG_FORMAT=threadtime\nMAX_LOG_SIZE=4000\nLOG_SECTION_SIZE=" +
           section + "\nLOG_DELETE_SIZE=" + section + "\nSTORAGE_PATH=" + store +
           "\nSAVE_FLUSH_SWITCH=" + (options.writeEachLine ? "y\n" : "n\n") + options.settings;
}

/** Looks every 20 ms at the memory of a process, and keeps the largest value. */
class MemoryWatch {
  public:
    explicit MemoryWatch(pid_t pid)
        : mThread([this, pid] {
              while (!mEnding) {
                  mPeak = std::max(mPeak, ownMemory(pid));
                  nap(20000);
              }
          }) {}
    ~MemoryWatch() { (void)peak(); }
    MemoryWatch(const MemoryWatch&) = delete;
    MemoryWatch& operator=(const MemoryWatch&) = delete;

    /** Ends the watch. */
    uint32_t peak() {
        mEnding = true;
        if (mThread.joinable())
            mThread.join();
        return mPeak;
    }

  private:
    std::atomic<bool> mEnding{false};
    uint32_t mPeak = 0;
    std::thread mThread;
};

/** Writes lines to the kernel's log, and keeps it open. */
bool writeKernelLines(int kernelLog, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const std::string line = "<4>" + std::string(kKernelMark) + ": line " + std::to_string(i) +
                                 " of an ordinary length, as drivers write them\n";
        if (!writeAll(kernelLog, line.data(), line.size()))
            return false;
    }
    int unread = 1;
    while (ioctl(kernelLog, FIONREAD, &unread) == 0 && unread > 0)
        nap(1000);
    return true;
}

} // namespace

bool sendPackets(int socket, size_t begin, size_t end, const std::function<std::string_view(size_t)>& packet,
                 const std::string& head) {
    auto piece = [](std::string_view text) {
        return iovec{const_cast<char*>(text.data()), text.size()};
    }; // for the call
    std::array<mmsghdr, kBatch> messages{};
    std::array<std::array<iovec, 2>, kBatch> pieces{};
    while (begin < end) {
        auto count = static_cast<unsigned>(std::min(kBatch, end - begin));
        for (unsigned i = 0; i < count; ++i) {
            pieces[i] = {piece(head), piece(packet(begin + i))};
            messages[i].msg_hdr.msg_iov = pieces[i].data();
            messages[i].msg_hdr.msg_iovlen = pieces[i].size();
        }
        int sent = sendmmsg(socket, messages.data(), count, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            return false;
        begin += static_cast<size_t>(std::max(sent, 0));
    }
    int waiting = 1;
    while (ioctl(socket, SIOCOUTQ, &waiting) == 0 && waiting > 0)
        nap(500);
    return true;
}

namespace {

bool sendEntries(int writer, const Corpus& corpus, size_t begin, size_t end) {
    return sendPackets(writer, begin, end, [&](size_t i) { return corpus.packet(i); });
}

} // namespace

Service::Service(const ServiceOptions& options) : mOptions(options), mPlace(options.folder) {
    const std::string proc = root() + "/proc", store = root() + kDefaultRoot;
    bool made = !root().empty() && makeFolders(proc + "/sys/kernel") && makeFolders(store) &&
                writeFile(proc + "/sys/kernel/printk", "4\n") &&
                mkfifo((proc + "/kmsg").c_str(), 0600) == 0 &&
                writeFile(root() + "/bench.cfg", configuration(options, store)) &&
                (options.memoryFile || writeFile(root() + "/run", "")); // no folder can be made there then
    if (!made)
        fail("cannot make a system root in " + options.folder);
}

Service::~Service() {
    if (mChild.running() && mHost > 0 && mHost != mChild.pid())
        kill(mHost, SIGKILL); // a tracer that is killed lets it go
}

std::string Service::logFolder() const {
    return root() + kDefaultRoot + "/" + kLogFolder;
}

bool Service::fail(const std::string& what) {
    mFailure = what + ": " + std::strerror(errno);
    return false;
}

bool Service::waitFor(bool (*reached)(const Service&), const char* what) {
    const double end = now() + kPatience;
    while (!reached(*this)) {
        if (mChild.ended() || now() > end) {
            mFailure = std::string(what) + " never came: " + contentOf(root() + "/host.err");
            return false;
        }
        nap(500);
    }
    return true;
}

/** Finds the host behind a tracer, which also starts children for a try at tracing. */
bool Service::findHost() {
    const std::string task = "task/" + std::to_string(mChild.pid()) + "/children";
    for (const double end = now() + kPatience; now() < end && !mChild.ended(); nap(500)) {
        std::istringstream children(contentOf(procFile(mChild.pid(), task)));
        for (pid_t child = 0; children >> child;)
            if (contentOf(procFile(child, "comm")) == "logserviced\n") {
                mHost = child;
                return true;
            }
    }
    mFailure = "the tracer starts nothing: " + contentOf(root() + "/host.err");
    return false;
}

bool Service::launch(const std::vector<std::string>& tracer) {
    if (!mFailure.empty())
        return false;
    std::vector<std::string> command = tracer;
    command.insert(command.end(),
                   {mOptions.programs + "/logserviced", "--sysroot", root(), "--cfg", root() + "/bench.cfg"});
    FileDescriptor errors = openFile((root() + "/host.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    mChild = Child(command, {-1, -1, errors.get()});
    if (!mChild.running())
        return fail("cannot start " + command[0]);
    mHost = mChild.pid();
    if (!tracer.empty() && !findHost())
        return false;
    return waitFor(
        [](const Service& self) {
            return openLogger((self.root() + platform::kMainDevice).c_str(), platform::LoggerAccess::Write)
                .valid();
        },
        "the device");
}

bool Service::start(const std::vector<std::string>& tracer) {
    return launch(tracer) &&
           waitFor(
               [](const Service& self) {
                   return contentOf(self.root() + "/host.err").find("logserviced: devices") !=
                          std::string::npos;
               },
               "the service");
}

FileDescriptor Service::connect() {
    return platform::openLogger((root() + platform::kMainDevice).c_str(),
                                platform::LoggerAccess::WriteLossless);
}

bool Service::openRoad(const Corpus& corpus, int writer) {
    if (writer < 0 || !sendEntries(writer, corpus, 0, 1))
        return fail("cannot send");
    return waitFor(
        [](const Service& self) {
            struct stat section {};
            kill(self.pid(), SIGUSR1); // until the entry has come through, there is nothing to write out
            return stat((self.logFolder() + "/current/log_1.txt").c_str(), &section) == 0 &&
                   section.st_size > 0;
        },
        "the first line");
}

bool Service::stop(Sample* sample) {
    kill(mHost, SIGTERM);
    int status = mChild.wait(sample);
    if (status != 0)
        mFailure =
            "the service ended with " + std::to_string(status) + ": " + contentOf(root() + "/host.err");
    return status == 0;
}

namespace {

/** Has every writer send its share of the entries from the second on. False with errno set. */
bool sendAll(const std::vector<FileDescriptor>& writers, const Corpus& corpus, size_t count) {
    if (writers.size() == 1)
        return sendEntries(writers[0].get(), corpus, 1, count);
    std::atomic<int> error{0};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < writers.size(); ++i)
        threads.emplace_back([&, i] {
            size_t begin = 1 + (count - 1) * i / writers.size(),
                   end = 1 + (count - 1) * (i + 1) / writers.size();
            if (!sendEntries(writers[i].get(), corpus, begin, end))
                error = errno;
        });
    for (std::thread& thread : threads)
        thread.join();
    errno = error;
    return error == 0;
}

/** Feeds all sources of a service that is ready, and stops it. */
void run(Service& service, const ServiceOptions& options, const std::vector<FileDescriptor>& writers,
         const Corpus& corpus, size_t count, Sample* sample) {
    FileDescriptor kernelLog = openFile((service.root() + "/proc/kmsg").c_str(), O_WRONLY | O_NONBLOCK);
    if (!kernelLog.valid() || fcntl(kernelLog.get(), F_SETFL, 0) != 0) {
        sample->failure = "the kernel's log is not read";
        return;
    }
    sample->idleKib = ownMemory(service.pid());
    MemoryWatch memory(service.pid());
    std::atomic<bool> kernelSent{true};
    double begin = now();
    std::thread kernel([&] { kernelSent = writeKernelLines(kernelLog.get(), options.kernelLines); });
    bool sent = sendAll(writers, corpus, count);
    kernel.join();
    sample->threads = threadTimes(service.pid());
    bool stopped = service.stop(sample);
    sample->wall = now() - begin;
    sample->peakKib = memory.peak();
    if (!sent || !kernelSent)
        sample->failure = "the sources take no more";
    if (!stopped)
        sample->failure = service.failure();
}

} // namespace

Sample measureService(const ServiceOptions& options, const Corpus& corpus, size_t count) {
    Sample sample;
    Service service(options);
    bool ready = service.start();
    std::vector<FileDescriptor> writers;
    for (size_t i = 0; ready && i < options.writers; ++i)
        writers.push_back(service.connect());
    ready = ready && service.openRoad(corpus, writers.back().get());
    if (!ready) {
        sample.failure = service.failure();
        return sample;
    }
    settle(options.folder);
    run(service, options, writers, corpus, count, &sample);
    size_t kernelStored = compare(storedSections(service.root()), corpus, count,
                                  options.writers == 1 ? Form::Exact : Form::AnyOrder, &sample, kKernelMark);
    sample.lost += options.kernelLines - kernelStored;
    return sample;
}

double countSystemCalls(const ServiceOptions& options, const Corpus& corpus, size_t count) {
    Service service(options);
    const std::string table = service.root() + "/calls";
    FileDescriptor writer;
    if (!isInstalled("strace") || !service.start({"strace", "-f", "-c", "-o", table}))
        return -1;
    writer = service.connect();
    Sample unused;
    if (!service.openRoad(corpus, writer.get()) || !sendEntries(writer.get(), corpus, 1, count) ||
        !service.stop(&unused))
        return -1;
    std::istringstream lines(contentOf(table));
    double calls = -1;
    for (std::string line; std::getline(lines, line);) {
        double share = 0, seconds = 0, each = 0;
        if (line.find(" total") != std::string::npos)
            std::istringstream(line) >> share >> seconds >> each >> calls;
    }
    return calls > 0 ? calls / static_cast<double>(count) : -1;
}

} // namespace vnlog::bench
