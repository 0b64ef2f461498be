// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"
#include "binder/StatusText.h"
#include "platform/unix/UnixSocket.h"
#include "service/vnlog.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

/** The utility library keeps its counters of an object whose constructor fails behind its own. */
struct LeakOfTheLibrary {
#ifdef __SANITIZE_ADDRESS__
    __lsan::ScopedDisabler disabler;
#endif
};

struct CInterfaceTest : ServiceTest {
    CInterfaceTest() {
        configure();
        makeFolder(home + "/dev"); // for the socket of the name
    }
    ~CInterfaceTest() override { vnlog_free(host); }
    vnlog_result start(unsigned flags = 0) { return vnlog_start(flags, &host, text, sizeof text); }
    vnlog_result command(const char* name, const char* param) {
        return vnlog_command(host, name, param, text, sizeof text);
    }
    vnlog_service* host = nullptr;
    char text[VNLOG_REASON_SIZE] = "";
};

} // namespace

TEST_F(CInterfaceTest, CommandsAreCheckedAndAnsweredAsThoseOfLogset) {
    ASSERT_EQ(start(), VNLOG_OK) << text;
    const struct {
        const char *name, *param;
        vnlog_result result;
        const char* text; ///< what the answer holds
    } cases[] = {{"klog_level", "4", VNLOG_OK, ""},
                 {"KLOG_LEVEL", "8", VNLOG_BAD_PARAMETER, "'8' is not accepted"},
                 {"KLOG_LEVEL", nullptr, VNLOG_BAD_PARAMETER, "needs a parameter"},
                 {"FLUSH", nullptr, VNLOG_OK, ""},
                 {"FLUSH", "--WAIT --sync", VNLOG_OK, ""},
                 {"SHOW", nullptr, VNLOG_OK, "KLOG_LEVEL=4"},
                 {"BUNDLE", "x", VNLOG_UNKNOWN_COMMAND, "there is no command 'BUNDLE'"},
                 {"KLOG", "4", VNLOG_UNKNOWN_COMMAND, "there is no command 'KLOG'"},
                 {"COPY", "/none", VNLOG_FAILED, "'/none' does not exist"}};
    for (const auto& one : cases) {
        EXPECT_EQ(command(one.name, one.param), one.result) << one.name << ": " << text;
        EXPECT_NE(std::strstr(text, one.text), nullptr) << one.name << ": " << text;
    }
}

TEST_F(CInterfaceTest, TheStatusTellsTheSizeThatItNeeds) {
    ASSERT_EQ(start(), VNLOG_OK) << text;
    size_t needed = 0;
    EXPECT_EQ(vnlog_status(host, VNLOG_JSON, text, 9, &needed), VNLOG_TOO_SMALL);
    EXPECT_STREQ(text, "{\n  \"wor");
    std::string whole(needed + 1000, '?');
    EXPECT_EQ(vnlog_status(host, VNLOG_JSON, whole.data(), whole.size(), &needed), VNLOG_OK);
    whole.resize(needed - 1);
    EXPECT_EQ(whole.rfind("{\n  \"works\": ", 0), 0U);
    EXPECT_NE(whole.find(",\n  \"storage\": {\n    \"root\": \"" + root + "\""), std::string::npos) << whole;
    EXPECT_EQ(whole.substr(whole.size() - 7), "\n  }\n}\n");
    whole = vnlog::statusJson("a=y\nb=0\nc=10\nd=007\ne=\nf=-1\ng=a\"b\\c\nh=\x01\t\x1f\xff\n");
    whole.erase(std::remove_if(whole.begin(), whole.end(), [](char c) { return std::strchr(" \n", c); }),
                whole.end());
    EXPECT_EQ(whole,
              R"({"a":true,"b":0,"c":10,"d":"007","e":"","f":"-1","g":"a\"b\\c","h":"\u0001\u0009\u001f�"})");
}

