/*
 * Runs the service and writes numbered lines into it until it is killed. The argument is the number of the
 * run, which every line carries. Lines are made hard to compress, so that sections fill the store quickly.
 */
#include "service/LogService.h"

#include <csignal>
#include <cstdio>
#include <random>
#include <string>
#include <sys/prctl.h>

int main(int, char** argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::mt19937 random(std::random_device{}());
    android::sp<vnlog::LogService> service = new vnlog::LogService(vnlog::LogService::DeferStart{});
    const bool flags[] = {true, false, false};
    if (service->serviceStart(flags) != 0)
        return 3;
    std::puts("started");
    std::fflush(stdout);
    for (unsigned line = 0;; ++line) {
        std::string text = std::string("run ") + argv[1] + " line " + std::to_string(line) + " ";
        while (text.size() < 1000)
            text += static_cast<char>('!' + random() % 90);
        text += "\n";
        if (service->logBufWrite(text.data(), static_cast<uint32_t>(text.size())) < 0)
            return 4;
    }
}
