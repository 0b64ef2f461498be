#include "Fixture.h"

#include <filesystem>
#include <sys/stat.h>
#include <thread>

namespace {

class ConfigTest : public ServiceTest {
  protected:
    int parse(const std::vector<std::pair<std::string, std::string>>& changes) {
        configure(changes);
        return deferred().logConfigParse(cfg.c_str());
    }
};

} // namespace

TEST_F(ConfigTest, EveryKeyReachesItsSetting) {
    ASSERT_EQ(parse({{"UART_OUTPUT", "yes"},
                     {"SAVE_FLUSH_SWITCH", "y"},
                     {"MAX_LOG_SIZE", "10"},
                     {"LOG_SECTION_SIZE", "256"},
                     {"LOG_DELETE_SIZE", "5120"},
                     {"KLOG_LEVEL", "3\r"},
                     {"ALOG_LEVEL", "warn"},
                     {"ALOG_MODULE", "a:d+b"},
                     {"ALOG_OUTPUT", "Y"}}),
              1);
    LogService& s = service();
    EXPECT_TRUE(s.mKLogToUart && s.mALogToUart && s.mKLogToFile && s.mALogToFile && s.mFlushSwitch);
    EXPECT_TRUE(s.mKLogOutput && !s.mALogOutput) << "only a small y switches on";
    EXPECT_EQ(s.mSavePath, root);
    EXPECT_EQ(s.mMaxLogSize, 10);
    EXPECT_EQ(s.mLogSectionSize, 262144u);
    EXPECT_EQ(s.mLogDeleteSize, 5120u * 1024);
    EXPECT_EQ(s.mKLogLevel, 3);
    EXPECT_STREQ(s.mALogLevel, "war");
    EXPECT_STREQ(s.mModuleCfg, "a:d+b");
    EXPECT_STREQ(s.mFormatCfg, "brief");
    EXPECT_TRUE(logged("LogService/3: logConfigParse " + cfg + " success\n"));
}

TEST_F(ConfigTest, WrongAndMissingValuesEndTheParsing) {
    struct Case {
        const char *key, *value, *report;
    };
    for (const Case& c : {Case{"LOG_SECTION_SIZE", "63", "(LOG_SECTION_SIZE) out of range\n"},
                          Case{"LOG_SECTION_SIZE", "257", "(LOG_SECTION_SIZE) out of range\n"},
                          Case{"LOG_SECTION_SIZE", "4294967360", "(LOG_SECTION_SIZE) out of range\n"},
                          Case{"LOG_SECTION_SIZE", "-", "(LOG_SECTION_SIZE) not found\n"},
                          Case{"LOG_DELETE_SIZE", "63", "(LOG_DELETE_SIZE) out of range\n"},
                          Case{"LOG_DELETE_SIZE", "513", "(LOG_DELETE_SIZE) out of range\n"},
                          Case{"LOG_DELETE_SIZE", "-", "(LOG_DELETE_SIZE) not found\n"},
                          Case{"MAX_LOG_SIZE", "abc", "(LOG_DELETE_SIZE) out of range\n"},
                          Case{"MAX_LOG_SIZE", "-", "(MAX_LOG_SIZE) not found\n"},
                          Case{"KLOG_LEVEL", "0", "(KLOG_LEVEL) out of range\n"},
                          Case{"KLOG_LEVEL", "8", "(KLOG_LEVEL) out of range\n"},
                          Case{"KLOG_LEVEL", "-", "(KLOG_LEVEL) not found\n"},
                          Case{"ALOG_LEVEL", "x", "(ALOG_LEVEL) not corrected\n"},
                          Case{"ALOG_LEVEL", "-", "(ALOG_LEVEL) not found\n"},
                          Case{"ALOG_MODULE", "-", "(ALOG_MODULE) not found\n"},
                          Case{"ALOG_FORMAT", "-", "(ALOG_FORMAT) not found\n"}}) {
        forgetLog();
        EXPECT_EQ(parse({{c.key, c.value}}), -1) << c.key << " " << c.value;
        EXPECT_TRUE(logged("LogService/6: fail to parse " + cfg + "," + c.report)) << c.key << " " << c.value;
        EXPECT_EQ(service().mModuleCfg, nullptr);
        EXPECT_EQ(service().mFormatCfg, nullptr);
    }
    EXPECT_EQ(deferred().logConfigParse("/no/such/file"), -1);
}

TEST_F(ConfigTest, LinesAreChosenByTheirFirstByteAndKeysFoundAnywhere) {
    configure();
    std::string rest = readFile(cfg);
    writeFile(cfg, "#STORAGE_PATH=/x\n KLOG_LEVEL=1\nMY_STORAGE_PATH=/y\nOLD_KLOG_LEVEL=5\n\n" + rest +
                       "KLOG_LEVEL=2");
    ASSERT_EQ(deferred().logConfigParse(cfg.c_str()), 1);
    EXPECT_STREQ(service().mSavePath, "/y");
    EXPECT_EQ(service().mKLogLevel, 5) << "the first occurrence counts, wherever in its line";
}

