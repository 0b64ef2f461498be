// SPDX-License-Identifier: Apache-2.0
#include "ReaderParts.h"
#include "sources/KernelReader.h"
#include "sources/KernelSplitter.h"

using namespace std::string_literals;
using vnlog::FinishRequest;

namespace {

constexpr uint32_t kSize = 24, kLongest = 100; // of the splitter's buffer in the table

/** The lines of the chunks, each behind its priority. */
std::string split(const std::vector<std::string>& chunks, uint32_t size = kSize) {
    std::string lines;
    char* buffer = vnlog::allocateText(size).release();
    {
        vnlog::KernelSplitter splitter(&buffer, size, kLongest);
        for (std::string chunk : chunks) {
            while (!chunk.empty()) {
                auto length = static_cast<uint32_t>(chunk.copy(splitter.chunk(), splitter.room()));
                EXPECT_GT(length, 0U);
                splitter.add(length);
                chunk.erase(0, length);
                for (vnlog::KernelLine line; splitter.next(&line);)
                    lines += std::to_string(line.priority) + "|" + std::string(line.text, line.length);
            }
        }
    }
    std::free(buffer);
    return lines;
}

class KernelReaderTest : public ReaderTest {
  protected:
    KernelReaderTest() {
        makeFolder(home + "/proc");
        mkfifo(path.c_str(), 0600);
        log = vnlog::openFile(path.c_str(), O_RDWR); // a writer at any time, so that reads wait
        sem_init(&state.mKLogSem, 0, 0);
        state.mKLogOutput = state.mKLogToFile = state.mKLogThreadRunning = true;
    }
    ~KernelReaderTest() override {
        EXPECT_EQ(loggedTimes("kernelLog_cleanup log_buffer addr="), cancelled);
        sem_destroy(&state.mKLogSem);
    }
    void feed(const std::string& text) { EXPECT_TRUE(vnlog::writeAll(log.get(), text.data(), text.size())); }
    Worker start() {
        ++cancelled;
        return {std::thread([this] { reader.run(); })};
    }

    const std::string path = home + "/proc/kmsg";
    int cancelled = 0; ///< readers that are started and do not end by themselves
    vnlog::FileDescriptor log;
    vnlog::KernelState state;
    vnlog::KernelReader reader{state, systemRoot, sink};
};

} // namespace

TEST(KernelSplitter, LinesAndPrioritiesHoweverTheTextIsCut) {
    const std::string fits(kLongest - 1, 'e'), longer = fits + "<1>", twice = fits + fits;
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"<3>disk\nno prefix\n<>zero\n<\n\n"}, "3|disk\n7|no prefix\n0|zero\n7|\n7|\n"},
        {{"<3>spl", "it\n<4", ">x\n<14>facility\n<007>\n"}, "3|split\n4|x\n14|facility\n7|\n"},
        {{"<2147483648>over\n<99999999999999999999>o\n"}, "2147483647|over\n2147483647|o\n"},
        {{"<2 unclosed\n<-1>sign\nx<3>y\n<3><4>z\n"}, "2| unclosed\n0|-1>sign\n7|x<3>y\n3|<4>z\n"},
        {{"<3>zero \0byte\n"s, "\0\0"s, "\0<\0004>\0\n"s}, "3|zero byte\n4|\n"},
        {{fits + "\n" + longer + "\n" + longer + "\nshort\n"},
         "7|" + fits + "\n7|" + fits + "\n7|<1>\n7|" + fits + "\n7|<1>\n7|short\n"},
        {{"<1>" + twice + "rest\n<5>next\n<4>open"},
         "1|" + fits.substr(3) + "\n1|" + fits + "\n1|eeerest\n5|next\n"},
    };
    std::string text;
    for (auto& [chunks, lines] : cases) {
        EXPECT_EQ(split(chunks), lines) << chunks[0];
        for (auto& chunk : chunks)
            text += chunk;
    }
    for (uint32_t size : {4u, kSize, kLongest}) {
        for (size_t at = 1; at < text.size(); ++at)
            EXPECT_EQ(split({text.substr(0, at - 1), text.substr(at - 1, 1), text.substr(at)}, size),
                      split({text}, size));
    }
}

TEST_F(KernelReaderTest, LinesPassAsLevelAndSwitchesAreAtEachOfThem) {
    state.mKLogOutput = false;
    state.mKLogLevel = 6;
    sink.door = [this](std::string_view line) {
        state.mKLogLevel = line == "stricter\n" ? 3 : state.mKLogLevel.load();
        state.mKLogToFile = line != "<3>off\n";
        state.mKLogPrefix = state.mKLogPrefix || line.size() > 60000;
        return line != "refused\n";
    };
    faults.interruptedReads = 3;
    const std::string exact(8188, 'e'), full(8189, 'f'), rest(9000, 'r'), longest(66000, 'l');
    feed("<3>disk\n<7>fine\nno prefix\n\n<5>\n<6>limit\n<0>refused\n<2>stricter\n<4>four\n<3>three\n");
    feed("<3>" + exact + "\n<3>" + full + "\n<4>" + full + rest + "\n");
    feed("<3>" + full + rest + "\n");
    Worker worker = start();
    switchOn(state.mKLogOutput, state.mKLogSem);
    feed("<3>" + longest + "\n<3>off\n<3>not stored\n");
    EXPECT_TRUE(sink.holds("disk\nlimit\nstricter\nthree\n" + exact + "\n" + full + "\n" + full + rest +
                           "\n" + longest.substr(0, 65532) + "\n" + longest.substr(65532) + "\n<3>off\n"));
    EXPECT_EQ(loggedTimes("kernelLogReader logBufWrite failed\n"), 1) << sink.text();
    EXPECT_LE(faults.allocations, 8U) << "the buffer and its growth, and nothing per line";
}

TEST_F(KernelReaderTest, EndOfTheLogIsNoEndForTheReaderAndNoSpin) {
    unlink(path.c_str());
    writeFile(path, "<3>first\n");
    auto begin = std::chrono::steady_clock::now();
    Worker worker = start();
    EXPECT_TRUE(eventually([] { return faults.reads >= 5; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(250));
    EXPECT_TRUE(sink.holds("first\n"));
}

TEST_F(KernelReaderTest, FinishesWithWhatIsThereButNotWithAFlood) {
    unlink(path.c_str());
    std::string flood;
    while (flood.size() < 2 * FinishRequest::kMostBytes)
        flood += "<3>" + std::string(92, 'f') + "\n";
    for (size_t bytes : {970U, FinishRequest::kMostBytes + 200U}) {
        writeFile(path, bytes < 1000 ? flood.substr(0, bytes) : flood);
        sink.forget();
        reader.finishRequest().make();
        reader.run(); // a request that came before is heard, too
        EXPECT_NEAR(static_cast<double>(sink.text().size()) / 93 * 96, static_cast<double>(bytes), 8500);
        EXPECT_TRUE(bytes > 1000 || sink.text().size() == 10 * 93 + 8) << "the line without an end, too";
        reader.finishRequest().withdraw();
    }
}
