// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"

#include "config/Check.h"
#include "config/Settings.h"

using namespace vnlog;

namespace {

using Texts = std::vector<std::string>;

/**
 * All settings as log.cfg has them: in the file of these tests, and by default. Then what becomes of values:
 * "read>written", "read!" for one that ends the parsing; "-" for a file without the key, and values of
 * the environment with a "$".
 */
struct Key {
    const char *name, *value, *byDefault, *cases;
};
constexpr Key kKeys[] = {
    {"UART_OUTPUT", "n", "y", "y>y,yes>y,Y>n, y>n,->n,$n>n,$y>y,$yes>n"},
    {"NAND_FILE_OUTPUT", "y", "n", "yes>y,n>n,->n,n\nSTORAGE_FULL=y>y,$y>y,$yes>n"},
    {"SAVE_FLUSH_SWITCH", "y", "n", "n>n,>n,->n,$y>y,$Y>n"},
    {"STORAGE_PATH", "/the/root", "/the/root", ">,->/from/environment,$/other>/the/root"},
    {"STORAGE_FULL", "n", "n", "y>n,->n,$y>n,n MAX_LOG_SIZE=x!"},
    {"MAX_LOG_SIZE", "12", "10", "1>1,4096>4095,99999999999>4095,-5!,-!,$2>10,$3>3,$x>10"},
    {"LOG_SECTION_SIZE", "128", "64", "64>64,256>256,63!,257!,4294967424!,-!,$63>64,$65>65,$257>64"},
    {"LOG_DELETE_SIZE", "256", "64", "128>128,6144>6144,127!,6145!,-!,$128>64"},
    {"KLOG_OUTPUT", "n", "y", "y\n#KLOG_LEVEL=1\n KLOG_LEVEL=2\n>y,Y>n,->n,$n>n,$yes>n"},
    {"KLOG_LEVEL", "3", "7", "1\r>1,7x>7, 5\nKLOG_LEVEL=6>5,0!,8!,-!,$0>7,$1>1,$6>6,$8>7"},
    {"ALOG_OUTPUT", "n", "y", "yes>y,->n,$n>n,$yes>n"},
    {"ALOG_LEVEL", "w", "d", "v>v,warn>war,x!,!,-!,$verbose>v,$x>d"},
    {"ALOG_MODULE", "a:d", "ALL_MODULE", "NONE_MODULE>NONE_MODULE,b>b:w,-!,$a:w>a:w"},
    {"ALOG_FORMAT", "tag", "brief", "long>long,-!,$raw>raw"},
    {"FLUSH_INTERVAL", "-", "-", "0>0,3600>3600,3601>-,-1>-,soon>-,$5>-"},
    {"FLUSH_PRIORITY", "-", "-", "v>v,warn>w,s>s,x>-,>-,$w>-"},
    {"KLOG_PSTORE", "-", "-", "y>y,no>n,N>-,$n>-"},
    {"KLOG_PREFIX", "-", "-", "y>y,n>n,Y>-,$y>-"},
};
enum { UART, NAND, ROOT = 3, BOUND = 5, SECTION_SIZE, DELETE_SIZE, LEVEL = 9, MODULE = 12, FORMAT, LAST };

/** The file with these values; without the key for "-". */
std::string fileOf(const Texts& values) {
    std::string text;
    for (size_t i = 0; i < values.size(); ++i)
        text += values[i] == "-" ? "" : kKeys[i].name + ("=" + values[i]) + "\n";
    return text + "\n";
}

/** The settings with all that they need. */
struct Parts {
    explicit Parts(const std::string& cfg) { cfg.copy(state.mCfgPath, sizeof state.mCfgPath - 1); }
    ~Parts() { std::free(state.mSavePath); }
    /** Saves what was read. */
    bool save() VNLOG_REQUIRES(CommandLock::role) {
        return filter.build(state.mFormatCfg, state.mModuleCfg, state.mALogLevel) && settings.save();
    }
    ServiceState state;
    Mutex<StorageLock> storageLock;
    Filter filter{state};
    Settings settings{state, storageLock, filter};
};

class SettingsTest : public ServiceTest {
  protected:
    SettingsTest() {
        for (const Key& key : kKeys) {
            usual.emplace_back(key.value);
            defaults.emplace_back(key.byDefault);
        }
    }
    Texts usual, defaults; ///< columns of the table
    Mutex<CommandLock> commands;
};

} // namespace

