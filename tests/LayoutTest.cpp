// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"

#include "base/Files.h"
#include "platform/sysroot/SystemRoot.h"
#include "storage/Layout.h"
#include "storage/Shell.h"

using namespace vnlog;

using LayoutTest = FolderTest;
using ShellTest = FolderTest;

TEST_F(LayoutTest, NamesAreParsedOnlyAsTheyAreBuilt) {
    const std::vector<std::pair<NameKind, const char*>> names = {
        {NameKind::Current, "current"},
        {NameKind::Run, "last_0 last_10 last_999999998"},
        {NameKind::PlainText, "log_0.txt log_4294.txt"},
        {NameKind::Archive, "log_1.txt.gz log_999999998.txt.gz"},
        {NameKind::OlderText, "log.txt"},
        {NameKind::OlderArchive, "log.txt.gz"},
        {NameKind::OtherText, "x.txt log_01.txt .txt log_.txt log_1.txt.txt a.gz.txt log_999999999.txt"},
        {NameKind::Draft, "log_1.txt.gz.new log.txt.gz.new"},
        {NameKind::Foreign, "log_1.txt.new x.txt.gz.new .new current2 last_ last_x last_1x last_01 last_-1 "
                            "last_+1 xlast_1 last_999999999 "
                            "last_4294967297 last_1.stray log_1 log_1.gz log_.txt.gz log_1.txt.gz2 "
                            "log_01.txt.gz log_999999999.txt.gz log_1.txtx txt log_storage.dat"}};
    for (auto& [kind, text] : names) {
        std::istringstream words(text);
        for (std::string name; words >> name;) {
            EXPECT_EQ(parseName(name.c_str()).kind, kind) << name;
            std::string archive = sectionArchive("", parseName(name.c_str()).number).text;
            EXPECT_TRUE(kind != NameKind::Archive || archive == "/" + name) << archive;
        }
    }
}

TEST_F(LayoutTest, OnlyPlainPathsAreRoots) {
    for (const char* path : {"/media/flash/nvm", "relative/a-b_c.d", "/a/+,:@%~#", "/\xc3\xbc", "/"})
        EXPECT_TRUE(shellSafe(path) && usableRoot(path)) << path;
    for (char c : std::string(" \t\n;$`*'\"|&()\\<>[]{}?!^\x7f\x01"))
        EXPECT_FALSE(shellSafe((std::string("/a") + c + "b").c_str())) << c;
    for (const char* path : {"", "-rf", "~/a", "#a"})
        EXPECT_FALSE(shellSafe(path) || usableRoot(path)) << path;
    EXPECT_TRUE(shellSafe("/a=b") && !usableRoot("/a=b"));
    EXPECT_TRUE(usableRoot(std::string(99, 'r').c_str()) && !usableRoot(std::string(100, 'r').c_str()));
}

TEST_F(LayoutTest, SizesCountEachEntryOnce) {
    writeFile(home + "/f/.hidden", std::string(100, 'x'));
    fs::create_symlink(".hidden", home + "/f/link");
    uint32_t size = 1;
    EXPECT_TRUE(folderSize((home + "/f").c_str(), &size) && size == 200) << "links are followed";
    EXPECT_TRUE(!folderSize("/none", &size) && size == 0 && fileSize("/none") == 0);
    faults.freeBytes = 5000000000;
    EXPECT_TRUE(freeSpace(home.c_str()) == 4294967295 && freeSpace("/none") == 0);
}

TEST_F(ShellTest, CommandsAreJudgedByTheirExit) {
    EXPECT_TRUE(vnlog::runCommand("rm -f %s/none", home.c_str()));
    EXPECT_FALSE(vnlog::runCommand("exit 1") || vnlog::runCommand("kill -9 $$"));
    EXPECT_TRUE(logged("run script fail,exit code:1\n") && logged("fork shell fail ,exit code:0\n"));
    EXPECT_FALSE(vnlog::runCommand(": > %s/long;%0300d 2>&1", home.c_str(), 0)) << "cut at 255 characters";
    EXPECT_TRUE(exists(home + "/long"));
}

TEST_F(LayoutTest, AMachineIsToldFromADevice) {
    const struct {
        bool machine;
        const char* paths; ///< a folder ends in "/", a link in "@", one to a folder in "@/"; others are files
    } rows[] = {{false, ""},
                {false, "var/log/"},
                {false, "var/log/vnlog"},
                {false, "var/log/vnlog@"},
                {false, "var/log/vnlog2/ var/log/vnlo/"},
                {true, "var/log/vnlog/"},
                {true, "var/log/vnlog@/"},
                {true, "var/log/vnlog/ media/flash/ dev/log_system dev/log_mai"},
                {true, "var/log/vnlog/ media dev"},
                {false, "var/log/vnlog/ media/flash/nvm/"},
                {false, "var/log/vnlog/ media/flash/nvm@"},
                {false, "var/log/vnlog/ dev/log_main"},
                {false, "var/log/vnlog/ dev/log_main@"}};
    for (const auto& row : rows) {
        for (const char* name : {"media", "var", "dev"})
            fs::remove_all(home + "/" + name);
        std::istringstream paths(row.paths);
        for (std::string path; paths >> path;) {
            const std::string place = home + "/" + path.substr(0, path.find_last_not_of("@/") + 1);
            fs::create_directories(fs::path(place).parent_path());
            if (path.find('@') != std::string::npos)
                fs::create_symlink(path.back() == '/' ? home : home + "/none", place);
            else if (path.back() == '/')
                fs::create_directories(place);
            else
                writeFile(place, "");
        }
        platform::SystemRoot found;
        EXPECT_TRUE(found.read());
        EXPECT_EQ(found.onMachine, row.machine) << row.paths;
        EXPECT_STREQ(found.places().storageRoot, row.machine ? "/var/log/vnlog" : "/media/flash/nvm");
    }
}
