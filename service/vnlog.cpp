// SPDX-License-Identifier: Apache-2.0
#include "service/vnlog.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Text.h"
#include "binder/Commands.h"
#include "binder/StatusText.h"
#include "platform/binder/Host.h"
#include "service/Lifecycle.h"
#include "service/LogService.h"

#include <algorithm>
#include <atomic>
#include <binder/IServiceManager.h>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

namespace {

using vnlog::platform::kServiceName;

constexpr bool kAll[] = {true, true, true}; // the workers

/** The right to run the service of this process: one owner at a time. */
class Place {
  public:
    Place() : mOwned(!sTaken.exchange(true)) {}
    ~Place() { leave(); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    bool owned() const { return mOwned; }
    void leave() {
        if (mOwned)
            sTaken = false;
        mOwned = false;
    }

  private:
    static std::atomic<bool> sTaken;
    bool mOwned;
};
std::atomic<bool> Place::sTaken{false};

/** What a call comes to. */
struct Outcome {
    vnlog_result result;
    std::string text = {};
};

/** A buffer of the caller's. */
struct Buffer {
    char* text;
    size_t size;

    bool usable() const { return text != nullptr || size == 0; }
    /** Takes the reason why the call's arguments are refused. */
    vnlog_result refuse(std::string_view why) const {
        (void)take(why);
        return VNLOG_BAD_ARGUMENT;
    }
    /** Takes what fits of the text and a zero. Whether that was all. */
    bool take(std::string_view whole) const {
        if (text == nullptr || size == 0)
            return false;
        size_t length = std::min(whole.size(), size - 1);
        std::memcpy(text, whole.data(), length);
        text[length] = '\0';
        return length == whole.size();
    }
};

/** Runs a call's work: nothing is cancelled in it, and no exception leaves it. */
template <typename Work> Outcome guarded(Work work) {
    vnlog::CancelGuard guard;
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return {VNLOG_NO_MEMORY};
    } catch (const std::exception& error) {
        vnlog::logError("a call of the host failed: %s\n", error.what());
        return {VNLOG_FAILED};
    }
}

} // namespace

struct vnlog_service {
    Place place;
    android::sp<vnlog::LogService> service;
    bool published = false;
    std::mutex stopping; ///< guards `stopped`, and lets a second stop wait for the first
    bool stopped = false;

    ~vnlog_service() { (void)stop(); }
    Outcome start(bool publish);
    Outcome stop();
};

namespace {

/** Whether somebody else has the name. A device's service manager still knows this process's last one. */
bool nameTaken() {
    auto binder = android::defaultServiceManager()->checkService(android::String16(kServiceName));
    return binder != nullptr && binder->localBinder() == nullptr;
}

Outcome start(bool publish, vnlog_service** handle) {
    auto made = std::make_unique<vnlog_service>();
    if (!made->place.owned())
        return {VNLOG_ALREADY_STARTED, "this process has a service already"};
    Outcome outcome = made->start(publish);
    if (outcome.result == VNLOG_OK)
        *handle = made.release();
    return outcome;
}

Outcome command(vnlog::LogService& service, const char* name, const char* parameter) {
    const vnlog::CommandInfo* command = vnlog::findCommand(name);
    if (command == nullptr)
        return {VNLOG_UNKNOWN_COMMAND, "there is no command " + vnlog::quoted(name)};
    std::string param = parameter != nullptr ? parameter : "";
    if (command->parameter.normalize != nullptr)
        command->parameter.normalize(param);
    bool given = parameter != nullptr || command->code == vnlog::CMD_FLUSH; // whose words may be missing
    std::string text = objectionTo(*command, given ? param.c_str() : nullptr);
    if (!text.empty())
        return {VNLOG_BAD_PARAMETER, text};
    if (service.logQuery(command->code, param.c_str(), &text) == 0)
        return {VNLOG_OK, text};
    return {service.mServiceStarted ? VNLOG_FAILED : VNLOG_STOPPED, text};
}

Outcome status(vnlog::LogService& service, vnlog_form form) {
    std::string text;
    if (service.logQuery(vnlog::CMD_STATUS, nullptr, &text) != 0)
        return {service.mServiceStarted ? VNLOG_FAILED : VNLOG_STOPPED};
    return {VNLOG_OK, form == VNLOG_JSON ? vnlog::statusJson(text) : text};
}

} // namespace