TEST_F(CInterfaceTest, NullsASecondStartAndACallAfterTheStopAreRefused) {
    vnlog_service* second = nullptr;
    auto refused = [&](vnlog_result result, const char* why) { // then fills the buffer as a stack may be
        EXPECT_EQ(result, VNLOG_BAD_ARGUMENT) << why;
        EXPECT_EQ(std::string(text, strnlen(text, sizeof text)), why);
        std::memset(text, 'x', sizeof text);
    };
    refused(vnlog_start(0, nullptr, text, sizeof text), "there is no place for the handle");
    refused(vnlog_start(2, &second, text, sizeof text), "there is a flag that is not known");
    refused(vnlog_command(nullptr, "FLUSH", "", text, sizeof text), "there is no handle");
    refused(vnlog_status(nullptr, VNLOG_TEXT, text, sizeof text, nullptr), "");
    EXPECT_TRUE(vnlog_start(0, &second, nullptr, 1) == VNLOG_BAD_ARGUMENT);
    uint32_t dropped[2] = {1, 1};
    EXPECT_TRUE(vnlog_stop(nullptr, dropped) == VNLOG_BAD_ARGUMENT && dropped[0] == 0 && second == nullptr);
    vnlog_free(nullptr);
    ASSERT_EQ(start(VNLOG_PUBLISH), VNLOG_OK) << text;
    EXPECT_TRUE(vnlog_start(0, &second, nullptr, 0) == VNLOG_ALREADY_STARTED && second == nullptr);
    std::memset(text, 'x', sizeof text);
    refused(vnlog_command(host, nullptr, "", text, sizeof text), "there is no name");
    refused(vnlog_status(host, static_cast<vnlog_form>(2), text, sizeof text, nullptr), "");
    EXPECT_TRUE(vnlog_command(host, "FLUSH", "", nullptr, 1) == VNLOG_BAD_ARGUMENT &&
                vnlog_status(host, VNLOG_TEXT, nullptr, 1, nullptr) == VNLOG_BAD_ARGUMENT);
    feed("<3>last words\n");
    std::thread others[2];
    for (int i : {0, 1})
        others[i] = std::thread([&, i] { EXPECT_EQ(vnlog_stop(host, &dropped[i]), VNLOG_OK); });
    for (std::thread& other : others)
        other.join();
    EXPECT_TRUE(dropped[0] == 0 && dropped[1] == 0);
    EXPECT_NE(stored().find("last words"), std::string::npos);
    EXPECT_EQ(command("FLUSH", "--wait"), VNLOG_STOPPED) << text;
    EXPECT_EQ(vnlog_status(host, VNLOG_TEXT, nullptr, 0, nullptr), VNLOG_STOPPED);
    ASSERT_EQ(vnlog_start(VNLOG_PUBLISH, &second, text, sizeof text), VNLOG_OK) << text;
    vnlog_free(second);
}

TEST_F(CInterfaceTest, AStartThatFailsTellsWhyAndLeavesNothing) {
    const std::string name = home + "/dev/vnlog.logservice";
    vnlog::FileDescriptor other = vnlog::platform::listenPacketSocket(name.c_str(), 0600);
    EXPECT_TRUE(start(VNLOG_PUBLISH) == VNLOG_NAME_TAKEN && !exists(logs)) << text;
    fs::remove_all(home + "/dev");
    EXPECT_TRUE(start(VNLOG_PUBLISH) == VNLOG_NOT_PUBLISHED && host == nullptr);
    EXPECT_TRUE(text == name + ": No such file or directory") << text;
    // The handle, the service, its parts. The utility library reports the end of an object that nobody has
    // referred to with a call stack, and does not survive that as an emulated ARM program.
    for (int made = 1; made <= (VNLOG_EMULATED ? 2 : 3); ++made) {
        [[maybe_unused]] LeakOfTheLibrary allowed;
        faults.objectRefused = made;
        EXPECT_TRUE(start() == VNLOG_NO_MEMORY && host == nullptr) << made;
    }
    setenv("VNLOG_SYSROOT", ("/" + std::string(99, 'r')).c_str(), 1);
    for (unsigned flags : {0U, unsigned{VNLOG_PUBLISH}}) {
        EXPECT_EQ(start(flags), VNLOG_NOT_STARTED);
        EXPECT_STREQ(text, "the system root is longer than 80 characters");
    }
    EXPECT_TRUE(host == nullptr && loggedTimes("The log service failed to start !") == 2);
    setenv("VNLOG_SYSROOT", home.c_str(), 1);
    EXPECT_EQ(start(), VNLOG_OK) << text;
}

TEST_F(CInterfaceTest, AStopTellsWhatItDropped) {
    ASSERT_EQ(start(), VNLOG_OK) << text;
    faults.writeError = EIO;
    faults.sectionsOnly = faults.skipPauses = true;
    feed("<3>last words\n");
    uint32_t dropped = 0;
    EXPECT_TRUE(vnlog_stop(host, &dropped) == VNLOG_OK && dropped == std::strlen("last words\n")) << dropped;
}
