// SPDX-License-Identifier: Apache-2.0
#include "base/Console.h"
#include "Fixture.h"

#include <sys/socket.h>

using namespace std::string_literals;
using vnlog::Console;
using vnlog::Patience;
using vnlog::Shown;

namespace {

class ConsoleTest : public FolderTest {
  protected:
    /** A pipe or a pair of sockets that holds little. */
    void open(bool pipe) {
        int fds[2], size = 4096;
        ASSERT_EQ(pipe ? ::pipe(fds) : socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        reader = vnlog::FileDescriptor(fds[0]);
        writer = vnlog::FileDescriptor(fds[1]);
        if (pipe)
            fcntl(fds[1], F_SETPIPE_SZ, size);
        else
            setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
    }
    Shown show(const std::string& text, int patienceMs = 1) {
        Patience patience(patienceMs);
        return console.show(writer.get(), text.data(), text.size(), &patience);
    }
    void read(size_t most) {
        std::string bytes(most, '\0');
        ssize_t got = ::read(reader.get(), bytes.data(), most);
        seen += bytes.substr(0, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }

    Console console;
    vnlog::FileDescriptor reader, writer;
    std::string seen;
};

} // namespace

/** Whoever reads gets whole lines in their order, and for those that are missing a number at their place. */
TEST_F(ConsoleTest, WhatIsNotTakenIsDroppedByWholeLinesAndCounted) {
    std::mt19937 random(7);
    for (bool pipe : {true, false}) {
        open(pipe);
        seen.clear();
        int number = 0, dropped = 0;
        for (int round = 0; round < 3000; ++round) {
            std::string text;
            for (uint32_t lines = 1 + random() % 3; lines > 0; --lines)
                text += std::to_string(++number) + std::string(random() % 8 == 0 ? random() % 9000 : 9, 'x') +
                        "\n";
            dropped += show(text, 0) == Shown::Dropped;
            if (random() % (round / 500 % 2 == 0 ? 2 : 9) == 0)
                read(random() % 9000);
            if (random() % 8 == 0)
                console.retry(); // which changes nothing for one that works
        }
        EXPECT_GT(dropped, 100);
        EXPECT_TRUE(eventually([&] {
            read(65536);
            return show("0\n") == Shown::Whole;
        }));
        read(65536);
        std::istringstream lines(seen);
        int expected = 1, missed = 0;
        for (std::string line; std::getline(lines, line) && line != "0";) {
            if (std::sscanf(line.c_str(), "--------- %d lines not shown", &missed) == 1)
                expected += missed;
            else
                ASSERT_EQ(std::atoi(line.c_str()), expected++) << line.substr(0, 40);
        }
        EXPECT_EQ(expected, number + 1);
        EXPECT_EQ(fcntl(writer.get(), F_GETFL) & O_NONBLOCK, 0) << "the host's descriptor is as it was";
    }
}

TEST_F(ConsoleTest, ClosedOneIsReportedOnceAndTriedAgainWhenThatMakesSense) {
    std::signal(SIGPIPE, SIG_DFL); // the test would end by it
    for (bool pipe : {true, false}) {
        open(pipe);
        console.retry();
        forgetLog();
        reader = vnlog::FileDescriptor();
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(show("lost\n"), Shown::Closed);
        EXPECT_EQ(loggedTimes("+++ LOG: write failed (errno=" + std::to_string(EPIPE) + ")"), 1);
        EXPECT_EQ(console.error(), EPIPE);
        console.retry();
        EXPECT_EQ(show("lost\n"), Shown::Closed);
        EXPECT_EQ(loggedTimes("+++ LOG"), 2);
    }
    vnlog::FileDescriptor file = vnlog::openFile((home + "/console").c_str(), O_CREAT | O_RDWR, 0600);
    dup2(file.get(), writer.get()); // the host has given it another file
    EXPECT_TRUE(show("taken\n") == Shown::Whole && console.error() == 0);
    faults.writeError = ENOSPC;
    EXPECT_EQ(show("no room\n"), Shown::Dropped);
    faults.writeError = 0;
    EXPECT_EQ(show("again\n"), Shown::Whole);
    EXPECT_EQ(readFile(home + "/console"),
              "--------- 8 lines not shown\ntaken\n--------- 1 lines not shown\nagain\n");
}
