/*
 * The command-line client: checks a command by the service's own rules, sends it and says what came of it.
 */
#include "binder/Commands.h"
#include "binder/ILogService.h"
#include "platform/binder/Host.h"
#include "platform/sysroot/SystemRoot.h"
#include "tools/Options.h"

#include <algorithm>
#include <atomic>
#include <binder/IServiceManager.h>
#include <cctype>
#include <ctime>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <pthread.h>
#include <semaphore.h>
#include <sstream>
#include <string>
#include <strings.h>
#include <unistd.h>
#include <vector>

using vnlog::CommandInfo;

namespace {

constexpr char kProgram[] = "logset";
constexpr char kJsonWord[] = "--json";
constexpr int kNotWorking = 3; ///< STATUS: something that is switched on does not work
constexpr int kPatienceSeconds = 5; ///< for an answer, or, of a command that may last, for a sign of life
constexpr int kSignSeconds = 3; ///< of it, from when the service is asked for one
constexpr int kMostSeconds = 120; ///< for a command that may last
constexpr int kMostOfACopy = 3600;
constexpr int kNoTransaction = -2; ///< and below: the transaction itself failed

void printUsageLine(FILE* out, const CommandInfo& command) {
    std::fprintf(out, "  %-16s ", command.name);
    if (command.parameter.usage != nullptr)
        command.parameter.usage(out);
    else if (command.code == vnlog::CMD_STATUS)
        std::fprintf(out, "[%s]", kJsonWord);
    std::fputs("\n", out);
}

int printHelp() {
    std::puts("Usage: logset [OPTION]... <cmd_type> [<cmd_param>]\n"
              "Controls the running log service. Names and words may be written in any case.\n\n"
              "  cmd_type         cmd_param");
    for (const CommandInfo& command : vnlog::CommandTable())
        printUsageLine(stdout, command);
    std::puts(
        "\nKLOG_... concerns the kernel's log, ALOG_... Android's.\n\n"
        "  --sysroot DIR    the system root that the service was started with (VNLOG_SYSROOT)\n"
        "  -h, --help       show this text\n"
        "  -V, --version    show the version\n\n"
        "Status: 0 done; 1 the service cannot be reached, does not answer, or has not done it; 2 wrong\n"
        "command or parameter; 3 STATUS: something that is switched on does not work.");
    return finishOutput(kProgram);
}

int wrongParameter(const CommandInfo& command, const std::string& what) {
    std::fprintf(stderr, "%s: %s: %s\n", kProgram, command.name, what.c_str());
    printUsageLine(stderr, command);
    return kWrongUsage;
}

/** What the user wants. */
struct Request {
    const CommandInfo* command = nullptr;
    std::string param;
    bool json = false;
};

/** What the service made of it. */
struct Answer {
    bool reached = false;
    int error = 0; ///< errno of trying to reach the service
    int result = 0;
    bool tooOld = false; ///< the service cannot tell what the command is to tell
    std::string text;
};

/** Whether a service that tells nothing but a number can do what is wanted. */
bool numberWillDo(const Request& request) {
    const CommandInfo& command = *request.command;
    return command.audience == vnlog::Audience::Everybody && command.code != vnlog::CMD_COPY &&
           command.code != vnlog::CMD_SHOW && (command.code != vnlog::CMD_FLUSH || request.param.empty());
}

/**
 * Something that may hang because the service does, on a thread of its own. Whoever gives up on it ends the
 * process: the thread cannot be ended.
 */
class Attempt {
  public:
    explicit Attempt(std::function<void()> what) : mState(std::make_shared<State>(std::move(what))) {
        auto* own = new std::shared_ptr<State>(mState);
        mStarted = pthread_create(&mThread, nullptr, run, own) == 0;
        if (!mStarted)
            delete own;
        else
            (void)pthread_detach(mThread);
    }
    bool started() const { return mStarted; }
    /** Whether it is done, now or within so many seconds. */
    bool await(int seconds) {
        timespec end{};
        clock_gettime(CLOCK_MONOTONIC, &end);
        end.tv_sec += seconds;
        while (!mDone) {
            mDone = sem_clockwait(&mState->done, CLOCK_MONOTONIC, &end) == 0 && mState->finished;
            if (!mDone && errno != EINTR)
                return false;
        }
        return true;
    }