Outcome vnlog_service::start(bool publish) {
    if (publish && nameTaken())
        return {VNLOG_NAME_TAKEN, std::string(kServiceName) + " is served already"};
    service = new vnlog::LogService(vnlog::LogService::DeferStart{});
    if (service->serviceStart(kAll) != 0) {
        std::string why = vnlog::lastErrorHere(); // before the general line, which would take its place
        vnlog::logError("%s", vnlog::kStartFailed);
        return {VNLOG_NOT_STARTED, why};
    }
    if (!publish)
        return {VNLOG_OK};
    android::status_t status = vnlog::platform::publishService(kServiceName, service);
    published = status == android::NO_ERROR;
    if (published)
        return {VNLOG_OK};
    return {VNLOG_NOT_PUBLISHED,
            vnlog::platform::servicePlace(kServiceName) + ": " + vnlog::errorText(-status)};
}

Outcome vnlog_service::stop() {
    std::lock_guard<std::mutex> lock(stopping);
    if (stopped || service == nullptr)
        return {VNLOG_OK};
    if (published)
        vnlog::platform::withdrawServices();
    published = false;
    if (service->serviceStop(kAll) != 0 && service->mServiceStarted)
        return {VNLOG_FAILED};
    stopped = true;
    place.leave();
    return {VNLOG_OK};
}

vnlog_result vnlog_start(unsigned flags, vnlog_service** service, char* reason, size_t size) {
    const Buffer buffer{reason, size};
    if (service == nullptr)
        return buffer.refuse("there is no place for the handle");
    *service = nullptr;
    if (!buffer.usable() || (flags & ~static_cast<unsigned>(VNLOG_PUBLISH)) != 0)
        return buffer.refuse("there is a flag that is not known");
    Outcome outcome = guarded([&] { return start((flags & VNLOG_PUBLISH) != 0, service); });
    (void)buffer.take(outcome.text);
    return outcome.result;
}

vnlog_result vnlog_stop(vnlog_service* service, uint32_t* dropped) {
    if (dropped != nullptr)
        *dropped = 0;
    if (service == nullptr)
        return VNLOG_BAD_ARGUMENT;
    Outcome outcome = guarded([&] { return service->stop(); });
    if (dropped != nullptr)
        *dropped = service->service->droppedBytes();
    return outcome.result;
}

void vnlog_free(vnlog_service* service) {
    (void)guarded([&] {
        delete service;
        return Outcome{VNLOG_OK};
    });
}

vnlog_result vnlog_command(vnlog_service* service, const char* name, const char* parameter, char* answer,
                           size_t size) {
    const Buffer buffer{answer, size};
    if (service == nullptr || name == nullptr || !buffer.usable())
        return buffer.refuse(service == nullptr ? "there is no handle" : "there is no name");
    Outcome outcome = guarded([&] { return command(*service->service, name, parameter); });
    (void)buffer.take(outcome.text);
    return outcome.result;
}

vnlog_result vnlog_status(vnlog_service* service, vnlog_form form, char* text, size_t size, size_t* needed) {
    const Buffer buffer{text, size};
    if (needed != nullptr)
        *needed = 0;
    if (service == nullptr || !buffer.usable() || (form != VNLOG_TEXT && form != VNLOG_JSON))
        return buffer.refuse("");
    Outcome outcome = guarded([&] { return status(*service->service, form); });
    bool whole = buffer.take(outcome.text);
    if (outcome.result != VNLOG_OK)
        return outcome.result;
    if (needed != nullptr)
        *needed = outcome.text.size() + 1;
    return whole ? VNLOG_OK : VNLOG_TOO_SMALL;
}

const char* vnlog_version() {
    return VNLOG_VERSION;
}
