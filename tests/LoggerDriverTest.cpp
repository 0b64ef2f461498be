#include "Fixture.h"

using namespace vnlog::platform;
using LoggerDriverTest = FolderTest;

TEST_F(LoggerDriverTest, OneClientTooManyIsHungUpOn) {
    LoggerDriver driver;
    ASSERT_TRUE(driver.start({home + "/log"}));
    auto open = [&](LoggerAccess access) { return openLogger((home + "/log").c_str(), access); };
    vnlog::FileDescriptor writer = open(LoggerAccess::Write);
    std::vector<vnlog::FileDescriptor> readers(140);
    for (auto& reader : readers)
        reader = open(LoggerAccess::Read);
    LoggerHeader entry{}; // without a payload
    EXPECT_TRUE(vnlog::writeAll(writer.get(), &entry, sizeof entry));
    auto served = [&](auto& reader) { return read(reader.get(), &entry, sizeof entry) == sizeof entry; };
    EXPECT_EQ(std::count_if(readers.begin(), readers.end(), served), 127);
}