TEST_F(ConfigTest, StorageRootComesFromFileThenEnvironment) {
    ASSERT_EQ(parse({{"STORAGE_PATH", "-"}}), 1);
    EXPECT_EQ(service().mSavePath, nullptr);
    EXPECT_TRUE(logged("(STORAGE_PATH) not found\n"));
    setenv("STORAGE_PATH", "/from/environment", 1);
    ASSERT_EQ(parse({{"STORAGE_PATH", "-"}}), 1);
    EXPECT_STREQ(service().mSavePath, "/from/environment");
    ASSERT_EQ(parse({{"STORAGE_PATH", ""}}), 1);
    EXPECT_STREQ(service().mSavePath, "") << "an empty value still wins over the environment";
}

TEST_F(ConfigTest, OversizedBoundIsCutWithOneReport) {
    ASSERT_EQ(parse({{"MAX_LOG_SIZE", "99999999999"}}), 1);
    EXPECT_EQ(service().mMaxLogSize, 4095);
    EXPECT_EQ(loggedTimes("MAX_LOG_SIZE"), 1);
}

TEST_F(ConfigTest, EnvironmentAndDefaultsWhenThereIsNoFile) {
    LogService& s = deferred();
    EXPECT_EQ(s.logConfigInit(), 2);
    EXPECT_TRUE(s.mKLogToUart && s.mALogToUart && s.mKLogOutput && s.mALogOutput);
    EXPECT_FALSE(s.mKLogToFile || s.mALogToFile || s.mFlushSwitch);
    EXPECT_EQ(s.mMaxLogSize, 10);
    EXPECT_EQ(s.mLogSectionSize, 65536u);
    EXPECT_EQ(s.mLogDeleteSize, 65536u);
    EXPECT_EQ(s.mKLogLevel, 7);
    EXPECT_STREQ(s.mALogLevel, "d");
    EXPECT_STREQ(s.mModuleCfg, "ALL_MODULE");
    EXPECT_STREQ(s.mFormatCfg, "brief");

    for (auto [name, value] : {std::pair{"UART_OUTPUT", "yes"},
                               {"NAND_FILE_OUTPUT", "y"},
                               {"MAX_LOG_SIZE", "2"},
                               {"LOG_SECTION_SIZE", "128"},
                               {"KLOG_LEVEL", "9"},
                               {"ALOG_LEVEL", "verbose"}})
        setenv(name, value, 1);
    s.logConfigInit();
    EXPECT_FALSE(s.mKLogToUart) << "only the whole word y switches on here";
    EXPECT_TRUE(s.mALogToFile);
    EXPECT_EQ(s.mMaxLogSize, 10);
    EXPECT_EQ(s.mLogSectionSize, 131072u);
    EXPECT_EQ(s.mLogDeleteSize, 131072u) << "follows the section size";
    EXPECT_EQ(s.mKLogLevel, 7);
    EXPECT_STREQ(s.mALogLevel, "v");
    setenv("LOG_SECTION_SIZE", "300", 1);
    s.logConfigInit();
    EXPECT_EQ(s.mLogSectionSize, 65536u);
}

TEST_F(ConfigTest, LookupFunctionsKeepTheirLimits) {
    LogService& s = deferred();
    char out[8] = {};
    int length = -1;
    EXPECT_EQ(s.getCfgStr("A=12345678\n", "A=", out, 5, &length), 0);
    EXPECT_STREQ(out, "12345");
    EXPECT_EQ(length, 5);
    EXPECT_EQ(s.getCfgStr("A=1\n", "B=", out, 5, &length), -1);
    EXPECT_EQ(length, 0);
    int value = 42;
    EXPECT_EQ(s.getCfgInt("A= 7x\n", "A=", &value, 0, 9, -1), 0);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(s.getCfgInt("A=99999999999999999999\n", "A=", &value, 0, 9, -1), -1);
    EXPECT_EQ(value, 7) << "nothing is stored without a fallback";
    EXPECT_EQ(s.getCfgInt("A=10\n", "A=", &value, 0, 9, 3), 0);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(s.getCfgInt("", "A=", &value, 0, 9, 3), -1);
    EXPECT_TRUE(logged("fail to parse [A=] not found \n"));
}