TEST_F(SettingsTest, ValuesOfFileAndEnvironment) {
    LockGuard<CommandLock> lock(commands);
    setenv("STORAGE_PATH", "/from/environment", 1);
    for (size_t i = 0; i < std::size(kKeys); ++i) {
        std::istringstream cases(kKeys[i].cases);
        for (std::string one; std::getline(cases, one, ',');) {
            SCOPED_TRACE(kKeys[i].name + ("=" + one));
            const size_t sign = one.find_first_of(">!");
            const bool inFile = one[0] != '$', parsed = one[sign] == '>';
            const std::string rest = one.substr(sign + 1);
            Texts file = usual, expected = inFile && parsed ? usual : defaults;
            if (parsed)
                expected[i] = rest;
            if (inFile)
                file[i] = one.substr(0, sign);
            else {
                setenv(kKeys[i].name, one.substr(1, sign - 1).c_str(), 1);
                expected[DELETE_SIZE] = expected[SECTION_SIZE];
            }
            writeFile(cfg, fileOf(file));
            Parts parts(cfg);
            EXPECT_EQ(parts.settings.parse(cfg.c_str()), parsed);
            const ServiceState& s = parts.state;
            EXPECT_TRUE(s.mKLogToUart == s.mALogToUart && s.mKLogToFile == s.mALogToFile);
            if (!inFile || !parsed)
                parts.settings.takeDefaults();
            EXPECT_TRUE(parts.save());
            EXPECT_EQ(readFile(cfg), fileOf(expected));
            if (!inFile)
                unsetenv(kKeys[i].name);
        }
    }
}

TEST_F(SettingsTest, LongTextsAndEitherOfTwoFlagsAreWrittenAndReadBack) {
    LockGuard<CommandLock> lock(commands);
    for (unsigned on = 0; on < 16; ++on) {
        Texts values = usual;
        values[UART] = (on & 3) != 0 ? "y" : "n";
        values[NAND] = (on & 12) != 0 ? "y" : "n";
        values[ROOT] = std::string(127, '/');
        for (const char* rule : {"+1", "+2", "+3", "+4"})
            values[MODULE] += rule + std::string(75 * on, 't') + ":w";
        writeFile(cfg, fileOf(values));
        Parts parts(cfg);
        ASSERT_TRUE(parts.settings.parse(cfg.c_str()));
        parts.state.mKLogToUart = (on & 1) != 0; // either is enough
        parts.state.mALogToUart = (on & 2) != 0;
        parts.state.mKLogToFile = (on & 4) != 0;
        parts.state.mALogToFile = (on & 8) != 0;
        ASSERT_TRUE(parts.save());
        ASSERT_EQ(readFile(cfg), fileOf(values));
    }
}

