#include "Messages/LogWriter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "Messages/MessageTypeNames.h"
#include "Messages/OldLogs.h"
#include "base/TimeSource.h"
#include "libraries/TestDatabase.h"

namespace quelm {
namespace {

class LogWriterTest : public testing::Test {
 protected:
    test::TemporaryFolder folder_;
    ManualTimeSource time_{makeDate(CivilTime{2026, 11, 22, 8, 5, 3, 7}), 60};
    ScopedTimeSource inForce_{time_};
    std::vector<std::string> elsewhere_;
    LogWriter writer_{{[this](std::string_view line) { elsewhere_.push_back("! " + std::string(line)); },
                       [this](std::string_view line) { elsewhere_.emplace_back(line); }}};
};

TEST_F(LogWriterTest, WritesStampedLinesIntoAFolderThatItMakes) {
    ASSERT_TRUE(writer_.Open(folder_.file("new\\logs\\OPC Server.log"), "title", false, true));
    writer_.WriteEntry("Information first\r\nline\nend", true);
    time_.advanceMilliseconds(990);
    writer_.WriteEntry("");
    const std::string lines = "2026-11-22 08:05:03.007 Information first  line end\n2026-11-22 08:05:03.997 \n";
    EXPECT_EQ(test::contentsOf(folder_.file("new/logs/OPC Server.log")), lines) << "without waiting for Close";
    writer_.Close();
    writer_.WriteEntry("after the end");
    EXPECT_EQ(test::contentsOf(folder_.file("new/logs/OPC Server.log")), lines);
}

TEST_F(LogWriterTest, LogsGoWhenTheyAreOldAndNothingElse) {
    struct Case {
        const char* name;
        int daysOld;  // since the last line
        bool stays;
    };
    const Case cases[] = {{"OPCServer 2026-11-11 08.25.13.01234.log", 11, false},
                          {"OPCServer 2026-11-11 00.00.00.1234567_r.log", 11, false},
                          {"OPCServer 2026-11-11 08.25.14.01234.log", 9, true},   // still written to
                          {"OPCServer 2026-11-12 08.25.13.01234.log", 11, true},  // young by its name
                          {"OPCServer 2026-11-11 08.25.13.01234.log.gz", 99, true},
                          {"OPCServer 2026-11-11 08.25.13.1234.log", 99, true},
                          {"Copy of OPCServer 2026-11-11 08.25.13.01234.log", 99, true},
                          {"site.db", 99, true}};
    for (const Case& each : cases) {
        std::ofstream(folder_.file(each.name)) << "line";
        const timespec last{(time_.fileTimeNow() - 116'444'736'000'000'000) / 10'000'000 - each.daysOld * 86'400, 0};
        const timespec times[] = {last, last};
        ASSERT_EQ(::utimensat(AT_FDCWD, folder_.file(each.name).c_str(), times, 0), 0);
    }
    std::filesystem::create_symlink("site.db", folder_.file("OPCServer 2026-11-11 08.25.15.01234.log"));
    const auto tell = [this](std::string_view line) { elsewhere_.emplace_back(line); };
    removeOldLogs(folder_.file(""), 0, tell);
    removeOldLogs(folder_.file("nowhere"), 10, tell);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.file("")), {}), 9);
    removeOldLogs(folder_.file(""), 10, tell);
    for (const Case& each : cases) {
        EXPECT_EQ(std::filesystem::exists(folder_.file(each.name)), each.stays) << each.name;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.file("")), {}), 7);
    EXPECT_THAT(elsewhere_, testing::IsEmpty());
}

TEST_F(LogWriterTest, AppendsOrOverwritesAsAsked) {
    const std::string path = folder_.file("a.log");
    for (const bool overwrite : {false, false, true}) {
        ASSERT_TRUE(writer_.Open(path, "", overwrite, false));
        writer_.WriteEntry("line");
        writer_.Close();
        EXPECT_EQ(std::filesystem::file_size(path), overwrite ? 5U : test::contentsOf(path).size());
    }
    EXPECT_EQ(test::contentsOf(path), "line\n");
}

TEST_F(LogWriterTest, TriesAgainAfterASecondAndTellsWhatWasLost) {
    std::ofstream(folder_.file("blocked")) << "a file where the folder should be";
    const std::string path = folder_.file("blocked/a.log");
    EXPECT_FALSE(writer_.Open(path, "", true, false));
    writer_.WriteEntry("lost 1");
    std::filesystem::remove(folder_.file("blocked"));
    time_.advanceMilliseconds(999);
    writer_.WriteEntry("lost 2");
    EXPECT_FALSE(std::filesystem::exists(path));
    time_.advanceMilliseconds(1);
    writer_.WriteEntry("kept");
    writer_.WriteEntry("kept too");
    EXPECT_EQ(test::contentsOf(path),
              "2026-11-22 08:05:04.007 (2 lines before this could not be written)\nkept\nkept too\n");
    EXPECT_THAT(elsewhere_,
                testing::ElementsAre(testing::StartsWith("! The log " + path + " cannot be written: Not a "), "lost 1",
                                     "lost 2"));
}

TEST_F(LogWriterTest, AFullDiskMayTearALineAndCostsLinesOnly) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit normal{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &normal), 0);
    const rlimit full{11, normal.rlim_max};
    for (const bool isList : {false, true}) {
        const std::string path = folder_.file(isList ? "list.log" : "a.log");
        ASSERT_TRUE(writer_.Open(path, "", false, false));
        writer_.CollectLines(isList);
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
        for (const char* line : {"kept 1", "torn", "lost"}) {
            writer_.WriteEntry(line, !isList);
        }
        writer_.CollectLines(false);
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &normal), 0);
        time_.advanceMilliseconds(1000);
        writer_.WriteEntry("kept 2", true);
        EXPECT_THAT(test::contentsOf(path),
                    testing::MatchesRegex("kept 1\ntorn\n2026-11-22 08:05:0[45].007 .2 lines before this could not be "
                                          "written.\nkept 2\n"));
        EXPECT_THAT(elsewhere_, testing::ElementsAre(testing::HasSubstr("File too large"), "torn", "lost"));
        elsewhere_.clear();
    }
}

}  // namespace
}  // namespace quelm
