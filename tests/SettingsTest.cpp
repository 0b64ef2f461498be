#include "Fixture.h"

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
};
enum { UART, NAND, ROOT = 3, SECTION_SIZE = 6, DELETE_SIZE, LEVEL = 9, MODULE = 12 };

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
        for (int times = 0; times < 2; ++times) { // rules are written the newest first
            Parts parts(cfg);
            ASSERT_TRUE(parts.settings.parse(cfg.c_str()));
            parts.state.mKLogToUart = (on & 1) != 0; // either is enough
            parts.state.mALogToUart = (on & 2) != 0;
            parts.state.mKLogToFile = (on & 4) != 0;
            parts.state.mALogToFile = (on & 8) != 0;
            ASSERT_TRUE(parts.save());
        }
        ASSERT_EQ(readFile(cfg), fileOf(values));
    }
}

TEST_F(SettingsTest, SaveIsSafeOnTheMediumOrLeavesTheOldFile) {
    LockGuard<CommandLock> lock(commands);
    Parts parts(cfg);
    writeFile(cfg, fileOf(usual));
    ASSERT_TRUE(parts.settings.load() && parts.save());
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

TEST_F(SettingsTest, StartTakesTheFirstFileThatIsUsable) {
    LockGuard<CommandLock> lock(commands);
    const std::string other = home + "/other.cfg", aside = cfg + ".unsaved";
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
        int level; // that is read, 0 for none
        const char* root;
    } cases[] = {
        {with("2", "/two"), with("3", "/three"), with("4", "/four"), 2, "/two"},
        {"", with("3", "/three"), with("4", "/four"), 3, "/three"},
        {"-", with("3", "/three"), with("4", "/four"), 3, "/three"},
        {broken, broken, with("4", "/four"), 4, "/four"},
        {broken, "-", with("4", "-"), 4, ""}, // nothing of the broken one
        {broken, "-", "-", 0, "/broken"},
        {"pipe", "-", with("4", "/four"), 4, "/four"},
        {"link", "-", with("4", "/four"), 4, "/four"},
        {huge, "-", with("4", "/four"), 4, "/four"},
        {"-", "-", "pipe", 0, ""},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(&c - cases);
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
        EXPECT_EQ(parts.settings.load(), c.level != 0);
        EXPECT_TRUE(c.level == 0 || parts.state.mKLogLevel == c.level) << parts.state.mKLogLevel;
        const char* path = parts.state.mSavePath;
        EXPECT_EQ(std::string(path != nullptr ? path : ""), c.root);
        EXPECT_FALSE(exists(aside));
    }
}
