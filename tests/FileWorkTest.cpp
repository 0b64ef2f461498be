// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"

#include "storage/Archive.h"
#include "storage/ProcessFileWork.h"
#include "storage/Shell.h"
#include "storage/ShellFileWork.h"

#include <sys/resource.h>

using namespace vnlog;

namespace {

class FileWorkTest : public FolderTest {
  protected:
    ProcessFileWork process;
    ShellFileWork shell;
    CopyTotals totals;
    FileWork* forms[2] = {&process, &shell};
    const char *text = "run/log_1.txt", *archive = "run/log_1.txt.gz", *draft = "run/log_1.txt.gz.new";
    std::string noise = std::string(1 << 20, '\0');

    FileWorkTest() {
        std::generate(noise.begin(), noise.end(), std::minstd_rand());
        fs::current_path(home);
    }
    std::string packed(const std::string& content) {
        writeFile(text, content);
        EXPECT_TRUE(process.compress(text, {}));
        return readFile(archive);
    }
    PairKind pair(const std::string& bytes, const std::string& content) {
        writeFile(archive, bytes);
        writeFile(text, content);
        return comparePair(archive, text);
    }
};

} // namespace

/** Whatever the host does with its children and its environment. */
TEST_F(FileWorkTest, BothFormsMakeTheSameArchives) {
    const std::string path = getenv("PATH"), header("\x1f\x8b\x08\x08\x00\xca\x9a\x3b\x00\x03log_1.txt", 20);
    setenv("GZIP", "--none", 1);
    setenv("PATH", "", 1);
    umask(077);
    // An emulator knows no children without an exit signal.
    std::signal(SIGCHLD, VNLOG_EMULATED ? SIG_DFL : SIG_IGN);
    EXPECT_TRUE(vnlog::runCommand("exit 0") && !vnlog::runCommand("exit 3"));
    for (FileWork* form : forms)
        for (auto& content : {std::string(), noise, std::string(99999, '\0'), noise.substr(0, 16384)}) {
            writeFile(text, content);
            writeFile(draft, "torn");
            ::runCommand(
                "export PATH=/bin; ln run/log_1.txt link; chmod 577 link; touch -d @1000000000 link");
            EXPECT_TRUE(form->compress(text, {}) && fs::remove("link"));
            std::string bytes = readFile(archive);
            SectionFacts facts;
            ASSERT_EQ(readFacts(openFile(archive, O_RDONLY).get(), &facts), form == &process);
            if (form == &process) {
                bytes.erase(10, 2 + static_cast<unsigned char>(bytes[10]) +
                                    256U * static_cast<unsigned char>(bytes[11]));
                bytes[3] = 8;
            }
            EXPECT_TRUE(readGzip(archive) == content && bytes.substr(0, 20) == header);
            EXPECT_EQ(::runCommand("/bin/ls run"), "log_1.txt.gz\n");
            EXPECT_EQ(fs::status(archive).permissions(), fs::perms{0555});
        }
    std::signal(SIGCHLD, SIG_DFL);
    umask(022);
    setenv("PATH", path.c_str(), 1);
    unsetenv("GZIP");
}

/** What fails: the space, the memory, then one step after the other, and nothing in the end. */
TEST_F(FileWorkTest, AFailureLeavesTextAndOlderArchive) {
    const std::string old = packed("old");
    const rlimit all{RLIM_INFINITY, RLIM_INFINITY}, few{65536, RLIM_INFINITY};
    std::signal(SIGXFSZ, SIG_IGN);
    for (FileWork* form : forms) {
        const bool own = form == &process;
        const int errors[] = {own ? EFBIG : ENOSPC, own ? ENOMEM : EIO, EIO, EIO, EIO, EIO, 0};
        for (int fault = 0; fault < 7; ++fault) {
            SCOPED_TRACE(fault);
            ProcessFileWork fresh; // without memory yet
            (void)pair(old, noise);
            faults.freeBytes = fault == 0 ? 0 : -1;
            faults.failAllocationsFrom = fault == 1 ? 16384 : SIZE_MAX;
            faults.stepsUntilError = fault - 2;
            setrlimit(RLIMIT_FSIZE, fault == 0 ? &few : &all);
            const bool done = (own ? fresh : *form).compress(text, {}), replaced = done || fault > 3;
            EXPECT_EQ(done ? 0 : errno, errors[fault]);
            setrlimit(RLIMIT_FSIZE, &all);
            faults.disarm();
            EXPECT_TRUE(exists(text) == !done && (done || readFile(text) == noise) && !exists(draft));
            EXPECT_TRUE(replaced ? readGzip(archive) == noise : readFile(archive) == old);
        }
    }
    std::signal(SIGXFSZ, SIG_DFL);
}

