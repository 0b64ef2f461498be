// SPDX-License-Identifier: Apache-2.0
#include "sources/Filter.h"
#include "Fixture.h"

using namespace vnlog;

namespace {

class FilterTest : public FolderTest {
  protected:
    /** Modules and line format as they are saved, the mode, and the lowest letter that passes for three tags.
     */
    std::string now() {
        char* text = nullptr;
        size_t size = 0;
        FILE* out = open_memstream(&text, &size);
        filter.printModules(out);
        fputc(' ', out);
        filter.printLineFormat(out);
        fprintf(out, " %d ", static_cast<int>(state.mModuleMode));
        for (const char* tag : {"Camera", "Audio", "other"}) {
            int lowest = filter.priorityFor(state.mLogFormat, tag);
            fputc(priorityLetter(static_cast<android_LogPriority>(lowest)), out);
        }
        fclose(out);
        return Text(text).get();
    }

    FilterState state;
    Filter filter{state};
};

} // namespace

TEST_F(FilterTest, StepsThroughModesListsAndRules) {
    auto build = [&](const char* list, const char* level) { EXPECT_TRUE(filter.build("tag", list, level)); };
    const std::tuple<std::function<void()>, const char*, int> steps[] = {
        {[&] { build("ALL_MODULE\r", "w"); }, "ALL_MODULE tag 0 www", 0},
        {[&] { filter.setMode(kModeAll, "i"); }, "ALL_MODULE tag 0 www", 0},
        {[&] { filter.setLevel("?"); }, "ALL_MODULE tag 0 www", 1},
        {[&] { filter.addModules("Audio", "w"); }, "Audio:w tag 2 ewe", 0},
        {[&] { filter.addModules("Camera:d++bad:?+Audio:f", "i"); }, "Camera:d+Audio:f tag 2 dfe", 2},
        {[&] { filter.addModules("Audio+NONE_MODULES:d", "w"); }, "Camera:d+Audio:w tag 2 dwe", 1},
        {[&] { filter.addModules("x\ny:d+Camera=:d+*:f", "d"); }, "Camera:d+Audio:w tag 2 dwe", 2},
        {[&] { state.mLogFormat->rules->priority = ANDROID_LOG_DEFAULT; }, "Camera:?+Audio:w tag 2 fwe", 0},
        {[&] { filter.setMode(kModeNone, ""); }, "NONE_MODULE tag 1 sss", 0},
        {[&] { build("ALL_MODUL", "i"); }, "ALL_MODUL:i tag 2 eee", 0},
        {[&] { filter.deleteModule("ALL_MODUL"); }, " tag 2 eee", 0},
        {[&] { filter.deleteModule("ALL_MODUL"); }, " tag 2 eee", 1},
        {[&] { build("an_item_longer_than_what_a_level_needs+Audio:?", "d"); },
         "an_item_longer_than_what_a_level_needs:d tag 2 eee", 1},
        {[&] { filter.clearRules(state.mLogFormat); }, " tag 2 eee", 0},
        {[&] { build("Audio:w+Camera:d+Audio:v", "d"); }, "Audio:w+Camera:d tag 2 dwe", 0},
        {[&] { build("NONE_MODULE\n", "d"); }, "NONE_MODULE tag 1 sss", 0},
    };
    for (auto& [step, after, reports] : steps) {
        forgetLog();
        step();
        EXPECT_EQ(now(), after);
        EXPECT_EQ(loggedTimes("add filter failed") + loggedTimes("delete filter rule"), reports) << after;
    }
}

TEST_F(FilterTest, RandomEditsAndRestartsActAsAMapDoes) {
    std::map<std::string, char> listed;
    int mode = kModeAll;
    std::string level = "d";
    std::minstd_rand random(7);
    ASSERT_TRUE(filter.build("raw", "ALL_MODULE", "d"));
    for (int step = 0; step < 5000; ++step) {
        const std::string tags[] = {"Camera", "Audio", "other"}, tag = tags[random() % 3];
        const std::string letter(1, kPriorityLetters[random() % 7]), saved = now().substr(0, now().find(' '));
        const unsigned what = random() % 12;
        if (what <= kModeNone) {
            filter.setMode(mode = static_cast<int>(what), level.c_str());
            listed.clear();
        } else if (what == 2) {
            filter.setLevel((level = letter).c_str());
        } else if (what == 3) {
            ASSERT_TRUE(filter.build("raw", saved.c_str(), level.c_str()));
            ASSERT_EQ(now().substr(0, now().find(' ')), saved) << "in the same order";
        } else if (what <= 6) {
            filter.deleteModule(tag.c_str());
            listed.erase(tag);
        } else {
            filter.addModules((tag + ":" + letter).c_str(), "d");
            listed[tag] = letter[0];
            mode = kModeListed;
        }
        std::string expected = " raw " + std::to_string(mode) + " ";
        for (const std::string& one : tags) {
            ASSERT_EQ(filter.lists(one.c_str()), listed.count(one) != 0);
            const char inList = listed.count(one) != 0 ? listed[one] : 'e';
            expected += mode == kModeAll ? level[0] : mode == kModeNone ? 's' : inList;
        }
        ASSERT_EQ(now().substr(now().find(' ')), expected) << step;
    }
}

TEST_F(FilterTest, FormatWordsCountByTheirBeginningAndLettersByTheirPriority) {
    ASSERT_TRUE(filter.build("long", "ALL_MODULE", "d"));
    for (std::string word : {"brief", "process", "tag", "thread", "raw", "time", "threadtime", "long"}) {
        EXPECT_TRUE(filter.setLineFormat((word + "s").c_str()));
        EXPECT_EQ(now(), "ALL_MODULE " + word + " 0 ddd");
    }
    EXPECT_FALSE(filter.setLineFormat("proc") || filter.setLineFormat(""));
    std::string letters;
    for (int priority = 0; priority <= 9; ++priority)
        letters += priorityLetter(static_cast<android_LogPriority>(priority));
    EXPECT_EQ(letters, "??vdiwefs?");
}
