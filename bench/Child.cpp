// SPDX-License-Identifier: Apache-2.0
#include "bench/Child.h"

#include "base/Handles.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vnlog::bench {

namespace {

volatile std::sig_atomic_t latestChild = 0;

double secondsOf(const timespec& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double secondsOf(clockid_t clock) {
    timespec time{};
    return clock_gettime(clock, &time) == 0 ? secondsOf(time) : 0;
}

void direct(posix_spawn_file_actions_t* actions, int from, int to, int flags) {
    if (from >= 0)
        posix_spawn_file_actions_adddup2(actions, from, to);
    else
        posix_spawn_file_actions_addopen(actions, to, "/dev/null", flags, 0);
}

/** The counters of /proc/PID/io by name, each with its colon. */
std::map<std::string, double> transfers(pid_t pid) {
    std::ifstream io(procFile(pid, "io"));
    std::map<std::string, double> values;
    for (std::string name; io >> name >> values[name];) {
    }
    return values;
}

double toMedium(const std::map<std::string, double>& values) {
    auto value = [&](const char* name) {
        auto found = values.find(name);
        return found != values.end() ? found->second : 0;
    };
    // What is removed before the kernel has written it is taken back there.
    return value("write_bytes:") - value("cancelled_write_bytes:");
}

/** What /proc tells of a process that has ended and has not been waited for. */
void readLast(pid_t pid, Sample* sample) {
    std::string line = contentOf(procFile(pid, "stat"));
    std::istringstream fields(line.substr(line.rfind(')') + 1)); // the name before it may hold anything
    std::string skipped;
    for (int i = 0; i < 13; ++i)
        fields >> skipped;
    double user = 0, system = 0;
    fields >> user >> system; // of the children
    sample->children = (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));

    std::map<std::string, double> values = transfers(pid);
    sample->readCalls = values["rchar:"];
    sample->writtenCalls = values["wchar:"];
    sample->readMedium = values["read_bytes:"];
    sample->writtenMedium = toMedium(values);
}

} // namespace

double bytesToMedium(pid_t pid) {
    return toMedium(transfers(pid));
}

std::string procFile(pid_t pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

double now() {
    return secondsOf(static_cast<clockid_t>(CLOCK_MONOTONIC));
}

double ownProcessor() {
    return secondsOf(static_cast<clockid_t>(CLOCK_PROCESS_CPUTIME_ID));
}

double processorTime(pid_t pid) {
    clockid_t clock{};
    return clock_getcpuclockid(pid, &clock) == 0 ? secondsOf(clock) : 0;
}

Child::Child(const std::vector<std::string>& args, const Streams& streams) {
    std::vector<char*> words;
    words.reserve(args.size() + 1);
    for (const std::string& word : args)
        words.push_back(const_cast<char*>(word.c_str())); // the call's type only
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    direct(&actions, streams.input, STDIN_FILENO, O_RDONLY);
    direct(&actions, streams.output, STDOUT_FILENO, O_WRONLY);
    direct(&actions, streams.errors, STDERR_FILENO, O_WRONLY);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t ignoredHere;
    sigemptyset(&ignoredHere);
    sigaddset(&ignoredHere, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &ignoredHere);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    int error = posix_spawnp(&mPid, words[0], &actions, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        mPid = -1;
        errno = error;
    }
    latestChild = mPid;
}

void Child::killLatest() {
    if (latestChild > 0)
        kill(latestChild, SIGKILL);
}

Child& Child::operator=(Child&& other) noexcept {
    if (this != &other) {
        end();
        std::swap(mPid, other.mPid);
    }
    return *this;
}

void Child::end() {
    if (!running())
        return;
    signal(SIGKILL);
    Sample unused;
    wait(&unused);
}

bool Child::ended() const {
    siginfo_t state{};
    return !running() || (waitid(P_PID, static_cast<id_t>(mPid), &state, WEXITED | WNOWAIT | WNOHANG) == 0 &&
                          state.si_pid == mPid);
}

void Child::signal(int number) const {
    if (running())
        kill(mPid, number);
}

int Child::wait(Sample* sample) {
    if (!running())
        return -1;
    siginfo_t ended{};
    while (waitid(P_PID, static_cast<id_t>(mPid), &ended, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    readLast(mPid, sample);
    if (latestChild == mPid)
        latestChild = 0;
    int status = 0;
    rusage resources{};
    wait4(mPid, &status, 0, &resources);
    mPid = -1;
    sample->processor = secondsOf(resources.ru_utime) + secondsOf(resources.ru_stime);
    sample->voluntary = static_cast<double>(resources.ru_nvcsw);
    sample->involuntary = static_cast<double>(resources.ru_nivcsw);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::map<std::string, double> threadTimes(pid_t pid) {
    std::map<std::string, double> times;
    const std::string tasks = procFile(pid, "task");
    Folder folder(tasks.c_str());
    while (const dirent* task = folder.valid() ? folder.next() : nullptr) {
        const std::string path = tasks + "/" + task->d_name;
        std::string name = contentOf(path + "/comm");
        double nanoseconds = std::strtod(contentOf(path + "/schedstat").c_str(), nullptr);
        if (!name.empty())
            times[name.substr(0, name.find('\n'))] += nanoseconds / 1e9;
    }
    return times;
}

uint32_t ownMemory(pid_t pid) {
    Stream maps = openForReading(procFile(pid, "smaps").c_str());
    uint32_t total = 0;
    bool ofFile = false;
    std::array<char, 512> line{};
    while (maps != nullptr && fgets(line.data(), line.size(), maps.get()) != nullptr) {
        constexpr size_t nameLength = sizeof "Private_Dirty:" - 1;
        if (std::strchr("0123456789abcdef", line[0]) != nullptr)
            ofFile = std::strchr(line.data(), '/') != nullptr;
        else if (!ofFile && (std::strncmp(line.data(), "Private_Dirty:", nameLength) == 0 ||
                             std::strncmp(line.data(), "Private_Clean:", nameLength) == 0))
            total += static_cast<uint32_t>(std::strtoul(line.data() + nameLength, nullptr, 10));
    }
    return total;
}

bool isInstalled(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access(folder.append("/").append(program).c_str(), X_OK) == 0)
            return true;
    return false;
}

std::string contentOf(const std::string& path) {
    std::ostringstream text; // what a process that has just ended tells no more is left out
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

} // namespace vnlog::bench
