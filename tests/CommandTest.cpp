#include "Fixture.h"

#include "binder/Command.h"

#include <fcntl.h>
#include <filesystem>

using namespace vnlog; // the command codes

namespace {

class CommandTest : public ServiceTest {
  protected:
    void SetUp() override {
        plugDevices();
        catchConsole();
        configure();
        start(true, true, true);
    }
    int command(int code, const char* param) { return service().logCMD(code, param); }
    bool saved(const std::string& line) { return readFile(cfg).find(line + "\n") != std::string::npos; }
    std::string level() { return readFile(home + "/proc/sys/kernel/printk"); }
    void breakConsoleLevel() { std::filesystem::remove(home + "/proc/sys/kernel/printk"); }
};

} // namespace

TEST_F(CommandTest, WrongParametersAreAnsweredWithTheUsage) {
    std::string before = readFile(cfg);
    struct Wrong {
        int code;
        const char* param;
    };
    for (auto [code, param] : {Wrong{0, "yes"},
                               {0, nullptr},
                               {1, "Y"},
                               {3, ""},
                               {4, "0"},
                               {4, "8"},
                               {4, "abc"},
                               {4, nullptr},
                               {5, "x"},
                               {6, "x"},
                               {6, ""},
                               {7, "ALL_MODULES"},
                               {8, nullptr},
                               {9, nullptr},
                               {10, "Brief"},
                               {11, "on"},
                               {15, nullptr},
                               {18, nullptr}}) {
        size_t shown = console().size();
        EXPECT_EQ(command(code, param), 0) << code;
        std::string answer = console().substr(shown);
        EXPECT_EQ(answer.find("\n\nlogset useage:\n\nlogset   <cmd_type>               <cmd_param>\n"), 0u)
            << code;
        EXPECT_NE(answer.find("current log cfg:"), std::string::npos) << code;
    }
    for (int unassigned : {2, 12, 13, 17, 19, -1})
        EXPECT_EQ(command(unassigned, nullptr), 0);
    EXPECT_EQ(readFile(cfg), before);
}

TEST_F(CommandTest, ConsoleOutputMovesTheKernelLevel) {
    ASSERT_EQ(command(4, "5x"), 0);
    EXPECT_EQ(level(), "5\n");
    ASSERT_EQ(command(0, "y"), 0);
    EXPECT_EQ(service().mKLogLevel, 7) << "the level from before it was switched off, which never happened";
    ASSERT_EQ(command(4, "3"), 0);
    ASSERT_EQ(command(0, "n"), 0);
    EXPECT_EQ(level(), "1\n");
    EXPECT_FALSE(service().mKLogToUart || service().mALogToUart);
    EXPECT_EQ(command(0, "n"), 0);
    EXPECT_EQ(service().mOldKLogLevel, 3) << "the second time changes nothing";
    EXPECT_TRUE(saved("UART_OUTPUT=n") && saved("KLOG_LEVEL=1"));
    ASSERT_EQ(command(0, "y"), 0);
    EXPECT_EQ(level(), "3\n");
    EXPECT_TRUE(saved("UART_OUTPUT=y") && saved("KLOG_LEVEL=3"));

    breakConsoleLevel();
    EXPECT_EQ(command(0, "n"), -1);
    EXPECT_TRUE(logged("fail to set the kernel log level to KERN_ALERT\n"));
    EXPECT_TRUE(service().mALogToUart && !service().mKLogToUart);
    EXPECT_EQ(command(0, "y"), -1);
    EXPECT_TRUE(logged("fail to set the kernel log level to oldKLogLevel \n"));
    EXPECT_EQ(command(4, "2"), -1);
    EXPECT_EQ(service().mKLogLevel, 3);
}

TEST_F(CommandTest, KernelOutputClearsAndWakesTheReader) {
    ASSERT_EQ(command(0, "y"), 0);
    ASSERT_EQ(command(3, "n"), 0);
    EXPECT_FALSE(service().mKLogOutput || service().mKLogToFile || service().mKLogToUart);
    EXPECT_EQ(level(), "1\n");
    feed("<3>held\n");
    ASSERT_EQ(command(3, "y"), 0);
    EXPECT_TRUE(service().mKLogOutput && service().mKLogToFile && service().mKLogToUart);
    EXPECT_EQ(level(), "7\n");
    feed("<3>fresh\n");
    EXPECT_TRUE(eventually([&] { return flush() && stored().find("fresh\n") != std::string::npos; }));
    ASSERT_EQ(command(3, "n"), 0);
    std::filesystem::remove(home + "/proc/kmsg");
    EXPECT_EQ(command(3, "y"), -1);
    EXPECT_TRUE(logged("Log clearing failed! \n"));
    EXPECT_FALSE(service().mKLogOutput);
}

