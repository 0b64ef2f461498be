// SPDX-License-Identifier: Apache-2.0
/*
 * A host of the log service for a machine without logger devices, such as a developer's or one that builds
 * and tests. It makes stand-ins for the devices under the system root that VNLOG_SYSROOT names, where
 * logwrite and the service find them, and runs the service until SIGTERM or SIGINT.
 */
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <platform/logger/LoggerDriver.h>
#include <string>
#include <vnlog.h>

/** Blocked before any thread is made: all threads inherit that, and leave the signals to sigwait. */
static sigset_t blockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGTERM, SIGINT})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // a console that is closed is told by its write
    std::signal(SIGXFSZ, SIG_IGN); // and so is a file that must not grow
    return signals;
}

int main() {
    const sigset_t signals = blockSignals();
    const char* root = std::getenv("VNLOG_SYSROOT");
    if (root == nullptr || *root == '\0') {
        std::fputs("host: VNLOG_SYSROOT must name a folder with dev and media/flash/nvm in it\n", stderr);
        return 1;
    }
    // Outlives the service, whose stop reads what the devices still hold.
    vnlog::platform::LoggerDriver devices;
    const std::string folder = std::string(root) + "/dev/";
    if (!devices.start({folder + "log_main", folder + "log_system"})) {
        std::perror(("host: there can be no devices in " + folder).c_str());
        return 1;
    }
    vnlog_service* service = nullptr;
    char why[VNLOG_REASON_SIZE];
    if (vnlog_start(VNLOG_PUBLISH, &service, why, sizeof why) != VNLOG_OK) {
        std::fprintf(stderr, "host: the log service does not start: %s\n", why);
        return 1;
    }
    int number = 0;
    (void)sigwait(&signals, &number);
    uint32_t dropped = 0;
    vnlog_result result = vnlog_stop(service, &dropped);
    vnlog_free(service);
    return result == VNLOG_OK && dropped == 0 ? 0 : 1;
}
