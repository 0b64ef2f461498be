#include "Fixture.h"
#include "reader/Summaries.h"

using namespace vnlog;

namespace {

class SummaryTest : public ServiceTest {
  protected:
    std::string shown() {
        EXPECT_TRUE(out.flush());
        std::string text = readFile(home + "/shown");
        EXPECT_EQ(ftruncate(file.get(), 0), 0);
        return text;
    }
    /** The table of all runs, without stored, which depends on the compressor, and last, of which a section
     * that ends within a line tells a bound. */
    std::string runs(bool whole) {
        Scope scope;
        bool current = false;
        EXPECT_TRUE(folder.open(logs.c_str()) && folder.listRuns(&scope.runs, &current));
        history.read(logs);
        scope.runs.push_back(kCurrentRun);
        EXPECT_EQ(printRuns(folder, history, scope, out), whole);
        std::istringstream table(shown());
        std::string text, line, word;
        for (; std::getline(table, line); text += "\n") {
            std::istringstream words(line);
            for (int column = 0; words >> word; column++)
                text += column == 2 || column == 5 || (column == 6 && word == "KiB") ? "" : word + " ";
        }
        return text;
    }
    /** Gives a sink lines of the section 2 of last_3, from the 60001st on of the run under way. */
    std::string made(const std::unique_ptr<RecordSink>& sink, const std::vector<std::string>& lines) {
        LineParser parser;
        LineClock clock;
        clock.beginSection({{{0, 1795442400000}}, true, 3600, 1795442400000, 0}); // 2026-11-23T15:00+01:00
        Record record;
        record.place = {3, 2, 0};
        for (const std::string& line : lines) {
            record.place.run = ++record.place.line > 60000 ? kCurrentRun : 3;
            record.bytes = line;
            parser.parse(line, &record.line);
            record.time = clock.timeOf(record.line);
            sink->put(record);
        }
        sink->finish();
        return shown();
    }

    StoreFolder folder;
    RunHistory history;
    FileDescriptor file = openFile((home + "/shown").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    TextOut out{file.get()};
};

} // namespace

TEST_F(SummaryTest, SectionsTellWhatTheirTextSays) {
    configure();
    for (int run = 0; run < 3; run++) {
        stop();
        start(true, true, false);
        for (int line = 0; line < 4000; line++)
            ASSERT_TRUE(
                put("11-23 14:40:55.123  1234  5678 I Tag     : " + std::string(line % 61U, 'x') + "\n") &&
                (line % 400 != 0 || flush()));
        ASSERT_TRUE(put("no newline") && flush());
    }
    std::string table = runs(true);
    for (const char* cell : {"\n1 ", "\n0 ", " 4001 ", " under way", " stopped"})
        EXPECT_NE(table.find(cell), std::string::npos) << table;
    for (const char* files :
         {"/last_1/log_2.txt.gz", "/last_*/*.gz"}) { // a foreign archive tells nothing of itself
        runCommand("for f in " + logs + files + "; do zcat $f | gzip -n > $f.y && mv $f.y $f; done");
        EXPECT_EQ(runs(true), table);
    }
    fs::resize_file(logs + "/last_2/log_2.txt.gz", 500);
    EXPECT_EQ(runs(false).find(table.substr(0, table.find("\n2 ") + 1)), 0U);
}

TEST_F(SummaryTest, StatisticsAddLinesUp) {
    writeFile(logs + "/last_3/log_2.txt", "");
    writeFile(logs + "/last_3/log_5.txt", "");
    history.parse("run=1 event=step time=2026-11-23T16:02:10+01:00 uptime=1287 step=3600\n"
                  "run=1 event=archived how=no_end archived=3\n");
    ASSERT_TRUE(folder.open(logs.c_str()));
    std::vector<std::string> lines = {"[    0.500000] kernel", "--------- 12 lines lost here: no room",
                                      "--------- 30 lines lost here: no room", "I/A\x1b[1m   (    1): x"};
    for (int second = 1020; second < 7980; second += 2) // 116 minutes, and one far before them
        lines.push_back("[ " + std::to_string(second) + ".000000] k");
    for (int tag = 10000; tag < 15000; tag++)
        lines.push_back("E/Tag" + std::to_string(tag) + "(    1): 12345");
    std::string text = made(makeStatistics(folder, history, out), lines);
    for (const char* part :
         {"8484 lines, ", "last_3                                         8484 100.0 %",
          "kernel                                         3481 ",
          "error                                          5000  58.9 %",
          "(other tags)                                   4981 ", "Only the first 4096 tags", "A\\x1b[1m  ",
          "lines per minute, each bar for 2 minutes\n  2026-11-23 15:00      2.0 ▏\n  :\n",
          "42 lines lost, as told at:\n  last_3, section 2, line 2: 12 lines\n",
          "last_3: 1 to 1, deleted, or under another root\n  last_3: 3 to 4\n", "last_3: 1 times",
          "power cut ended:\n  last_3\n"})
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 130);
}

// The browser's test looks at the page that this one leaves where VNLOG_REPORT_PAGE says.
TEST_F(SummaryTest, ReportKeepsLinesText) {
    std::vector<std::string> lines = {
        "</script><script>document.title='broken'</script><!--",
        "I/Tag     (    1): <img src=x onerror=alert(1)> \"\\ \x01 \xff \xe2\x82\xac"};
    for (int at = 2; at < 100000; at++) {
        std::string number = std::to_string(at), tag = at % 5 == 1 ? "/Camera  " : "/Audio   ";
        lines.push_back(at % 10 == 0 ? "[ " + std::to_string(at / 10) + ".000000] kernel " + number
                                     : (at % 100 == 1 ? "E" : "I") + tag + "(    1): entry " + number);
    }
    std::string page = made(makeReport("A </title><b>", history, out, "some"), lines);
    EXPECT_NE(page.find("\"\\u003C/script>\\u003Cscript>document"), std::string::npos);
    EXPECT_EQ(page.find("<img"), std::string::npos);
    if (const char* place = std::getenv("VNLOG_REPORT_PAGE"))
        writeFile(place, page);
}
