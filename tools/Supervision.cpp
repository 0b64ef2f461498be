// SPDX-License-Identifier: Apache-2.0
#include "tools/Supervision.h"

#include "base/Diagnostics.h"
#include "base/Text.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace {

// Milliseconds.
constexpr int64_t kMostUntilReady = 30000;
constexpr int64_t kSettling = 5000; // in which the readers open their sources
constexpr int64_t kStartPeriod = 500;
constexpr int64_t kReportPeriod = 30000;
constexpr int64_t kRetryPeriod = 5000;
constexpr int64_t kLongestCommand = 3600000;

constexpr char kStartTime[] = "EXTEND_TIMEOUT_USEC=600000000"; // ten minutes

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

Supervision::Supervision(Supervisor supervisor)
    : mSupervisor(std::move(supervisor)), mWatchdog(mSupervisor.watchdog / 2), mBegin(mSupervisor.clock()),
      mNext(mBegin), mWholeAnswer(mBegin) {}

void Supervision::starting() {
    (void)send(std::string("STATUS=looking through what is stored\n") + kStartTime);
}

int64_t Supervision::untilReport() const {
    return mSupervisor.listens ? std::max<int64_t>(mNext - mSupervisor.clock(), 0) : -1;
}

void Supervision::report(bool answered, const std::string& text) {
    const int64_t now = mSupervisor.clock();
    const Answer answer(text);
    bool toldAll = giveSignOfLife(now, answer.whole() || !answered);
    toldAll = tellStatus(answered ? summary(answer) : text) && toldAll;
    toldAll = beReady(now, answer.stores() || answer.switchedOff()) && toldAll;
    mNext = now + untilNext(now, toldAll);
}

/** Without whole answers for longer than any command takes, the service hangs. */
bool Supervision::giveSignOfLife(int64_t now, bool answeredWhole) {
    if (answeredWhole)
        mWholeAnswer = now;
    return mWatchdog == 0 || now - mWholeAnswer >= kLongestCommand || send("WATCHDOG=1");
}

bool Supervision::tellStatus(const std::string& status) {
    if (status != mStatus && !send("STATUS=" + status))
        return false;
    mStatus = status;
    return true;
}

bool Supervision::beReady(int64_t now, bool stores) {
    if (!mReady && (stores || now - mBegin >= kMostUntilReady))
        mReady = send("READY=1");
    return mReady;
}

int64_t Supervision::untilNext(int64_t now, bool toldAll) const {
    const int64_t age = now - mBegin;
    const bool starts = age < kSettling || (!mReady && age < kMostUntilReady);
    const int64_t period = starts ? kStartPeriod : toldAll ? kReportPeriod : kRetryPeriod;
    return mWatchdog > 0 ? std::min(period, mWatchdog) : period;
}

// The manager's own time for a stop holds: the packaged unit's is twice what a stop takes.
void Supervision::stopping() {
    (void)send("STOPPING=1\nSTATUS=stores what has been logged");
}

bool Supervision::send(const std::string& assignments) {
    const int error = mSupervisor.listens ? mSupervisor.notify(assignments) : 0;
    if (error != 0 && !mFailed)
        vnlog::logError("the service manager cannot be told how the service is: %s\n",
                        vnlog::errorText(error).c_str());
    mFailed = mFailed || error != 0;
    return error == 0;
}
