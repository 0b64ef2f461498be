// SPDX-License-Identifier: Apache-2.0
#include "tools/Conversation.h"

#include "base/Clock.h"
#include "binder/ILogService.h"
#include "platform/binder/Host.h"

#include <algorithm>
#include <atomic>
#include <binder/IServiceManager.h>
#include <cerrno>
#include <ctime>
#include <functional>
#include <memory>
#include <pthread.h>
#include <semaphore.h>
#include <utility>

using vnlog::CommandInfo;

namespace {

constexpr int kPatienceSeconds = 5; ///< for an answer, or, of a command that may last, for a sign of life
constexpr int kSignSeconds = 3; ///< of it, from when the service is asked for one
constexpr int kMostSeconds = 120; ///< for a command that may last
constexpr int kMostOfACopy = 3600;
constexpr int kNoTransaction = -2; ///< and below: the transaction itself failed

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

/** Whether the service answers anything at all. */
bool givesSignOfLife() {
    auto alive = std::make_shared<bool>(false);
    Attempt ping([alive] {
        auto binder = findService();
        *alive = binder != nullptr && binder->pingBinder() == android::NO_ERROR;
    });
    return ping.started() && ping.await(kSignSeconds) && *alive;
}

std::string unreachable(int error) {
    std::string place = vnlog::platform::servicePlace(vnlog::platform::kServiceName);
    if (error == EACCES || error == EPERM)
        return "no permission to reach the service at " + place + "; it takes the user that runs it, or root";
    if (error == EAGAIN)
        return "the service at " + place + " does not answer";
    return "cannot reach the service at " + place + "; is logserviced running, with this system root?";
}

} // namespace

std::string converse(const Request& request, Answer* result) {
    auto answer = std::make_shared<Answer>();
    Attempt attempt([request, answer] { ask(request, answer.get()); });
    if (!attempt.started())
        return "there is no thread to ask the service with";
    const bool slow = request.command->slow;
    const int most = !slow                                      ? kPatienceSeconds
                     : request.command->code == vnlog::CMD_COPY ? kMostOfACopy
                                                                : kMostSeconds;
    for (int64_t begin = vnlog::secondsOf(CLOCK_MONOTONIC);
         !attempt.await(slow ? kPatienceSeconds - kSignSeconds : kPatienceSeconds);)
        if (vnlog::secondsOf(CLOCK_MONOTONIC) - begin >= most || !givesSignOfLife())
            return "the service has not answered within " +
                   std::to_string(std::max<int64_t>(vnlog::secondsOf(CLOCK_MONOTONIC) - begin, 1)) +
                   " seconds; whether it has done it is not known";
    *result = *answer;
    if (!answer->reached)
        return unreachable(answer->error);
    if (answer->tooOld)
        return std::string("the service is too old for ") + request.command->name;
    if (answer->result == android::DEAD_OBJECT)
        return "the service has gone while it was asked";
    if (answer->result <= kNoTransaction)
        return "the service could not be asked, status " + std::to_string(answer->result);
    if (answer->result != 0)
        return std::string(request.command->name) + ": " +
               (answer->text.empty() ? "refused; the Android log tells why" : answer->text);
    return {};
}

std::string statusForBundle() {
    Answer answer;
    std::string flush = converse({vnlog::findCommand(vnlog::CMD_FLUSH), "--wait"}, &answer);
    if (!flush.empty() && !answer.reached)
        return flush + "\n";
    std::string trouble = converse({vnlog::findCommand(vnlog::CMD_STATUS), ""}, &answer);
    return (flush.empty() ? "" : flush + "\n") + (trouble.empty() ? answer.text : trouble + "\n");
}
