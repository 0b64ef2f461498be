// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"

#include "binder/Commands.h"

#include <array>

using namespace vnlog;

namespace {

const char kUsage[] = R"(

logset useage:

logset   <cmd_type>               <cmd_param>
         UART_OUTPUT              y/n
         NAND_FILE_OUTPUT         y/n
         KLOG_OUTPUT              y/n
         KLOG_LEVEL               1~7
         ALOG_OUTPUT              y/n
         ALOG_LEVEL               v/d/i/w/e/f/s
         ALOG_MODULE              ALL_MODULE/NONE_MODULE
         ALOG_ADD_MODULE          <name>:<level>
         ALOG_DEL_MODULE          <name>
         ALOG_FORMAT              brief/process/tag/thread/raw/time/threadtime/long
         FLUSH_SWITCH             y/n
         STORAGE_PATH             <valid path>. e.g. /media/flash/nvm
         COPY                     <path>
         FLUSH
         SHOW

         KXXX:kernel AXXX:android

)";

/** A service whose flush is refused, after everybody else has come by if anybody can. */
struct HeldService : LogService {
    HeldService() : LogService(DeferStart{}) {}
    int flushLogBufAll() override {
        inFlush = true;
        for (int left = 200; left > 0 && !passed; --left)
            usleep(1000);
        overtaken = passed.load();
        return -1;
    }
    Flag inFlush{false}, passed{false}, overtaken{false};
};

class CommandTest : public ServiceTest {
  protected:
    CommandTest() {
        configure();
        catchConsole();
        fs::current_path(home);
        makeFolder("other");
    }
    /** The switches that are on: kernel and Android read, shown, stored; flush. */
    std::string switches() {
        const LogService& s = *held;
        const bool on[] = {s.mKLogOutput, s.mKLogToUart, s.mKLogToFile, s.mALogOutput,
                           s.mALogToUart, s.mALogToFile, s.mFlushSwitch};
        std::string text = "kufAUFs";
        for (size_t i = 0; i < text.size(); ++i)
            text[i] = on[i] ? text[i] : '-';
        return text;
    }
    const android::sp<HeldService> held = new HeldService;
};

/**
 * Commands, and what each changes: switches, the log that it clears and whose reader it wakes, settings. It
 * is saved and shown unless the last word says otherwise.
 */
constexpr char kSteps[] =
    "KLOG_LEVEL 5x KLOG_LEVEL=5,UART_OUTPUT y kufAUF- KLOG_LEVEL=7,KLOG_LEVEL 3 KLOG_LEVEL=3,"
    "UART_OUTPUT n k-fA-F- KLOG_LEVEL=1,UART_OUTPUT n,KLOG_OUTPUT y kufA-F- KLOG_LEVEL=3,"
    "KLOG_OUTPUT n ---A-F- KLOG_LEVEL=1,KLOG_OUTPUT n,KLOG_OUTPUT y kufA-F- kernel+ KLOG_LEVEL=3,"
    "ALOG_OUTPUT y kufAUF-,ALOG_OUTPUT n kuf----,NAND_FILE_OUTPUT n ku-----,"
    "ALOG_OUTPUT y ku-AUF- android+,NAND_FILE_OUTPUT y kufAUF-,ALOG_LEVEL warning ALOG_LEVEL=w,"
    "ALOG_ADD_MODULE a:d+b ALOG_MODULE=b:w+a:d,ALOG_ADD_MODULE x=y:d+c:s ALOG_MODULE=c:s+b:w+a:d,"
    "ALOG_DEL_MODULE b ALOG_MODULE=c:s+a:d,ALOG_MODULE NONE_MODULE ALOG_MODULE=NONE_MODULE,"
    "ALOG_DEL_MODULE a,ALOG_MODULE ALL_MODULE ALOG_MODULE=ALL_MODULE,ALOG_FORMAT long ALOG_FORMAT=long,"
    "ALOG_ADD_MODULE again:i ALOG_MODULE=again:i,STORAGE_PATH other STORAGE_PATH=other,"
    "FLUSH_SWITCH y kufAUFs SAVE_FLUSH_SWITCH=y,STORAGE_PATH used STORAGE_PATH=used,"
    "FLUSH_SWITCH n kufAUF- SAVE_FLUSH_SWITCH=n,COPY other silent,FLUSH ignored silent,SHOW ignored report,"
    // a console level, then a kernel log that cannot be reached
    "UART_OUTPUT n k-fA-F- KLOG_LEVEL=1,BREAK proc/sys/kernel/printk,UART_OUTPUT y kufA-F- refused,"
    "UART_OUTPUT n k-fA-F- refused,MEND proc/sys/kernel/printk,UART_OUTPUT y kufAUF- KLOG_LEVEL=3,"
    "BREAK proc/sys/kernel/printk,UART_OUTPUT n k-fAUF- refused,UART_OUTPUT y kufAUF- refused,"
    "KLOG_OUTPUT n ---AUF- refused,KLOG_OUTPUT y ku-AUF- kernel+ refused,KLOG_LEVEL 2 refused,"
    "MEND proc/sys/kernel/printk,KLOG_OUTPUT n ---AUF- KLOG_LEVEL=1,BREAK proc/kmsg,KLOG_OUTPUT y refused,"
    "MEND proc/kmsg,UART_OUTPUT yes usage,NAND_FILE_OUTPUT Y usage,KLOG_OUTPUT '' usage,KLOG_LEVEL 8 usage,"
    "ALOG_OUTPUT '' usage,ALOG_LEVEL x usage,ALOG_MODULE ALL_MODULES usage,ALOG_FORMAT Brief usage,"
    "FLUSH_SWITCH on usage,STORAGE_PATH none report,"
    "STORAGE_PATH a;touch${IFS}trapped report,COPY none silent,COPY a;touch${IFS}trapped silent";

} // namespace