TEST_F(FileWorkTest, PairsAreJudgedByTheirContent) {
    const std::string a = noise.substr(0, 40000), b = a.substr(0, 20000), zeros(30000, '\0');
    const std::string bx = b + zeros + "x", none = packed(""), half = packed(b);
    const std::string two = half + packed(a.substr(20000)) + none;
    const std::tuple<PairKind, std::vector<std::string>, std::vector<std::string>> rows[] = {
        {PairKind::Covers, {two}, {a, b, b + zeros, a + zeros, "", zeros}},
        {PairKind::Different, {two}, {bx, b + zeros.substr(9) + a, bx.substr(1), "x"}},
        {PairKind::Damaged, {"", two + "x", two + '\0', two + two.substr(0, 99), a}, {a}},
        {PairKind::Continued, {half}, {a, bx}},
        {PairKind::Continued, {none}, {"x", zeros + "x"}},
    };
    auto expect = [&](PairKind kind, const std::string& bytes, const std::string& content) {
        EXPECT_EQ(pair(bytes, content), kind);
        EXPECT_EQ(archiveHolds(archive, text), kind == PairKind::Covers && readGzip(archive) == content);
    };
    for (auto& [kind, archives, texts] : rows)
        for (auto& bytes : archives)
            for (auto& content : texts)
                expect(kind, bytes, content);
    const std::string small = "some some some text", whole = packed(small);
    for (size_t at = 0; at < whole.size(); ++at) {
        expect(PairKind::Damaged, whole.substr(0, at), "");
        for (int bit = 1; bit < 256; bit *= 2) {
            std::string flipped = whole;
            flipped[at] = static_cast<char>(flipped[at] ^ bit);
            bool same =
                pair(flipped, small) == PairKind::Covers && readGzip(archive) == small; // but for the header
            expect(same ? PairKind::Covers : PairKind::Damaged, flipped, small);
        }
    }
    EXPECT_TRUE(comparePair(archive, "none") == PairKind::Unreadable && errno == ENOENT);
}

TEST_F(FileWorkTest, NothingBehindALinkIsTouched) {
    for (FileWork* form : forms) {
        ::runCommand(
            "rm -rf *; mkdir -p out s/last_1/.d/e s/last_3 i/s/last_3; echo kept >out/f; echo 3 >s/last_3/x;"
            "ln -s ../../../out/f i/s/last_3/x; cd s; ln -s ../out last_2; ln -s ../out current; : >.h;"
            "ln -s ../out/f l.txt; mkfifo last_1/p; : >foreign; chown 4242 foreign");
        std::ostringstream done;
        done << form->compress("s/l.txt", {}) << form->compress("s/last_1/p", {})
             << form->compress("s/last_1", {}) << (getuid() == 0 && form->compress("s/foreign", {}))
             << form->copyTree("s", "no", &totals) << form->copyTree("no", "i", &totals)
             << form->removeAll("s/current/") << form->removeFile("s/last_1")
             << form->moveFolder("s/last_3", "s/last_1/.d/e") << ' ' << form->copyTree("s", "i", &totals)
             << form->copyTree("s", "i", &totals) << form->moveFolder("s/last_3", "s/last_4")
             << form->removeTree("s/current") << form->removeTree("none") << form->removeFile("s/l.txt")
             << form->removeFile("none") << form->removeAll("s/last_") << form->removeAll("none/")
             << form->removeAll("s/");
        EXPECT_EQ(done.str(), "000000000 1111111111");
        EXPECT_EQ(
            ::runCommand("ls -A s; cd i/s; cat last_3/x ../../out/f; ls -dF * last_1/.d/e; readlink last_2"),
            ".h\n3\nkept\ncurrent@\nforeign\nl.txt@\nlast_1/\nlast_1/.d/e/\nlast_2@\nlast_3/\n../out\n");
    }
    // A copy leaves itself out, and makes no file its own copy.
    ::runCommand("rm -rf *; mkdir -p s/in; echo 3 >s/x");
    EXPECT_TRUE(process.copyTree("s", "s/in", &totals) && !process.copyTree("s", ".", &totals) &&
                errno == EINVAL);
    EXPECT_EQ(::runCommand("cat s/x s/in/s/x; ls s/in/s/in"), "3\n3\n");
}

TEST_F(FileWorkTest, ACopyHasAllThatIsThereAndTellsWhatItLacks) {
    auto section = [](const char* folder, int i) { return folder + ("/log_" + std::to_string(i) + ".txt"); };
    for (FileWork* form : forms) {
        ::runCommand("rm -rf *; mkdir -p s/c o/s/x/y; echo 12 >s/x");
        EXPECT_FALSE(form->copyTree("s", "o", &totals)) << "a folder is in the place of a file";
        fs::remove_all("o/s/x");
        for (int i = 0; i < 400; ++i)
            writeFile(section("s/c", i), "x");
        std::thread cuts([&] {
            for (int i = 399; i >= 0; --i)
                EXPECT_TRUE(process.compress(section("s/c", i).c_str(), {}));
        });
        EXPECT_TRUE(form->copyTree("s", "o", &totals));
        cuts.join();
        for (int i = 0; i < 400; ++i)
            EXPECT_TRUE(exists(section("o/s/c", i)) || exists(section("o/s/c", i) + ".gz")) << i;
        writeFile("p/s/other", "not of the copy");
        EXPECT_TRUE(form->copyTree("s", "p", &totals));
        EXPECT_EQ(std::to_string(totals.files) + "\n", ::runCommand("find s -type f | wc -l"));
        EXPECT_EQ(std::to_string(totals.bytes) + "\n", ::runCommand("find s -type f -exec cat {} + | wc -c"));
    }
}

TEST_F(FileWorkTest, ACommandThatTakesTooLongEndsWithAllItStarted) {
    mkfifo("fifo", 0600);
    FileDescriptor reader = openFile("fifo", O_RDONLY | O_NONBLOCK);
    EXPECT_FALSE(runFileCommand(1, "(echo; sleep 99)>fifo & sleep %d", 99));
    char byte;
    EXPECT_EQ(read(reader.get(), &byte, 1), 1);
    EXPECT_TRUE(eventually([&] { return read(reader.get(), &byte, 1) == 0; }));
}