TEST_F(SettingsTest, SaveIsSafeOnTheMediumOrLeavesTheOldFile) {
    LockGuard<CommandLock> lock(commands);
    Parts parts(cfg);
    writeFile(cfg, fileOf(usual));
    parts.settings.load();
    ASSERT_TRUE(parts.save());
    const std::string draft = cfg + ".new", older = readFile(cfg);
    parts.state.mKLogLevel = 5;
    auto saves = [&](int error = 0, int errors = 0) { // the writes that fail
        faults.writeError = error;
        faults.writeErrors = errors;
        return parts.settings.save();
    };
    writeFile(draft, "cut off");
    EXPECT_FALSE(saves(EIO, 9));
    EXPECT_FALSE(saves(ENOSPC, 2)) << "but there is room for the old one again";
    faults.stepsUntilError = 0;
    EXPECT_FALSE(saves());
    EXPECT_TRUE(readFile(cfg) == older && !exists(draft) && loggedTimes("write error \n") == 3);
    makeFolder(draft + "/in the way");
    EXPECT_TRUE(!saves() && readFile(cfg) == older && logged("remove error: Directory not empty\n"));
    fs::remove_all(draft);
    EXPECT_TRUE(saves());
    EXPECT_EQ(fs::status(cfg).permissions() & fs::perms{0722}, fs::perms{0500}) << "written by nobody";
    EXPECT_NE(readFile(cfg).find("\nKLOG_LEVEL=5\n"), std::string::npos);
    parts.state.mKLogLevel = 6;
    EXPECT_TRUE(saves(EDQUOT, 1));
    EXPECT_NE(readFile(cfg).find("\nKLOG_LEVEL=6\n"), std::string::npos) << "in place";
    EXPECT_FALSE(saves(ENOSPC, 9));
    EXPECT_TRUE(!exists(cfg) && !exists(draft) && logged("log.cfg any more, and none is left\n"));
    makeFolder(cfg + "/in the way");
    EXPECT_TRUE(!saves() && !exists(draft) && logged("remove error: Is a directory\n"));
}

TEST_F(SettingsTest, StartTakesEachValueFromTheFirstFileInWhichItIsGood) {
    LockGuard<CommandLock> lock(commands);
    const std::string other = home + "/other.cfg", aside = cfg + ".unsaved", rejected = cfg + ".rejected";
    setenv("LOG_DEFAULT_CFG", other.c_str(), 1);
    auto with = [&](const char* level, const char* path) {
        Texts values = usual;
        values[LEVEL] = level;
        values[ROOT] = path;
        return fileOf(values);
    };
    const std::string broken = with("x", "/broken"), huge = with("2", "/two") + std::string(1 << 20, '#');
    const struct {
        std::string own, aside, other;
        int level;
        const char* root;
    } cases[] = {
        {with("2", "/two"), with("3", "/three"), with("4", "/four"), 2, "/two"},
        {"", with("3", "/three"), with("4", "/four"), 3, "/three"},
        {broken, with("3", "/three"), with("4", "/four"), 3, "/broken"},
        {broken, broken, with("4", "/four"), 4, "/broken"},
        {with("2", "-"), "-", with("4", "/four"), 2, "/four"},
        {broken, "-", "-", 7, "/broken"},
        {"pipe", "-", with("4", "/four"), 4, "/four"},
        {"link", "-", with("4", "/four"), 4, "/four"},
        {huge, "-", with("4", "/four"), 4, "/four"},
        {"-", "-", "pipe", 7, nullptr},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        fs::remove(rejected);
        for (auto& [path, text] : {std::pair(cfg, c.own), {aside, c.aside}, {other, c.other}}) {
            fs::remove(path);
            if (text == "link")
                fs::create_symlink(other, path);
            else if (text == "pipe")
                mkfifo(path.c_str(), 0600);
            else if (text != "-")
                writeFile(path, text);
        }
        Parts parts(cfg);
        parts.settings.load();
        EXPECT_EQ(parts.state.mKLogLevel, c.level);
        EXPECT_STREQ(parts.state.mSavePath, c.root);
        EXPECT_TRUE(parts.save() && !exists(aside));
        const bool whole = c.own == "-" || c.own.empty() || c.own == with("2", "/two");
        EXPECT_TRUE(exists(rejected) != whole && (c.own != broken || readFile(rejected) == broken));
    }
    EXPECT_TRUE(logged(cfg + " line 10: KLOG_LEVEL=x is not in 1 to 7, 7 is used\n"));
    EXPECT_TRUE(logged(cfg + ": STORAGE_PATH is missing, /four is used\n"));
}