TEST_F(CommandTest, AndroidFilterCommands) {
    auto modules = [&] {
        std::string text = readFile(cfg);
        size_t start = text.find("ALOG_MODULE=") + 12;
        return text.substr(start, text.find('\n', start) - start);
    };
    ASSERT_EQ(command(6, "warning"), 0);
    EXPECT_STREQ(service().mALogLevel, "w");
    EXPECT_EQ(service().mLogFormat->globalPriority, ANDROID_LOG_WARN);
    ASSERT_EQ(command(9, "absent"), 0);
    EXPECT_EQ(modules(), "ALL_MODULE");
    std::string longName(200, 'n');
    ASSERT_EQ(command(8, ("name:d+bare+" + longName).c_str()), 0);
    EXPECT_EQ(modules(), longName + ":w+bare:w+name:d");
    EXPECT_EQ(command(8, "two\nlines:d"), 0);
    EXPECT_EQ(command(8, ""), 0);
    EXPECT_EQ(loggedTimes("Cmd alog add filter failed \n"), 2);
    ASSERT_EQ(command(9, "bare"), 0);
    ASSERT_EQ(command(9, longName.c_str()), 0);
    EXPECT_EQ(modules(), "name:d");
    ASSERT_EQ(command(7, "NONE_MODULE"), 0);
    EXPECT_EQ(modules(), "NONE_MODULE");
    ASSERT_EQ(command(7, "ALL_MODULE"), 0);
    EXPECT_EQ(modules(), "ALL_MODULE");
    EXPECT_EQ(service().mLogFormat->globalPriority, ANDROID_LOG_WARN);
    ASSERT_EQ(command(8, "again:i"), 0);
    EXPECT_EQ(modules(), "again:i") << "the earlier rules are gone";
    ASSERT_EQ(command(9, "again"), 0);
    EXPECT_EQ(command(9, "again"), 0);
    EXPECT_TRUE(logged("failed to delete filter rule \n"));
    ASSERT_EQ(command(10, "long"), 0);
    ASSERT_EQ(command(11, "y"), 0);
    ASSERT_EQ(command(5, "n"), 0);
    EXPECT_TRUE(saved("ALOG_FORMAT=long") && saved("SAVE_FLUSH_SWITCH=y") && saved("ALOG_OUTPUT=n"));
    stop();
    start(true, true, true);
    EXPECT_EQ(service().mLogFormat->printFormat, FORMAT_LONG);
    EXPECT_TRUE(service().mFlushSwitch && !service().mALogOutput);
}

TEST_F(CommandTest, RootChangeLosesNothingThatWasBuffered) {
    std::string other = home + "/other";
    makeFolder(other);
    std::string first = noise(60000, 1), second = noise(40000, 2), third = noise(30000, 3);
    ASSERT_TRUE(put(first) && flush());
    ASSERT_EQ(command(15, other.c_str()), 0);
    EXPECT_TRUE(saved("STORAGE_PATH=" + other));
    EXPECT_TRUE(exists(other + "/log_service/current"));
    ASSERT_TRUE(put(second));
    EXPECT_TRUE(eventually([&] { return logged("fail to Compress log files 1 log!\n"); }))
        << "the next cut fails";
    EXPECT_FALSE(service().mParts->ring.drainFailing()) << "no writer is turned away for it";
    EXPECT_TRUE(flush()) << "then the next section opens under the new root";
    ASSERT_TRUE(put(third) && flush());
    ASSERT_TRUE(put(noise(40000, 4)) && flush());
    EXPECT_EQ(readFile(section("current", 1, ".txt")), first + second.substr(0, 5536));
    logs = other + "/log_service";
    EXPECT_EQ(stored().substr(0, 64464), second.substr(5536) + third);
    std::string before = stored();
    stop();
    start(true, true, true);
    EXPECT_EQ(stored(), before) << "the next start finds the new root in order";
    ASSERT_EQ(command(15, root.c_str()), 0);
    logs = root + "/log_service";
    EXPECT_TRUE(stored() == first + second.substr(0, 5536)) << "and the old one keeps its open section";
    stop();
    start(true, true, true);
    EXPECT_TRUE(stored() == first + second.substr(0, 5536));
}

TEST_F(CommandTest, UnusableDirectoriesNeverReachAShell) {
    makeFolder(home + "/a b");
    std::string longPath = home + "/" + std::string(100, 'l'), longTarget = home;
    makeFolder(longPath);
    while (longTarget.size() + logs.size() < 240)
        longTarget += "/" + std::string(40, 't');
    makeFolder(longTarget);
    std::string trap = home + "/a;touch " + home + "/trapped;";
    for (const std::string& path :
         {home + "/none", home + "/a b", longPath, trap, std::string(), std::string("-rf")}) {
        EXPECT_EQ(command(15, path.c_str()), 0);
        EXPECT_TRUE(logged("STORAGE_PATH(" + path + ") can not open\n"));
    }
    EXPECT_TRUE(service().mSavePath == root && saved("STORAGE_PATH=" + root));
    for (const std::string& path : {home + "/none", home + "/a b", longTarget, trap, std::string("-t")}) {
        EXPECT_EQ(command(18, path.c_str()), 0);
        EXPECT_TRUE(logged(path + " dir does not exist,Please check!\n"));
    }
    EXPECT_FALSE(exists(home + "/trapped"));
    ASSERT_TRUE(put("copied") && flush());
    EXPECT_EQ(command(18, longPath.c_str()), 0);
    EXPECT_EQ(readFile(longPath + "/log_service/current/log_1.txt"), "copied");
    EXPECT_TRUE(logged("log copy success\n"));
}
