#include "Fixture.h"

#include "storage/Layout.h"

#include <csignal>
#include <dirent.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using ShellAndFilesTest = ServiceTest;

TEST_F(ShellAndFilesTest, CommandsAreJudgedByTheirExit) {
    LogService& s = deferred();
    EXPECT_EQ(s.shellexecute("rm -f %s/none", home.c_str()), 0);
    EXPECT_EQ(s.shellexecute("gzip -q %s/none 2>/dev/null", home.c_str()), -1);
    EXPECT_TRUE(logged("LogService/6: shellexecute run script fail,exit code:1\n"));
    EXPECT_EQ(s.shellexecute("kill -9 $$"), -1);
    EXPECT_TRUE(logged("shellexecute fork shell fail ,exit code:0\n"));
    std::string file = home + "/long";
    EXPECT_EQ(s.shellexecute(": > %s;%0300d", file.c_str(), 0), -1) << "cut at 255 characters, still run";
    EXPECT_TRUE(exists(file));
}

TEST_F(ShellAndFilesTest, CommandsEndWithTheService) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::string file = home + "/pid";
    pid_t child = fork();
    if (child == 0) {
        deferred().shellexecute("echo $$ > %s.new; mv %s.new %s; exec sleep 60", file.c_str(), file.c_str(),
                                file.c_str());
        _exit(0);
    }
    ASSERT_TRUE(eventually([&] { return exists(file); }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) != 0; })) << "the command lives on";
}

TEST_F(ShellAndFilesTest, EachUnwaitedCommandKeepsItsText) {
    LogService& s = deferred();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(s.shellexecNotwait(": > %s/f%d", home.c_str(), i), 0);
    EXPECT_TRUE(std::string(s.mNotwaitCmd).find("/f19") != std::string::npos);
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(eventually([&] { return exists(home + "/f" + std::to_string(i)); })) << i;
    faults.threadsUntilError = 0;
    EXPECT_EQ(s.shellexecNotwait("true"), -1);
    EXPECT_TRUE(logged("fail to shellexecNotwait prtread_create!\n"));
    char failing[] = "exit 3";
    EXPECT_EQ(LogService::shellexe(failing), nullptr);
    EXPECT_TRUE(logged("shellexe run script fail,exit code:3\n"));
}

TEST_F(ShellAndFilesTest, FoldersAndSizes) {
    LogService& s = deferred();
    std::string folder = home + "/folder";
    makeFolder(folder);
    EXPECT_EQ(s.checkDirEmpty(folder.c_str()), 1);
    EXPECT_EQ(s.getFolderSize(folder.c_str()), 0);
    writeFile(folder + "/.hidden", std::string(100, 'x'));
    EXPECT_EQ(s.checkDirEmpty(folder.c_str()), 0);
    EXPECT_EQ(s.checkDirEmpty((folder + "/.hidden").c_str()), -1);
    writeFile(folder + "/sub/large", std::string(100000, 'x'));
    uint32_t own = s.getFileSize((folder + "/sub").c_str());
    EXPECT_EQ(static_cast<uint32_t>(s.getFolderSize(folder.c_str())), 100 + own);
    EXPECT_EQ(s.getFolderSize("/no/such"), -1);
    EXPECT_EQ(s.getFileSize("/no/such"), 0u);
    EXPECT_EQ(s.getFileFreeSpace("/no/such"), 0u);
    EXPECT_TRUE(logged("getFileFreeSpace statvfs error"));
    faults.freeBytes = 5000000000;
    EXPECT_EQ(s.getFileFreeSpace(home.c_str()), 4294967295u) << "saturates instead of wrapping";
    faults.freeBytes = 12345;
    EXPECT_EQ(s.getFileFreeSpace(home.c_str()), 12345u);
}

TEST_F(ShellAndFilesTest, OnlyPlainPathsReachAShell) {
    for (const char* path : {"/media/flash/nvm", "relative/a-b_c.d", "/a/+,:@=%~#", "/\xc3\xbc"})
        EXPECT_TRUE(vnlog::shellSafe(path)) << path;
    for (const char* path :
         {"",      "/a b", "/a\tb", "/a\nb", "/a;b",  "/$x",  "/`x`", "/a*",  "-rf", "~/a", "/a'b",
          "/a\"b", "/a|b", "/a&b",  "/(a)",  "/a\\b", "/a<b", "/[a]", "/{a}", "#a",  "/a?"})
        EXPECT_FALSE(vnlog::shellSafe(path)) << path;
}
