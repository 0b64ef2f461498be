// SPDX-License-Identifier: Apache-2.0
#include "Fixture.h"
#include "reader/Summaries.h"

using namespace vnlog;
class SummaryTest : public ServiceTest {
  protected:
    std::string shown() {
        EXPECT_TRUE(out.flush());
        std::string text = readFile(home + "/shown");
        return (fs::resize_file(home + "/shown", 0), text);
    }
    Scope everything() {
        Scope scope;
        bool current = false;
        EXPECT_TRUE(folder.open(logs.c_str()) && folder.listRuns(&scope.runs, &current));
        scope.runs.push_back(kCurrentRun);
        history.read(logs);
        return scope;
    }
    /** All runs, without what depends on the compressor (stored) or may be a bound (last). */
    std::string runs(bool whole) {
        EXPECT_EQ(printRuns(folder, history, everything(), out), whole);
        std::istringstream table(shown());
        std::string text, line, word;
        for (; std::getline(table, line); text += "\n") {
            std::istringstream words(line);
            for (int column = 0; words >> word; column++)
                text += column == 2 || column == 5 || (column == 6 && word == "KiB") ? "" : word + " ";
        }
        return text;
    }

    StoreFolder folder;
    RunHistory history;
    FileDescriptor file = openFile((home + "/shown").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    TextOut out{file.get()};
};

TEST_F(SummaryTest, SectionsTellWhatTheirTextSays) {
    configure();
    for (int run = 0; run < 3; run++) {
        stop();
        start(true, true, false);
        for (int line = 0; line < 4000; line++)
            ASSERT_TRUE(put("11-23 14:40:55.123     1     2 I T       : " +
                            std::string(line % 61U + 1U, 'x') + "\n") &&
                        (line % 400 != 0 || flush()));
        ASSERT_TRUE(put("no newline") && flush());
    }
    std::string table = runs(true);
    for (const char* cell : {"\n1 ", "\n0 ", " 4001 ", " under way", " stopped"})
        EXPECT_NE(table.find(cell), std::string::npos) << table;
    for (std::string files : {"/last_1/log_2.txt.gz", "/last_*/*.gz"}) { // others' archives tell nothing
        runCommand("for f in " + logs + files + "; do zcat $f | gzip -n > $f.y && mv $f.y $f; done");
        EXPECT_EQ(runs(true), table);
    }
    fs::resize_file(logs + "/last_2/log_2.txt.gz", 500);
    EXPECT_EQ(runs(false).find(table.substr(0, table.find("\n2 ") + 1)), 0U);
}

TEST_F(SummaryTest, StatisticsAddLinesUp) {
    std::string lines = "[    0.500000] kernel\n--------- 12 lines lost here: no room\n"
                        "--------- 30 lines lost here: no room\nI/A\x1b[1m   (    1): x\n";
    for (int second = 1020; second < 7980; second += 2) // 116 minutes, and one far before them
        lines += "[ " + std::to_string(second) + ".000000] k\n";
    for (int tag = 10000; tag < 15000; tag++)
        lines += "E/Tag" + std::to_string(tag) + "(    1): 12345\n";
    writeFile(logs + "/last_3/log_2.txt", lines);
    writeFile(logs + "/last_3/log_5.txt", "");
    writeFile(logs + "/runs.txt",
              "run=1 event=start time=2026-11-23T15:00:00+01:00 uptime=0 boot=- version=- build=-\n"
              "run=1 event=step time=2026-11-23T17:14:00+01:00 uptime=8040 step=3600\n"
              "run=1 event=archived how=no_end archived=3\n");
    Scope scope = everything();
    LineStream stream(folder, history);
    stream.begin(scope);
    auto sink = makeStatistics(folder, history, out);
    for (Record record; stream.next(&record);)
        sink->put(record);
    sink->finish();
    std::string text = shown();
    const std::string gap(32, ' ');
    for (const std::string& part : std::vector<std::string>{
             "8484 lines, ", "last_3" + gap + "         8484 100.0 %", "kernel" + gap + "         3481 ",
             "error " + gap + "         5000  58.9 %", "(other tags)" + gap + "   4981 ",
             "Only the first 4096", "A\\x1b[1m  ",
             "each bar for 2 minutes\n  2026-11-23 15:00      2.0 ▏\n  :\n",
             "42 lines lost, as told at:\n  last_3, section 2, line 2: 12 lines\n", "last_3: 1 time\n",
             "last_3: 1, deleted, or under another root\n  last_3: 3 to 4\n", "ended:\n  last_3\n"})
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
}