TEST_F(CommandTest, EachDoesItsOwnAndNothingElse) {
    plugDevices();
    const FileDescriptor kernel = openFile("proc/kmsg", O_RDWR | O_NONBLOCK);
    writeFile("used/log_service/current/log_1.txt", "text");
    ASSERT_EQ(held->serviceStart(std::array<bool, 3>{}.data()), 0);
    held->mTotalLogSize = held->mHeadFolderNum = held->mTailFolderNum = 9; // of the first root
    held->logCMD(-1, nullptr);
    const std::string usage = console();
    EXPECT_EQ(usage, kUsage);
    std::istringstream steps(kSteps);
    for (std::string step, name, param, line; std::getline(steps, step, ',');) {
        SCOPED_TRACE(step);
        std::istringstream(step) >> name >> param;
        if (name == "BREAK" || name == "MEND") {
            name == "BREAK" ? fs::rename(param, "aside") : fs::rename("aside", param);
            continue;
        }
        ASSERT_EQ(write(kernel.get(), "<3>old\n", 7), 7);
        entry("main", 1, 0, 4, "tag", "old");
        ASSERT_TRUE(eventually([&] { return readable(); }));
        const std::string before = "\n" + readFile(cfg), on = switches(), shown = console();
        const timespec long_ago[2] = {{1, 0}, {1, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, cfg.c_str(), long_ago, 0), 0);
        int result = held->logCMD(findCommand(name.c_str())->code, param == "''" ? "" : param.c_str());
        std::string seen = name + " " + param + (switches() != on ? " " + switches() : "");
        char text[64];
        if (read(kernel.get(), text, sizeof text) < 0)
            seen += sem_trywait(&held->mKLogSem) == 0 ? " kernel+" : " kernel";
        if (!readable())
            seen += sem_trywait(&held->mALogSem) == 0 ? " android+" : " android";
        for (std::istringstream lines(readFile(cfg)); std::getline(lines, line);)
            if (line.find("_OUTPUT=") > line.size() && before.find("\n" + line + "\n") > before.size())
                seen += " " + line; // the outputs have been seen as switches
        struct stat info {};
        const bool saved = stat(cfg.c_str(), &info) == 0 && info.st_mtime != 1;
        const std::string report = "\n\ncurrent log cfg:\n" + readFile(cfg) + "\n";
        const std::map<std::string, std::string> answers{
            {"", " silent"}, {report, saved ? "" : " report"}, {usage + report, " usage"}};
        std::string answer = result != 0 ? " refused" : answers.at(console().substr(shown.size()));
        EXPECT_EQ(seen + answer, step);
        EXPECT_EQ(saved, answer.empty());
        EXPECT_TRUE(result != 0 || std::stoi(readFile("proc/sys/kernel/printk")) == held->mKLogLevel);
    }
    EXPECT_EQ(loggedTimes("error: Please turn off the storage function\n"), 1);
    EXPECT_EQ(readFile("other/log_storage.dat") + readFile("used/log_storage.dat"),
              "TOTAL_LOG_SIZE=0\nHEAD_FOLDER_NUM=0\nTAIL_FOLDER_NUM=0\nOLDEST_FILE_NUM=1\nTOTAL_LOG_SIZE=" +
                  std::to_string(storedArchiveBytes("used/log_service")) +
                  "\nHEAD_FOLDER_NUM=1\nTAIL_FOLDER_NUM=1\nOLDEST_FILE_NUM=1\n");
    EXPECT_TRUE(readGzip("used/log_service/last_1/log_1.txt.gz") == "text" && !exists("trapped"));
    faults.writeError = ENOSPC;
    EXPECT_EQ(held->logCMD(CMD_FLUSH_SWITCH, "y"), -1);
    EXPECT_EQ(held->serviceStop(std::array<bool, 3>{}.data()), 0);
    EXPECT_EQ(held->logCMD(CMD_SHOW, nullptr) + held->logCMD(CMD_FLUSH_SWITCH, "n"), -2);
}

TEST_F(CommandTest, CommandsSavesAndStopsWaitForEachOther) {
    HeldService& s = *held;
    const bool flags[] = {true, false, false};
    ASSERT_EQ(s.serviceStart(flags), 0);
    for (int other = 0; other < 3; ++other) {
        s.inFlush = s.passed = false;
        std::thread command([&] { s.logCMD(CMD_FLUSH, nullptr); });
        EXPECT_TRUE(eventually([&] { return s.inFlush.load(); }));
        EXPECT_EQ(other > 1 ? s.serviceStop(flags) : other > 0 ? s.logConfigSave() : s.logCMD(16, ""), 0);
        s.passed = true;
        command.join();
        EXPECT_FALSE(s.overtaken) << other;
    }
}