  private:
    struct State {
        explicit State(std::function<void()> todo) : what(std::move(todo)) {
            (void)sem_init(&done, 0, 0); // cannot fail for a private semaphore of count 0
        }
        std::function<void()> what;
        sem_t done;
        std::atomic<bool> finished{false};
    };
    static void* run(void* own) {
        std::unique_ptr<std::shared_ptr<State>> state(static_cast<std::shared_ptr<State>*>(own));
        (*state)->what();
        (*state)->finished = true;
        (void)sem_post(&(*state)->done);
        return nullptr;
    }

    std::shared_ptr<State> mState;
    pthread_t mThread;
    bool mStarted;
    bool mDone = false;
};

android::sp<android::IBinder> findService() {
    return android::defaultServiceManager()->checkService(android::String16(vnlog::platform::kServiceName));
}

void ask(const Request& request, Answer* answer) {
    answer->error = vnlog::platform::reachService(vnlog::platform::kServiceName);
    auto binder = answer->error == 0 ? findService() : nullptr;
    answer->reached = binder != nullptr;
    if (!answer->reached)
        return;
    auto service = vnlog::ILogService::asInterface(binder);
    const int code = request.command->code;
    answer->result = service->logQuery(code, request.param.c_str(), &answer->text);
    answer->tooOld = answer->result == android::UNKNOWN_TRANSACTION && !numberWillDo(request);
    if (answer->result == android::UNKNOWN_TRANSACTION && !answer->tooOld)
        answer->result = service->logCMD(code, request.param.c_str());
}

time_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec;
}

/** Whether the service answers anything at all. */
bool givesSignOfLife() {
    auto alive = std::make_shared<bool>(false);
    Attempt ping([alive] {
        auto binder = findService();
        *alive = binder != nullptr && binder->pingBinder() == android::NO_ERROR;
    });
    return ping.started() && ping.await(kSignSeconds) && *alive;
}

int fail(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", kProgram, what.c_str());
    return kFailure;
}

int unreachable(int error) {
    std::string place = vnlog::platform::servicePlace(vnlog::platform::kServiceName);
    if (error == EACCES || error == EPERM)
        return fail("no permission to reach the service at " + place +
                    "; it takes the user that runs it, or root");
    if (error == EAGAIN)
        return fail("the service at " + place + " does not answer");
    return fail("cannot reach the service at " + place + "; is logserviced running, with this system root?");
}

/** The names of a status line, "group.name=value". */
struct StatusLine {
    std::string group, name, value;
};

std::vector<StatusLine> statusLines(const std::string& text) {
    std::vector<StatusLine> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        size_t equals = std::min(line.find('='), line.size());
        size_t dot = line.rfind('.', equals);
        StatusLine parsed;
        if (dot != std::string::npos)
            parsed.group = line.substr(0, dot++);
        else
            dot = 0;
        parsed.name = line.substr(dot, equals - dot);
        parsed.value = line.substr(std::min(equals + 1, line.size()));
        lines.push_back(parsed);
    }
    return lines;
}

nlohmann::ordered_json jsonValue(const std::string& value) {
    constexpr size_t kMostDigits = 18; // whatever fits 64 bits
    bool digits = !value.empty() && value.size() <= kMostDigits &&
                  std::all_of(value.begin(), value.end(), [](unsigned char c) { return std::isdigit(c); });
    if (digits)
        return std::stoull(value);
    return value == "y" || value == "n" ? nlohmann::ordered_json(value == "y")
                                        : nlohmann::ordered_json(value);
}

