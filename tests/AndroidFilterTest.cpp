#include "Fixture.h"

namespace {

class AndroidFilterTest : public ServiceTest {
  protected:
    /** Builds the filter from these words; the service is not started. */
    LogService& filter(const std::string& modules, const std::string& format = "brief", char level = 'd') {
        mModules = modules;
        mFormat = format;
        LogService& s = deferred();
        s.mModuleCfg = mModules.data();
        s.mFormatCfg = mFormat.data();
        s.mALogLevel[0] = level;
        EXPECT_EQ(s.logFilterInit(), 0);
        return s;
    }
    bool passes(const char* tag, android_LogPriority priority) {
        return service().androidLogShouldPrintLine(service().mLogFormat, tag, priority) == 1;
    }
    std::string rules() {
        std::string text;
        for (auto* rule = service().mLogFormat->rules; rule != nullptr; rule = rule->next)
            text += std::string(rule->tag) + ":" + service().filterPriToChar(rule->priority) + " ";
        return text;
    }

  private:
    std::string mModules, mFormat;
};

} // namespace

TEST_F(AndroidFilterTest, LibraryRecordHasTheLayoutReliedOn) {
    AndroidLogFormat_t* record = android_log_format_new();
    EXPECT_EQ(record->globalPriority, ANDROID_LOG_VERBOSE);
    EXPECT_EQ(record->rules, nullptr);
    EXPECT_EQ(record->printFormat, FORMAT_BRIEF);
    android_log_format_free(record);
}

TEST_F(AndroidFilterTest, AllModulesPassFromTheGlobalLevel) {
    filter("ALL_MODULE\r", "brief", 'w');
    EXPECT_EQ(service().mModuleMode, 0);
    EXPECT_TRUE(passes("any", ANDROID_LOG_WARN) && passes("other", ANDROID_LOG_FATAL));
    EXPECT_FALSE(passes("any", ANDROID_LOG_INFO));
}

TEST_F(AndroidFilterTest, NoModulePassesInModeNone) {
    filter("NONE_MODULE");
    EXPECT_EQ(service().mModuleMode, 1);
    EXPECT_FALSE(passes("any", ANDROID_LOG_FATAL));
    EXPECT_EQ(service().mLogFormat->globalPriority, ANDROID_LOG_SILENT);
}

TEST_F(AndroidFilterTest, ListedModulesPassByTheirNewestRule) {
    std::string longName(60, 'n');
    filter("Camera+Audio:i++bad:?+Camera:e+" + longName, "brief", 'd');
    EXPECT_EQ(rules(), longName + ":d Camera:e Audio:i Camera:d ");
    EXPECT_EQ(loggedTimes("alog add filter failed \n"), 2) << "the empty item and the unknown letter";
    EXPECT_TRUE(passes("Audio", ANDROID_LOG_INFO) && passes("stranger", ANDROID_LOG_ERROR));
    EXPECT_FALSE(passes("Audio", ANDROID_LOG_DEBUG) || passes("stranger", ANDROID_LOG_WARN) ||
                 passes("Camera", ANDROID_LOG_WARN) || passes("camera", ANDROID_LOG_WARN));

    LogService& s = service();
    EXPECT_EQ(s.androidLogDelFilterRule(s.mLogFormat, "Camera"), 0);
    EXPECT_TRUE(passes("Camera", ANDROID_LOG_DEBUG)) << "the older rule applies again";
    EXPECT_EQ(s.androidLogDelFilterRule(s.mLogFormat, "absent"), 0);
    EXPECT_EQ(s.androidLogDelFilterRule(s.mLogFormat, longName.c_str()), 0);
    EXPECT_EQ(s.androidLogDelFilterRule(s.mLogFormat, "Camera"), 0);
    EXPECT_EQ(rules(), "Audio:i ");
    s.androidLogClearAllFilterRule(s.mLogFormat);
    EXPECT_EQ(s.androidLogDelFilterRule(s.mLogFormat, "Audio"), -1);
}

TEST_F(AndroidFilterTest, RuleOfDefaultPriorityTakesTheGlobalOne) {
    filter("tag:w+*:i");
    service().mLogFormat->rules->priority = ANDROID_LOG_DEFAULT;
    EXPECT_TRUE(passes("tag", ANDROID_LOG_INFO));
    EXPECT_FALSE(passes("tag", ANDROID_LOG_DEBUG));
}

TEST_F(AndroidFilterTest, FormatWordsAndLetters) {
    LogService& s = filter("ALL_MODULE", "Brief");
    EXPECT_TRUE(logged("fail to set format init,format is :Brief\n"));
    EXPECT_EQ(s.mLogFormat->printFormat, FORMAT_BRIEF) << "the library's own format stays";
    const char* words[] = {"brief", "process", "tag", "thread", "raw", "time", "threadtime", "long"};
    for (int value = 1; value <= 8; ++value) {
        EXPECT_EQ(s.formatFromString(words[value - 1]), value);
        EXPECT_STREQ(s.formattostring(static_cast<AndroidLogPrintFormat>(value)), words[value - 1]);
        EXPECT_EQ(s.setLogFormat((std::string(words[value - 1]) + "s").c_str()), 0) << "the beginning counts";
        EXPECT_EQ(s.mLogFormat->printFormat, value);
    }
    EXPECT_EQ(s.setLogFormat("proc"), -1);
    EXPECT_EQ(s.mLogFormat->printFormat, FORMAT_LONG);
    EXPECT_EQ(s.formattostring(FORMAT_OFF), nullptr);
    std::string letters;
    for (int priority = 0; priority <= 9; ++priority)
        letters += s.filterPriToChar(static_cast<android_LogPriority>(priority));
    EXPECT_EQ(letters, "??vdiwefs?");
}

TEST_F(AndroidFilterTest, ConsoleLevelThatCannotBeSetStopsNothing) {
    std::remove((home + "/proc/sys/kernel/printk").c_str());
    filter("ALL_MODULE");
    EXPECT_TRUE(logged("fail to set the kernel log level,level is :7\n"));
    EXPECT_FALSE(exists(home + "/proc/sys/kernel/printk")) << "the file is never created";
}
