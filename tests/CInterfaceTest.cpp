// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"
#include "service/vnlog.h"

namespace {

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
}

TEST_F(CInterfaceTest, NullsASecondStartAndACallAfterTheStopAreRefused) {
    vnlog_service* second = nullptr;
    EXPECT_EQ(vnlog_start(0, nullptr, text, sizeof text), VNLOG_BAD_ARGUMENT);
    EXPECT_EQ(vnlog_start(2, &second, nullptr, 0), VNLOG_BAD_ARGUMENT);
    EXPECT_TRUE(vnlog_stop(nullptr, nullptr) == VNLOG_BAD_ARGUMENT && second == nullptr);
    vnlog_free(nullptr);
    ASSERT_EQ(start(VNLOG_PUBLISH), VNLOG_OK) << text;
    EXPECT_TRUE(vnlog_start(0, &second, nullptr, 0) == VNLOG_ALREADY_STARTED && second == nullptr);
    EXPECT_EQ(vnlog_command(host, nullptr, "", text, sizeof text), VNLOG_BAD_ARGUMENT);
    EXPECT_EQ(vnlog_command(host, "FLUSH", "", nullptr, 1), VNLOG_BAD_ARGUMENT);
    EXPECT_EQ(vnlog_status(host, static_cast<vnlog_form>(2), nullptr, 0, nullptr), VNLOG_BAD_ARGUMENT);
    feed("<3>last words\n");
    std::thread others[2];
    uint32_t dropped[2] = {1, 1};
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
