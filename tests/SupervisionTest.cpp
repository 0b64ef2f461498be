// SPDX-License-Identifier: Apache-2.0
#include "tools/Supervision.h"
#include "Fixture.h"

constexpr int64_t kSecond = 1000, kHour = 3600 * kSecond;
const std::string kUsed = "storage.root=/r\nstorage.stored_bytes=10485760\nstorage.bound_bytes=20971520\n";
const std::string kStores = "storing.works=y\nstoring.state=works\n" + kUsed;
const std::string kFails = "problem.1=a\nproblem.2=b\nstoring.works=n\nstoring.state=broken\n" + kUsed;
const std::string kNumbers = "10.0 MiB of at most 20.0 MiB in /r";
const std::string kLife = "WATCHDOG=1 ", kReady = "READY=1 ", kGood = "STATUS=stores: " + kNumbers + " ";

struct SupervisionTest : FolderTest {
    /** What the manager is told by the next report, when that is due. */
    std::string report(const std::string& answer, bool answered = true) {
        time += supervision.untilReport();
        told.clear();
        supervision.report(answered, answer);
        return told;
    }
    int notify(const std::string& text) {
        told += error == 0 ? text + " " : "";
        return error;
    }
    int64_t time = 5 * kHour; ///< at the start
    int error = 0;
    std::string told;
    Supervision supervision{{true, 60 * kSecond, [this] { return time; },
                             [this](const std::string& text) { return notify(text); }}};
};

TEST_F(SupervisionTest, TellsWhatChangesAndWhatTheManagerDidNotTake) {
    supervision.starting();
    EXPECT_EQ("STATUS=looking through what is stored\nEXTEND_TIMEOUT_USEC=600000000 ", told);
    error = EAGAIN;
    for (const int64_t end = time + 40 * kSecond; time < end;)
        EXPECT_EQ("", report(kStores));
    EXPECT_EQ(1, loggedTimes("the service manager cannot be told"));
    EXPECT_EQ(5 * kSecond, supervision.untilReport());
    error = 0;
    EXPECT_EQ(kLife + kGood + kReady, report(kStores));
    EXPECT_EQ(kLife, report(kStores));
    EXPECT_EQ(kLife + "STATUS=stores: " + kNumbers + "; x; y ",
              report("problem.1=x\nproblem.2=y\n" + kStores));
    EXPECT_EQ(kLife + "STATUS=gone ", report("gone", false));
}

TEST_F(SupervisionTest, IsReadyAfterHalfAMinuteWithoutAStorage) {
    EXPECT_EQ(kLife + "STATUS=a; b (/r) ", report(kFails));
    const int64_t end = time + 30 * kSecond;
    while (report(kFails) == kLife)
        ASSERT_LT(time, end);
    EXPECT_EQ(kLife + kReady, told);
    EXPECT_EQ(end, time);
}

TEST_F(SupervisionTest, GivesNoSignOfLifeBehindACommandThatTakesMoreThanAnHour) {
    EXPECT_EQ(kLife + "STATUS=storing is switched off: " + kNumbers + " " + kReady,
              report("storing.works=n\nstoring.state=switched off\n" + kUsed));
    const std::string busy = "problem.1=a command lasts\n"; // no more is told then
    report(busy);
    while (report(busy) == kLife)
        ASSERT_LT(time, 6 * kHour);
    EXPECT_GE(time, 6 * kHour);
    EXPECT_EQ(kLife + kGood, report(kStores));
}