void printJson(const std::vector<StatusLine>& lines) {
    nlohmann::ordered_json all;
    for (const StatusLine& line : lines)
        (line.group.empty() ? all : all[line.group])[line.name] = jsonValue(line.value);
    std::cout << all.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

/** A line for each group. */
void printTable(const std::vector<StatusLine>& lines) {
    constexpr int kGroupColumn = 12;
    const std::string* group = nullptr;
    for (const StatusLine& line : lines) {
        bool same = group != nullptr && !line.group.empty() && *group == line.group;
        if (same)
            std::cout << ", ";
        else
            std::cout << (group != nullptr ? "\n" : "") << std::left << std::setw(kGroupColumn)
                      << (line.group.empty() ? line.name : line.group);
        if (!line.group.empty()) {
            std::string name = line.name;
            std::replace(name.begin(), name.end(), '_', ' ');
            std::cout << name << ' ';
        }
        std::cout << (line.value == "y" ? "yes" : line.value == "n" ? "no" : line.value);
        group = &line.group;
    }
    std::cout << '\n';
}

int report(const Request& request, const Answer& answer) {
    if (request.command->code != vnlog::CMD_STATUS) {
        std::cout << answer.text;
        return finishOutput(kProgram);
    }
    std::vector<StatusLine> lines = statusLines(answer.text);
    auto works =
        std::find_if(lines.begin(), lines.end(), [](const StatusLine& l) { return l.name == "works"; });
    if (works == lines.end())
        return fail("the service's answer is no status");
    request.json ? printJson(lines) : printTable(lines);
    int written = finishOutput(kProgram);
    return written != 0 ? written : works->value == "y" ? 0 : kNotWorking;
}

/** Sends the command and waits for the answer, as long as the service gives a sign of life. */
int send(const Request& request) {
    auto answer = std::make_shared<Answer>();
    Attempt attempt([request, answer] { ask(request, answer.get()); });
    if (!attempt.started())
        return fail("there is no thread to ask the service with");
    const bool slow = request.command->slow;
    const int most = !slow                                      ? kPatienceSeconds
                     : request.command->code == vnlog::CMD_COPY ? kMostOfACopy
                                                                : kMostSeconds;
    for (time_t begin = now(); !attempt.await(slow ? kPatienceSeconds - kSignSeconds : kPatienceSeconds);)
        if (now() - begin >= most || !givesSignOfLife())
            return fail("the service has not answered within " +
                        std::to_string(std::max<time_t>(now() - begin, 1)) +
                        " seconds; whether it has done it is not known");
    if (!answer->reached)
        return unreachable(answer->error);
    if (answer->tooOld)
        return fail(std::string("the service is too old for ") + request.command->name);
    if (answer->result == android::DEAD_OBJECT)
        return fail("the service has gone while it was asked");
    if (answer->result <= kNoTransaction)
        return fail("the service could not be asked, status " + std::to_string(answer->result));
    if (answer->result != 0)
        return fail(std::string(request.command->name) + ": " +
                    (answer->text.empty() ? "refused; the Android log tells why" : answer->text));
    return report(request, *answer);
}

/** Takes the words behind the command. kGoOn or the status. */
int takeParameter(Request* request, char** words, int count) {
    const CommandInfo& command = *request->command;
    bool several = command.code == vnlog::CMD_FLUSH;
    if (command.code == vnlog::CMD_STATUS && count > 0 && strcasecmp(words[0], kJsonWord) == 0) {
        request->json = true;
        ++words;
        --count;
    }
    if (count > 1 && !several)
        return wrongParameter(command, "too many parameters");
    for (int i = 0; i < count; ++i)
        request->param += (i > 0 ? " " : "") + std::string(words[i]);
    if (command.parameter.normalize != nullptr)
        command.parameter.normalize(request->param);
    bool given = count > 0 || several;
    std::string objection = objectionTo(command, given ? request->param.c_str() : nullptr);
    return objection.empty() ? kGoOn : wrongParameter(command, objection);
}

} // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    const option options[] = {kHelpOption, kVersionOption, kSysrootOption, kEndOfOptions};
    int status = kGoOn;
    // "+": what follows the command is its parameter, also with a dash in front.
    for (int choice; status == kGoOn && (choice = getopt_long(argc, argv, "+hV", options, nullptr)) != -1;)
        status = commonOption(choice, kProgram, printHelp);
    if (status != kGoOn)
        return status;
    if (optind == argc) {
        std::fprintf(stderr, "%s: no command\n", kProgram);
        return hintAtHelp(kProgram);
    }
    Request request;
    request.command = vnlog::findCommand(argv[optind]);
    if (request.command == nullptr) {
        std::fprintf(stderr, "%s: there is no command '%s'\n", kProgram, argv[optind]);
        return hintAtHelp(kProgram);
    }
    status = takeParameter(&request, argv + optind + 1, argc - optind - 1);
    if (status != kGoOn)
        return status;
    std::cout.flush();
    _exit(send(request)); // without waiting for a thread that has been given up
}
