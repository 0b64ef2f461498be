// SPDX-License-Identifier: Apache-2.0
#include "tools/Supervision.h"

#include "base/Clock.h"
#include "base/Diagnostics.h"
#include "base/Text.h"
#include "binder/Command.h"
#include "platform/supervisor/Supervisor.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace {

// Milliseconds.
constexpr int64_t kMostUntilReady = 30000;
constexpr int64_t kSettling = 5000; // in which the readers open their sources
constexpr int64_t kStartPeriod = 500;
constexpr int64_t kReportPeriod = 30000;
constexpr int64_t kLongestCommand = 3600000;

constexpr char kStartTime[] = "EXTEND_TIMEOUT_USEC=600000000"; // ten minutes
constexpr char kStopTime[] = "EXTEND_TIMEOUT_USEC=120000000"; // two of them

/** The answer to STATUS, lines of a key, "=" and a value. */
class Answer {
  public:
    explicit Answer(const std::string& text) : mText("\n" + text) {}

    /** The value of a key, empty without one. */
    std::string value(const std::string& key) const {
        size_t at = mText.find("\n" + key + "=");
        if (at == std::string::npos)
            return {};
        at += key.size() + 2;
        return mText.substr(at, mText.find('\n', at) - at);
    }
    bool whole() const { return !state().empty(); }
    std::string state() const { return value("storing.state"); }
    bool stores() const { return value("storing.works") == "y"; }
    bool switchedOff() const { return state() == "switched off"; }

    /** What does not work, in one line. */
    std::string problems() const {
        std::string all, problem;
        for (int i = 1; !(problem = value("problem." + std::to_string(i))).empty(); ++i)
            all += (all.empty() ? "" : "; ") + problem;
        return all;
    }

  private:
    const std::string mText;
};

/** A number of bytes as MiB with one decimal; what is no number as it is. */
std::string mebibytes(const std::string& bytes) {
    char text[32];
    char* end = nullptr;
    double number = std::strtod(bytes.c_str(), &end) / 1048576;
    bool whole = end != bytes.c_str() && *end == '\0' && vnlog::formatText(text, "%.1f MiB", number);
    return whole ? text : bytes;
}

/** How the service is, in one line. */
std::string summary(const Answer& answer) {
    std::string problems = answer.problems(), root = answer.value("storage.root");
    if (!answer.whole())
        return problems;
    if (!answer.stores() && !answer.switchedOff())
        return problems + " (" + root + ")";
    std::string stored = mebibytes(answer.value("storage.stored_bytes")) + " of at most " +
                         mebibytes(answer.value("storage.bound_bytes")) + " in " + root;
    return (answer.stores() ? "stores: " : "storing is switched off: ") + stored +
           (problems.empty() ? "" : "; " + problems);
}

} // namespace

Supervision::Supervision()
    : mListens(vnlog::platform::supervised()), mWatchdog(mListens ? vnlog::platform::watchdogTime() / 2 : 0),
      mBegin(vnlog::steadyMilliseconds()), mNext(mBegin), mWholeAnswer(mBegin) {}

void Supervision::starting() {
    send(std::string("STATUS=looking through what is stored\n") + kStartTime);
}

int64_t Supervision::untilReport() const {
    return mListens ? std::max<int64_t>(mNext - vnlog::steadyMilliseconds(), 0) : -1;
}

void Supervision::report(vnlog::LogService& service) {
    if (untilReport() != 0)
        return;
    const int64_t now = vnlog::steadyMilliseconds();
    std::string text;
    const bool done = service.logQuery(vnlog::CMD_STATUS, "", &text) == 0;
    const Answer answer(text);
    const std::string status = done ? summary(answer) : text;
    giveSignOfLife(answer.whole() || !done);
    if (status != mStatus)
        send("STATUS=" + status);
    mStatus = status;
    beReady(answer.stores() || answer.switchedOff());
    const bool starts = !mReady || now - mBegin < kSettling;
    const int64_t period = starts ? kStartPeriod : kReportPeriod;
    mNext = now + (mWatchdog > 0 ? std::min(period, mWatchdog) : period);
}

void Supervision::beReady(bool stores) {
    if (mReady || (!stores && vnlog::steadyMilliseconds() - mBegin < kMostUntilReady))
        return;
    mReady = true;
    send("READY=1");
}

/** Without whole answers for longer than any command takes, the service hangs. */
void Supervision::giveSignOfLife(bool answeredWhole) {
    const int64_t now = vnlog::steadyMilliseconds();
    if (answeredWhole)
        mWholeAnswer = now;
    if (mWatchdog > 0 && now - mWholeAnswer < kLongestCommand)
        send("WATCHDOG=1");
}

void Supervision::stopping() {
    send(std::string("STOPPING=1\nSTATUS=stores what has been logged\n") + kStopTime);
}

void Supervision::send(const std::string& assignments) {
    const int error = mListens ? vnlog::platform::notifySupervisor(assignments) : 0;
    if (error != 0 && !mFailed)
        vnlog::logError("the service manager cannot be told how the service is: %s\n",
                        vnlog::errorText(error).c_str());
    mFailed = mFailed || error != 0;
}
