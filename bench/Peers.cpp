// SPDX-License-Identifier: Apache-2.0
#include "bench/Peers.h"

#include "base/Handles.h"
#include "bench/Child.h"
#include "bench/Comparison.h"
#include "bench/Place.h"
#include "bench/ServiceRun.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace vnlog::bench {

namespace {

using Command = std::vector<std::string>;

constexpr size_t kPiece = 8192; ///< bytes a write, about as many lines as are sent to the service by one call
constexpr char kPriority[] = "<13>"; // what a line begins with on the way to a system log

Sample failure(const std::string& what) {
    Sample sample;
    sample.failure = what + ": " + std::strerror(errno);
    return sample;
}

/** Feeds a program through a pipe on its standard input until it has read everything and ends. */
Sample feedPipe(const Command& command, const std::string& text) {
    Sample sample;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return failure("no pipe");
    FileDescriptor input(ends[0]), feed(ends[1]);
    Child child(command, {input.get(), -1, STDERR_FILENO});
    if (!child.running())
        return failure("cannot start " + command[0]);
    input = FileDescriptor();
    double begin = now();
    bool fed = true;
    for (size_t at = 0; fed && at < text.size(); at += kPiece)
        fed = writeAll(feed.get(), text.data() + at, std::min(kPiece, text.size() - at));
    feed = FileDescriptor();
    int status = child.wait(&sample);
    sample.wall = now() - begin;
    if (!fed || status != 0)
        sample.failure = command[0] + " ended with " + std::to_string(status);
    return sample;
}

/** A connection to a system log's socket, as soon as it is there. Not valid when it never comes. */
FileDescriptor connectLog(const std::string& path, const Child& child) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    for (const double end = now() + 30; now() < end && !child.ended(); usleep(1000)) {
        FileDescriptor log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (connect(log.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return log;
    }
    return FileDescriptor();
}

/** Sends the lines to a program's socket, and asks it to end when it has taken all of them. */
Sample feedSocket(const Command& command, const std::string& path, const Corpus& corpus) {
    Sample sample;
    Child child(command, {-1, -1, STDERR_FILENO});
    FileDescriptor log = connectLog(path, child);
    if (!log.valid()) {
        sample.failure = "it offers no socket";
        return sample;
    }
    double begin = now();
    auto line = [&](size_t i) { return corpus.line(i).substr(0, corpus.line(i).size() - 1); };
    bool fed = sendPackets(log.get(), 0, corpus.count(), line, kPriority);
    child.signal(SIGTERM);
    int status = child.wait(&sample);
    sample.wall = now() - begin;
    if (!fed || (status != 0 && status != 128 + SIGTERM))
        sample.failure = command[0] + " ended with " + std::to_string(status);
    return sample;
}

void compareFiles(std::vector<std::string> files, const std::string& last, const Corpus& corpus, Form form,
                  Sample* sample) {
    files.push_back(last);
    if (sample->failure.empty())
        compare(files, corpus, corpus.count(), form, sample);
}

Sample measureSvlogd(const std::string& folder, const Corpus& corpus) {
    Place place(folder);
    if (!writeFile(place.path() + "/config", "s65536\nn0\n!gzip -6\n"))
        return failure("no configuration");
    settle(folder);
    Sample sample = feedPipe({"svlogd", place.path()}, corpus.text());
    compareFiles(filesOf(place.path(), "@"), place.path() + "/current", corpus, Form::Exact, &sample);
    return sample;
}

Sample measureS6Log(const std::string& folder, const Corpus& corpus) {
    Place place(folder);
    settle(folder);
    Sample sample =
        feedPipe({"s6-log", "-b", "s65536", "n1000000", "!gzip -6", place.path() + "/log"}, corpus.text());
    compareFiles(filesOf(place.path() + "/log", "@"), place.path() + "/log/current", corpus, Form::Exact,
                 &sample);
    return sample;
}

/** The applet knows one socket, /dev/log: it gets a /dev of its own, in a mount namespace of its own. */
Sample measureBusybox(const std::string& folder, const Corpus& corpus) {
    Place place(folder);
    const std::string log = place.path() + "/log", devices = place.path() + "/dev";
    if (!makeFolders(devices))
        return failure("no folder");
    settle(folder);
    Sample sample =
        feedSocket({"unshare", "--mount", "sh", "-c",
                    "mount --bind \"$0\" /dev && exec busybox syslogd -n -O \"$1\"", devices, log},
                   devices + "/log", corpus);
    compareFiles({}, log, corpus, Form::Prefixed, &sample);
    return sample;
}

Sample measureRsyslog(const std::string& folder, const Corpus& corpus) {
    Place place(folder);
    const std::string &base = place.path(), log = base + "/log";
    bool written =
        writeFile(base + "/rotate",
                  "#!/bin/sh\nmv " + log + " " + log + ".$(($(ls " + base + " | wc -l) + 1000000))\n") &&
        chmod((base + "/rotate").c_str(), 0755) == 0 &&
        writeFile(base + "/conf", "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
                                  "main_queue(queue.timeoutShutdown=\"60000\")\n"
                                  "input(type=\"imuxsock\" Socket=\"" +
                                      base + "/socket\" RateLimit.Interval=\"0\")\n$outchannel bounded," +
                                      log + ",1048576," + base + "/rotate\n*.* :omfile:$bounded\n");
    if (!written)
        return failure("no configuration");
    settle(folder);
    Sample sample =
        feedSocket({"rsyslogd", "-n", "-f", base + "/conf", "-i", base + "/pid"}, base + "/socket", corpus);
    compareFiles(filesOf(base, "log."), log, corpus, Form::Prefixed, &sample);
    return sample;
}

} // namespace

std::vector<Peer> knownPeers() {
    return {
        {"svlogd", "runit's, through a pipe; `s65536`, `n0`, `!gzip -6`", {"svlogd"}, measureSvlogd},
        {"s6-log",
         "through a pipe; `-b s65536 n1000000 \"!gzip -6\"`",
         {"s6-log", "execlineb"},
         measureS6Log},
        {"busybox syslogd",
         "through a datagram socket; `-n`: one plain file without a bound, for Debian's build knows none, "
         "and cuts lines at about 1000 bytes",
         {"busybox"},
         measureBusybox},
        {"rsyslogd",
         "through imuxsock, no limit of rate, to omfile; an output channel of 1 MiB: plain files",
         {"rsyslogd"},
         measureRsyslog}};
}

} // namespace vnlog::bench