TEST_F(ConfigTest, DefaultsAreWrittenInFullAndReadOnly) {
    start(false, false);
    EXPECT_EQ(readFile(cfg),
              "UART_OUTPUT=y\nNAND_FILE_OUTPUT=n\nSAVE_FLUSH_SWITCH=n\nSTORAGE_PATH=" + root +
                  "\nSTORAGE_FULL=n\nMAX_LOG_SIZE=10\nLOG_SECTION_SIZE=64\nLOG_DELETE_SIZE=64\n"
                  "KLOG_OUTPUT=y\nKLOG_LEVEL=7\nALOG_OUTPUT=y\nALOG_LEVEL=d\n"
                  "ALOG_MODULE=ALL_MODULE\nALOG_FORMAT=brief\n\n");
    struct stat info;
    ASSERT_EQ(stat(cfg.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0333, 0111u) << "no write permission";
}

TEST_F(ConfigTest, WhatIsSavedIsReadBack) {
    std::string longTag(700, 't');
    for (const std::string& modules : {std::string("NONE_MODULE"), "first:w+second:i+" + longTag + ":v"}) {
        configure({{"ALOG_MODULE", modules}, {"ALOG_FORMAT", "threadtime"}, {"KLOG_LEVEL", "2"}});
        start(false, false);
        std::string saved = readFile(cfg);
        bool listed = modules != "NONE_MODULE";
        std::string line = listed ? longTag + ":v+second:i+first:w" : modules;
        EXPECT_NE(saved.find("\nALOG_MODULE=" + line + "\nALOG_FORMAT=threadtime\n\n"), std::string::npos)
            << saved;
        stop();
        start(false, false);
        EXPECT_EQ(service().mModuleMode, listed ? 2 : 1);
        EXPECT_EQ(service().mKLogLevel, 2);
        EXPECT_EQ(service().mLogFormat->printFormat, FORMAT_THREADTIME);
        stop();
    }
}

TEST_F(ConfigTest, FailedAndConcurrentSaves) {
    configure();
    start(false, false);
    faults.writeError = ENOSPC;
    EXPECT_EQ(service().logConfigSave(), -1);
    EXPECT_TRUE(logged("write error \n"));
    faults.writeError = 0;
    std::filesystem::remove(cfg);
    writeFile(cfg + "/in the way", "");
    EXPECT_EQ(service().logConfigSave(), -1);
    EXPECT_TRUE(logged("remove error: Directory not empty\n"));
    std::filesystem::remove_all(cfg);

    std::thread other([&] {
        for (int i = 0; i < 50; ++i)
            service().logConfigSave();
    });
    for (int i = 0; i < 50; ++i)
        service().logConfigSave();
    other.join();
    std::string saved = readFile(cfg);
    EXPECT_EQ(saved.find("UART_OUTPUT="), 0u);
    EXPECT_EQ(saved.find("UART_OUTPUT=", 1), std::string::npos) << "two saves were mixed";

    testing::internal::CaptureStdout();
    service().showLogCfg();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n\ncurrent log cfg:\n" + saved + "\n");
}

TEST_F(ConfigTest, SaveThatWasCutOffIsUndone) {
    configure({{"KLOG_LEVEL", "2"}, {"MAX_LOG_SIZE", "64"}});
    for (const char* left : {"", "UART_OUTPUT=y\nNAND_FILE"}) {
        std::filesystem::rename(cfg, cfg + ".unsaved");
        writeFile(cfg, left); // what a power cut may leave of the new file
        start(false, false);
        EXPECT_EQ(service().mMaxLogSize, 64);
        EXPECT_EQ(service().mKLogLevel, 2);
        EXPECT_TRUE(logged("was cut off, the settings from before it are used\n"));
        EXPECT_FALSE(exists(cfg + ".unsaved"));
        stop();
    }
}

TEST_F(ConfigTest, StartChoosesOwnFileThenEnvironmentThenBuiltInPath) {
    configure({{"KLOG_LEVEL", "4"}});
    std::string other = home + "/other.cfg";
    std::filesystem::rename(cfg, other);
    setenv("LOG_DEFAULT_CFG", other.c_str(), 1);
    start(false, false);
    EXPECT_EQ(service().mKLogLevel, 4);
    EXPECT_EQ(readFile(home + "/proc/sys/kernel/printk"), "4\n");
    stop();
    setenv("LOG_DEFAULT_CFG", "/no/such/file", 1);
    configure({{"KLOG_LEVEL", "5"}});
    start(false, false);
    EXPECT_EQ(service().mKLogLevel, 5) << "the own file comes first";
    stop();
    configure({{"KLOG_LEVEL", "6"}});
    makeFolder(home + "/system/etc/log_service");
    std::filesystem::rename(cfg, home + "/system/etc/log_service/log_default.cfg");
    std::filesystem::current_path(home);
    start(false, false);
    EXPECT_EQ(service().mKLogLevel, 6);
}
