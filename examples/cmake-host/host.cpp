// SPDX-License-Identifier: Apache-2.0
/*
 * A host of the log service in C++, which uses the class itself. It publishes the service, has it write out
 * what is buffered at SIGUSR1, and takes it down in good order at SIGTERM or SIGINT.
 */
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <csignal>
#include <cstdio>
#include <service/LogService.h>

/** Blocked before the start: the service's threads inherit that, and leave the signals to sigwait. */
static sigset_t blockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGTERM, SIGINT, SIGUSR1})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // a console that is closed is told by its write
    std::signal(SIGXFSZ, SIG_IGN); // and so is a file that must not grow
    return signals;
}

int main() {
    const sigset_t signals = blockSignals();
    const android::String16 name("vnlog.logservice");
    if (android::defaultServiceManager()->checkService(name) != nullptr) {
        std::fputs("host: another process has the log service\n", stderr);
        return 1;
    }
    android::sp<vnlog::LogService> service = new vnlog::LogService(); // starts it
    if (!service->mServiceStarted) {
        std::fputs("host: the log service does not start; the Android log tells why\n", stderr);
        return 1;
    }
    if (android::defaultServiceManager()->addService(name, service) != android::NO_ERROR) {
        std::fputs("host: the log service cannot be published\n", stderr);
        return 1; // the last reference goes, which stops the service
    }
    android::ProcessState::self()->startThreadPool();

    for (int number = 0; sigwait(&signals, &number) == 0 && number == SIGUSR1;)
        service->flushLogBufAll();

    const bool all[] = {true, true, true};
    int stopped = service->serviceStop(all);
    if (service->droppedBytes() > 0)
        std::fprintf(stderr, "host: %u bytes are lost\n", service->droppedBytes());
    return stopped == 0 && service->droppedBytes() == 0 ? 0 : 1;
}
