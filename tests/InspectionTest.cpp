// SPDX-License-Identifier: Apache-2.0
#include "reader/Inspection.h"
#include "StoreParts.h"
#include "storage/ProcessFileWork.h"

#include <sys/resource.h>
#include <sys/wait.h>

using namespace vnlog;

namespace {

/** What is below a folder, but for what bundles add. */
std::string treeOf(const std::string& folder, const char* times = "") {
    std::string none =
        "find . -path ./unpacked -prune -o ! -name status.txt ! -name SHA256SUMS -printf '%P %y ";
    return runCommand("cd " + folder + " && " + none + times + "\\n' -type f -exec sha256sum {} + | sort");
}

/** A store that is made by hand: three archived runs and one that was not closed off. */
class InspectionTest : public FolderTest {
  protected:
    InspectionTest() { setenv("TMPDIR", (makeFolder(home + "/unpacked"), home + "/unpacked").c_str(), 1); }
    ~InspectionTest() override { unsetenv("TMPDIR"); }
    /** Runs a command of the shell in the storage root, with the log folder as $L. */
    void in(const std::string& command) {
        EXPECT_EQ(runCommand("cd " + root + " && L=log_service; exec 2>&1; " + command), "") << command;
    }
    void makeStore() {
        fs::remove_all(root);
        for (const char* section : {"last_1/log_1", "last_1/log_2", "last_2/log_1", "last_3/log_1",
                                    "current/log_1", "current/log_2"}) {
            std::string text = logs + "/" + section + ".txt";
            writeFile(text, std::string("11-23 14:40:55.123 I/tag ( 1): ") + section + "\n");
            EXPECT_TRUE(text == logs + "/current/log_2.txt" || work.compress(text.c_str(), {}));
        }
        in("echo run=3 event=archived how=stopped archived=3 >$L/runs.txt; t=$(cat $L/last*/* | wc -c); "
           "printf 'TOTAL_LOG_SIZE=%d\\nHEAD_FOLDER_NUM=3\\nTAIL_FOLDER_NUM=1\\nOLDEST_FILE_NUM=1\\n' $t "
           ">log_storage.dat");
    }
    std::string verify(uint32_t* findings) {
        StoreFolder folder;
        FileDescriptor file = openFile((home + "/report").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        TextOut out(file.get());
        *findings = folder.open(root.c_str()) ? verifyStore(folder, out) : 99;
        return out.flush() ? readFile(home + "/report") : "";
    }
    bool bundle(const std::string& file) {
        StoreFolder folder;
        BundleTotals totals;
        return folder.open(root.c_str()) &&
               writeBundle(folder, cfg, {{"status.txt", "well\n"}}, file, &totals, &error);
    }

    ProcessFileWork work;
    std::string target = home + "/bundle.tar.gz", error;
};

// What is done to a store, how many findings that gives (where sizes change, the bookkeeping is one), what is
// said.
const std::tuple<const char*, uint32_t, const char*> kStates[] = {
    {"true", 0, "note: current/log_2.txt is where the last run ended"},
    {"rm $L/last_1/log_1.txt.gz", 1, ", tail 1, oldest 2; the next start will take what the folders say"},
    {"rm log_storage.dat; touch $L/last_2/log_3.txt.gz.new $L/runs.txt.new", 0, "log_3.txt.gz.new was not"},
    {"truncate -s 9 log_storage.dat", 1, "log_storage.dat is damaged"},
    {"truncate -s 40 $L/last_1/log_2.txt.gz", 2, "last_1/log_2.txt.gz is damaged behind its first 40"},
    {"f=$L/last_1/log_2.txt.gz; truncate -s -4 $f; printf zero >>$f", 1, "log_2.txt.gz is damaged behind"},
    {"printf '\\0' >>$L/last_1/log_2.txt.gz", 2, "last_1/log_2.txt.gz has something behind its end"},
    {"printf x | dd of=$L/last_1/log_2.txt.gz bs=1 seek=51 conv=notrunc 2>&-", 1, "has damaged facts"},
    {"rm -r $L/last_2", 2, "run 2 is missing"},
    {"mv $L/last_3/log_1.txt.gz $L/last_3/log_4.txt.gz", 1, "last_3: sections 1 to 3 are missing"},
    {"zcat $L/last_1/log_2.txt.gz >$L/last_1/log_2.txt", 2, "will remove the text"},
    {"f=$L/last_1/log_2.txt; zcat $f.gz >$f; echo more >>$f", 2, "compress the text in the archive's place"},
    {"echo other >$L/last_1/log_2.txt", 2, "becomes a section of the next free number"},
    {"gunzip $L/last_2/log_1.txt.gz", 2, "log_1.txt is not compressed; the next start will compress it"},
    {"mkdir $L/last_4 $L/last_5; touch $L/last_5/mine", 4, "last_4 is empty; the next start will remove it"},
    {"echo old >$L/last_1/log.txt", 2, "last_1/log.txt is a log of an older form"},
    {"ln -s log_1.txt.gz $L/last_1/log_9.txt.gz; touch \"$L/odd\n\"", 3, "odd\\x0a has no name of the"},
    {"mkdir $L/last_9.stray $L.damaged; mkfifo $L/last_3/log_2.txt; touch $L/last_7", 4, ".damaged is"},
    {"rm -r $L/current; touch $L/current", 1, "current is no folder; the next start will refuse it"},
    {"printf 'mine\\nrun=2 event=archived how=stopped archived=7\\nrun' >>$L/runs.txt", 3, "line 2 is none"},
};

} // namespace

TEST_F(InspectionTest, FindsWhatIsWrongChangesNothingAndAStartMendsWhatItSays) {
    for (auto [done, count, told] : kStates) {
        SCOPED_TRACE(done);
        makeStore();
        in(done);
        std::string before = treeOf(root, "%C@");
        uint32_t findings = 0;
        std::string said = verify(&findings);
        EXPECT_EQ(findings, count) << said;
        EXPECT_NE(said.find(told), std::string::npos) << said;
        EXPECT_EQ(treeOf(root, "%C@"), before);
        auto parts = std::make_unique<StoreParts>(work, 65536);
        parts->open(root);
        bool started = parts->run(), used = verify(&findings).find("note: the service of process ") == 0;
        parts = nullptr;
        EXPECT_TRUE(started ? used : said.find("refuse") != std::string::npos) << said;
        said = started ? verify(&findings) : "";
        EXPECT_FALSE(std::regex_search(said, std::regex("(^|\n)(?!note).* will (?!leave|go on)"))) << said;
    }
}

TEST_F(InspectionTest, ABundleHoldsTheStoreAndIsThereWholeOrNotAtAll) {
    makeStore();
    writeFile(cfg, "KLOG_LEVEL=4\n");
    EXPECT_TRUE(bundle(target) && !bundle(logs + "/last_1/bundle")) << error;
    const std::string whole = readFile(target), original = treeOf(root);
    std::mt19937 random(7);
    for (size_t i = 0; i < 100; ++i) { // whole, cut off, or with another byte somewhere
        std::string bytes = whole.substr(0, i % 2 == 1 ? random() % whole.size() : whole.size());
        bytes[i > 0 && i % 2 == 0 ? random() % bytes.size() : 0] ^= static_cast<char>(i % 2 == 0 ? i : 0);
        writeFile(home + "/other", bytes);
        OpenBundle opened;
        bool done = opened.open(home + "/other", &error), same = done && treeOf(opened.folder()) == original;
        EXPECT_TRUE(done ? same || (i > 0 && !opened.damage().empty()) : i > 0 && !error.empty()) << i;
    }
    in("stat -c %a ../../../*.tar.gz | grep -vx 600; mkdir x; tar xf ../../../bundle.tar.gz -C x; cd x/* && "
       "sha256sum -c --quiet SHA256SUMS && echo x >log.cfg && cd .. && tar czf ../x.tgz *");
    if (fork() == 0) { // without room, and ended while a bundle is open
        OpenBundle opened;
        bool done = opened.open(root + "/x.tgz", &error) && exists(opened.folder() + "/log.cfg") &&
                    opened.damage() == "'log.cfg' is not as its sum in SHA256SUMS says";
        signal(SIGXFSZ, SIG_IGN);
        const rlimit little{512, 512};
        done = done && setrlimit(RLIMIT_FSIZE, &little) == 0 && !bundle(target) && !error.empty();
        raise(done ? SIGKILL : SIGTERM);
    }
    int status = 0;
    EXPECT_TRUE(wait(&status) > 0 && WTERMSIG(status) == SIGKILL);
    EXPECT_TRUE(readFile(target) == whole && !exists(target + ".new"));
    EXPECT_TRUE(eventually([&] { return fs::is_empty(home + "/unpacked"); }));
}

TEST_F(InspectionTest, ABundleOfOthersPutsNothingElsewhere) {
    makeStore();
    const std::string original = treeOf(logs);
    in("mkdir b; tar cf b/t $L; ln -s /etc $L/last_4; ln $L/last_1/log_1.txt.gz $L/last_1/log_8.txt.gz");
    in("mkfifo $L/last_1/log_7.txt; ln -s /etc $L/last_1/log_9.txt; truncate -s 5G $L/last_2/log_9.txt");
    in("tar rSPf b/t --transform 's,^log_service/last_3,/" + home.substr(1) + "/abs,' --sort=name $L");
    in("tar rPf b/t --transform 's,last_1,../../../up,;s,^log_service/last_2,../up,' "
       "$L/last_[12]/log_1.txt.gz");
    in("rm $L/last_2/log_9.txt");
    for (const char* pack : {"cp b/t b/a", "gzip -c b/t >b/a", "xz -c b/t >b/a"}) {
        in(pack);
        std::string before = treeOf(home, "%C@");
        OpenBundle opened;
        ASSERT_TRUE(opened.open(root + "/b/a", &error)) << error;
        EXPECT_NE(opened.damage(), "");
        EXPECT_EQ(treeOf(home, "%C@"), before);
        EXPECT_EQ(treeOf(opened.folder() + "/log_service"), original);
    }
}

TEST_F(InspectionTest, AStoreThatIsWrittenMeanwhileIsTakenAsItIsFound) {
    makeStore();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        in("cd $L/current; for i in $(seq 2 60); do seq 9000 >>log_$i.txt; gzip *.txt; rm -f log_$((i-5)).*; "
           "done");
        done = true;
    });
    while (!done) {
        OpenBundle opened;
        EXPECT_TRUE(bundle(target) && opened.open(target, &error) && opened.damage().empty()) << error;
    }
    writer.join();
}