TEST_F(SettingsTest, CheckTellsEveryFindingAndABadValueCostsItsKeyOnly) {
    setenv("KLOG_LEVEL", "5", 1); // for what is not good in the file
    setenv("MAX_LOG_SIZE", "99", 1);
    auto check = [&](const Texts& values) {
        writeFile(cfg, fileOf(values));
        char text[8192] = {};
        Stream out(fmemopen(text, sizeof text, "w"));
        const int checked = static_cast<int>(checkConfiguration(cfg.c_str(), out.get()));
        out.reset();
        return std::to_string(checked) + text;
    };
    const struct {
        size_t key;
        const char *value, *expected, *used;
    } cases[] = {
        {UART, "Y", "y or n", "n"},
        {UART, "-", "", "n"},
        {ROOT, "", "a path that can be a storage root", "/media/flash/nvm"},
        {BOUND, "0", "in 1 to 4095", "99"},
        {BOUND, "5000", "in 1 to 4095", "4095"},
        {SECTION_SIZE, "70k", "in 64 to 256", "70"},
        {DELETE_SIZE, "9999", "in 128 to 6144", "6144"},
        {LEVEL, "9", "in 1 to 7", "5"},
        {MODULE, ":d", "a list of modules", "ALL_MODULE"},
        {FORMAT, "br", "a line format", "brief"},
        {LAST, "soon", "in 0 to 3600", "30"},
    };
    for (auto& c : cases) {
        const std::string name = kKeys[c.key].name, line = ":" + std::to_string(c.key + 1) + ": ";
        const std::string wrong = line + name + "=" + c.value + " is not " + c.expected;
        Texts file = usual, used = usual;
        std::copy_n(Texts{"30", "f", "y", "n"}.begin(), 4, used.begin() + LAST);
        file[c.key] = c.value;
        used[c.key] = c.used;
        std::string told = "2" + cfg + (*c.value != '-' ? wrong : ": " + name + " is missing");
        told += std::string(", ") + c.used + " is used\n" + cfg + ": a start uses";
        for (size_t i = 0; i < used.size(); ++i)
            told += std::string(" ") + kKeys[i].name + "=" + used[i];
        EXPECT_EQ(check(file), told + "\n");
    }
    EXPECT_TRUE(check(usual)[0] == '0' && check({})[0] == '1');
    usual[LEVEL] = "3\nKLOG_LEVLE=2\n# comment\nOLD_ALOG_LEVEL=q\nKLOG_LEVEL=4\nsave flush_switch\nx=";
    usual[MODULE] = "a:d+b:?";
    const std::string told = check(usual);
    for (const char* one : {":11: unknown key KLOG_LEVLE, did you mean KLOG_LEVEL?\n",
                            ":13: ALOG_LEVEL=q is not one of v, d, i, w, e, f and s, d is used\n",
                            ":13: ALOG_LEVEL is found inside this line and taken from there\n",
                            ":14: KLOG_LEVEL is found in line 10 already, this line does not count\n",
                            ":15: there is no \"=\" in save flush_switch, did you mean SAVE_FLUSH_SWITCH?\n",
                            ":18: ALOG_LEVEL is found in line 13 already, this line does not count\n",
                            ":19: ALOG_MODULE=a:d+b:? has items that are no rules, the others are used\n"})
        EXPECT_NE(told.find(cfg + one), std::string::npos) << told;
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 9);
}

TEST_F(SettingsTest, WhatIsLeftOfADamagedFileMakesAWholeOne) {
    LockGuard<CommandLock> lock(commands);
    const std::string whole = fileOf(usual);
    for (size_t i = 0; i < 2 * whole.size(); i += 7) { // cut off, or a byte is zero
        const bool zero = i >= whole.size();
        const size_t at = i % whole.size(), hit = at - whole.find("MAX_LOG_SIZE");
        writeFile(cfg, whole.substr(0, at) + (zero ? '\0' + whole.substr(at + 1) : ""));
        Parts parts(cfg), after(cfg);
        parts.settings.load();
        parts.settings.setOptional("KLOG_PSTORE=");
        ASSERT_TRUE(parts.save() && after.settings.parse(cfg.c_str())) << i;
        EXPECT_NE(readFile(cfg).find("\nKLOG_PSTORE=y\n"), std::string::npos);
        EXPECT_TRUE(!zero || hit < 15 || parts.state.mMaxLogSize == 12) << i << " costs one key";
    }
}
