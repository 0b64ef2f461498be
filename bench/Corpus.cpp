// SPDX-License-Identifier: Apache-2.0
#include "bench/Corpus.h"

#include "platform/logger/LoggerDevice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <random>

namespace vnlog::bench {

namespace {

using Random = std::mt19937;

constexpr unsigned kSeed = 20240305;
constexpr int32_t kFirstSecond = 1709625600; // 2024-03-05 08:00:00 UTC
constexpr size_t kLongestMessage = 4000; // an entry of the library holds a little more
constexpr int kThousandth = 1000000; // nanoseconds

constexpr const char* kTags[] = {
    "NetMonitor",    "SensorHub",     "AudioMixer",  "PowerKeeper",  "LinkState",     "CameraFeed",
    "StoreIndex",    "BatteryGauge",  "RadioTask",   "InputRouter",  "FrameClock",    "ScreenDimmer",
    "BusWatcher",    "JobRunner",     "WifiScan",    "TimeSync",     "AccountBook",   "CacheSweeper",
    "DeckPlayer",    "ThermalGuard",  "VoicePrompt", "GpsFix",       "TouchPanel",    "UpdateAgent",
    "PackageList",   "AlarmQueue",    "LedDriver",   "NfcPoll",      "BluetoothPair", "UsbPort",
    "DisplayLayout", "FontLoader",    "KeyVault",    "DownloadPool", "MediaScan",     "CallState",
    "MessageStore",  "WatchdogTimer", "HeapReport",  "ModemLine",    "DoorLock",      "LampControl",
    "TunerStep",     "RemoteKeys",    "VolumeCurve", "SubtitleFeed", "ChannelList",   "EpgCollector",
    "DiskQuota",     "CrashCollector"};

constexpr const char* kWords[] = {
    "request",   "session", "handle",   "state",   "changed",   "from",        "to",        "for",
    "buffer",    "queue",   "frame",    "dropped", "started",   "stopped",     "timeout",   "client",
    "server",    "connect", "level",    "update",  "screen",    "surface",     "window",    "network",
    "signal",    "cell",    "scan",     "result",  "cached",    "service",     "bound",     "released",
    "acquire",   "lock",    "wake",     "policy",  "battery",   "temperature", "sensor",    "rate",
    "volume",    "stream",  "track",    "codec",   "output",    "input",       "event",     "key",
    "focus",     "task",    "process",  "thread",  "pending",   "finished",    "delivered", "broadcast",
    "receiver",  "intent",  "package",  "user",    "count",     "size",        "offset",    "latency",
    "ms",        "bytes",   "total",    "free",    "alloc",     "reason",      "failed",    "retry",
    "with",      "on",      "is",       "not",     "no",        "of",          "in",        "after",
    "before",    "current", "previous", "next",    "target",    "enabled",     "disabled",  "true",
    "false",     "null",    "default",  "profile", "channel",   "packet",      "address",   "route",
    "interface", "link",    "up",       "down",    "bandwidth", "status",      "code",      "mode",
    "config",    "value"};

/** A number from 0 on below the limit, the same on every machine. */
unsigned below(Random& random, unsigned limit) {
    return static_cast<unsigned>(random() % limit);
}

Random sameEveryTime() {
    return Random(kSeed); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same corpus is what is wanted
}

template <size_t N> const char* pick(const char* const (&list)[N], Random& random) {
    return list[below(random, N)];
}

/** A message with gaps: '#' a number, '@' an address, '~' a word. */
std::string makeTemplate(Random& random) {
    std::lognormal_distribution<double> length(4.365, 0.62);
    auto wanted = static_cast<size_t>(std::clamp(length(random), 10.0, 400.0));
    std::string text = pick(kWords, random);
    while (text.size() < wanted) {
        switch (below(random, 16)) {
        case 0:
            text += std::string(" ") + pick(kWords, random) + "=#";
            break;
        case 1:
            text += below(random, 3) == 0 ? " @" : " #";
            break;
        case 2:
            text += below(random, 2) == 0 ? " ~" : ",";
            break;
        default:
            text += std::string(" ") + pick(kWords, random);
        }
    }
    return text;
}

/** A number as logs have them: mostly small, at times a time or a size. */
std::string makeNumber(Random& random) {
    constexpr unsigned limits[] = {2, 10, 10, 100, 1000, 100000};
    return std::to_string(below(random, limits[below(random, 6)]));
}

std::string fill(const std::string& form, Random& random) {
    std::string text;
    for (char c : form) {
        std::array<char, 16> address{};
        switch (c) {
        case '#':
            text += makeNumber(random);
            break;
        case '@':
            std::snprintf(address.data(), address.size(), "0x%08x", 0xb4000000u + below(random, 4096) * 64);
            text += address.data();
            break;
        case '~':
            text += pick(kWords, random);
            break;
        default:
            text += c;
        }
    }
    return text;
}

/** One source of entries: what a module of a device writes, and as whom. */
struct Module {
    std::string tag;
    int32_t pid;
    std::vector<std::string> forms;
};

std::vector<Module> makeModules(Random& random) {
    std::vector<Module> modules;
    for (const char* tag : kTags) {
        Module module{tag, static_cast<int32_t>(300 + below(random, 9000)), {}};
        for (auto left = 3 + below(random, 5); left > 0; --left)
            module.forms.push_back(makeTemplate(random));
        modules.push_back(std::move(module));
    }
    return modules;
}

/** Index of a module: the first ones write most. */
size_t skewed(Random& random, size_t count) {
    double position = std::uniform_real_distribution<double>(0, 1)(random);
    return std::min(static_cast<size_t>(std::pow(position, 3.0) * static_cast<double>(count)), count - 1);
}

char priorityOf(unsigned chance) {
    return chance < 45 ? 'D' : chance < 80 ? 'I' : chance < 92 ? 'W' : chance < 99 ? 'E' : 'F';
}

} // namespace

struct Corpus::Entry {
    int32_t pid = 0, tid = 0, seconds = 0, nanoseconds = 0;
    char priority = 'I';
    std::string tag, message;
};

std::string_view Corpus::piece(const std::string& all, const std::vector<size_t>& ends, size_t index) {
    size_t begin = index == 0 ? 0 : ends[index - 1];
    return std::string_view(all).substr(begin, ends[index] - begin);
}

void Corpus::add(const Entry& entry) {
    constexpr char letters[] = "VDIWEF";
    std::string payload(1, static_cast<char>(std::strchr(letters, entry.priority) - letters + 2));
    payload.append(entry.tag).append(1, '\0').append(entry.message).append(1, '\0');
    platform::LoggerHeader header{};
    header.length = static_cast<uint16_t>(payload.size());
    header.pid = entry.pid;
    header.tid = entry.tid;
    header.seconds = entry.seconds;
    header.nanoseconds = entry.nanoseconds;
    mPackets.append(reinterpret_cast<const char*>(&header), sizeof header).append(payload);
    mPacketEnds.push_back(mPackets.size());

    const time_t seconds = entry.seconds;
    std::tm when{};
    gmtime_r(&seconds, &when);
    std::array<char, 256> head{};
    std::snprintf(head.data(), head.size(),
                  "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %c %-8.128s: ", when.tm_mon + 1, when.tm_mday,
                  when.tm_hour, when.tm_min, when.tm_sec, entry.nanoseconds / kThousandth, entry.pid,
                  entry.tid, entry.priority, entry.tag.c_str());
    mText.append(head.data()).append(entry.message).append(1, '\n');
    mLineEnds.push_back(mText.size());
}

Corpus Corpus::makeUp(size_t count) {
    Random random = sameEveryTime();
    const std::vector<Module> modules = makeModules(random);
    Corpus corpus;
    Entry entry;
    entry.seconds = kFirstSecond;
    const Module* module = &modules[0];
    for (size_t i = 0; i < count; ++i) {
        if (below(random, 2) == 0) // modules write in bursts
            module = &modules[skewed(random, modules.size())];
        entry.nanoseconds += static_cast<int32_t>(below(random, 25) * kThousandth + 1);
        entry.seconds += entry.nanoseconds / (1000 * kThousandth);
        entry.nanoseconds %= 1000 * kThousandth;
        entry.pid = module->pid;
        entry.tid = module->pid + static_cast<int32_t>(below(random, 4) * 7);
        entry.priority = priorityOf(below(random, 100));
        entry.tag = module->tag;
        entry.message = fill(module->forms[skewed(random, module->forms.size())], random);
        corpus.add(entry);
    }
    return corpus;
}

Corpus Corpus::ofLength(size_t count, size_t length) {
    Random random = sameEveryTime();
    Corpus corpus;
    Entry entry;
    entry.pid = entry.tid = 1000;
    entry.tag = "Length";
    for (size_t i = 0; i < count; ++i) {
        entry.seconds = kFirstSecond + static_cast<int32_t>(i / 1000);
        entry.nanoseconds = static_cast<int32_t>(i % 1000) * kThousandth;
        entry.message.clear();
        while (entry.message.size() < length)
            entry.message.append(pick(kWords, random))
                .append(1, ' ')
                .append(makeNumber(random))
                .append(1, ' ');
        entry.message.resize(length);
        corpus.add(entry);
    }
    return corpus;
}

namespace {

/** Where the message of a threadtime line begins, and what stands before it; 0 when the form is another. */
size_t parseHead(const std::string& line, std::tm* when, int* thousandths, int* pid, int* tid, char* priority,
                 std::string* tag) {
    int length = 0;
    // NOLINTNEXTLINE(cert-err34-c): the widths leave no number that does not fit
    if (std::sscanf(line.c_str(), "%2d-%2d %2d:%2d:%2d.%3d %9d %9d %c %n", &when->tm_mon, &when->tm_mday,
                    &when->tm_hour, &when->tm_min, &when->tm_sec, thousandths, pid, tid, priority,
                    &length) != 9 ||
        length == 0 || std::strchr("VDIWEF", *priority) == nullptr)
        return 0;
    size_t colon = line.find(": ", static_cast<size_t>(length));
    if (colon == std::string::npos || colon - static_cast<size_t>(length) > 64)
        return 0;
    *tag = line.substr(static_cast<size_t>(length), colon - static_cast<size_t>(length));
    tag->erase(tag->find_last_not_of(' ') + 1); // the form pads it
    return tag->empty() ? 0 : colon + 2;
}

} // namespace

bool Corpus::read(const char* path, size_t count, Corpus* corpus) {
    errno = 0;
    std::ifstream file(path);
    if (!file)
        return false;
    int32_t latest = kFirstSecond, latestNanoseconds = 0;
    for (std::string line; corpus->count() < count && std::getline(file, line);) {
        Entry entry;
        std::tm when{};
        int thousandths = 0;
        line.erase(std::remove(line.begin(), line.end(), '\0'), line.end()); // one would end the message
        size_t begin =
            parseHead(line, &when, &thousandths, &entry.pid, &entry.tid, &entry.priority, &entry.tag);
        if (begin == 0) {
            entry.pid = entry.tid = 1;
            entry.priority = 'I';
            entry.tag = "corpus";
        } else {
            when.tm_year = 124; // the form has no year; this one is a leap year
            --when.tm_mon;
            auto seconds = static_cast<int32_t>(timegm(&when));
            int32_t nanoseconds = thousandths * kThousandth;
            if (seconds > latest || (seconds == latest && nanoseconds > latestNanoseconds)) {
                latest = seconds;
                latestNanoseconds = nanoseconds;
            }
        }
        entry.seconds = latest;
        entry.nanoseconds = latestNanoseconds;
        if (entry.priority == 'V')
            entry.priority = 'D';
        entry.message = line.substr(begin, kLongestMessage);
        corpus->add(entry);
    }
    if (corpus->count() == 0 && !file.bad())
        errno = EINVAL;
    return corpus->count() > 0 && !file.bad();
}

} // namespace vnlog::bench
