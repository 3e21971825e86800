#include "DB Interface Library/SystemINI.h"

#include <gmock/gmock.h>

#include "base/RuntimeError.h"
#include "libraries/TestDatabase.h"

namespace quelm {
namespace {

using testing::ElementsAre;

class SystemINITest : public testing::Test {
 protected:
    SystemINI ini(const std::string& contents, const std::string& computer = "srv1.plant.example") {
        std::ofstream(path_, std::ios::binary) << contents;
        return SystemINI(path_, computer, [this](std::string_view text) {
            EXPECT_TRUE(text.starts_with(path_ + ": ")) << text;
            problems_.emplace_back(text.substr(path_.size() + 2));
        });
    }
    test::TemporaryFolder folder_;
    std::string path_ = folder_.file("Quelm.ini");
    std::vector<std::string> problems_;
};

TEST_F(SystemINITest, ReadsEntriesInFileOrder) {
    SystemINI reader =
        ini("\xEF\xBB\xBF; sites\r\n[System]\r\nlogfolder = C:\\Logs \r\n[DAHS.2]\r\nSiteID=B\r\nDAHSID=-7\r\n"
            "connection1=Driver={SQLite};Database=/a b.db\r\nConnection5=five\r\n[Other]\r\nSiteID=X\r\n"
            "[dahs one]\r\nSiteID=A\r\nDAHSID=12\r\nComputer= other , SRV1\r\n");
    ASSERT_TRUE(reader.ReadINI(0, true));
    EXPECT_EQ(reader.LogFolder(), "C:\\Logs");
    ASSERT_EQ(reader.AllDAHS().size(), 2U);
    EXPECT_EQ(reader.AllDAHS()[0].SiteID, "B");
    EXPECT_EQ(reader.AllDAHS()[0].DAHSID, -7);
    EXPECT_EQ(reader.AllDAHS()[0].Connections[0], "Driver={SQLite};Database=/a b.db");
    EXPECT_EQ(reader.AllDAHS()[0].Connections[1], "");
    EXPECT_EQ(reader.AllDAHS()[0].Connections[4], "five");
    EXPECT_THROW(reader.SelectedDAHS(), RuntimeError);
    ASSERT_TRUE(reader.SelectDAHS(0, true));
    EXPECT_EQ(reader.SelectedDAHS().SiteID, "A");
    EXPECT_THAT(problems_, ElementsAre("line 9: lines in no section that is read ('Other') are left out. Use [System] "
                                       "and [DAHS...]."));
}

TEST_F(SystemINITest, KeepsEntriesOfOneNameApartAndNamesWhatIsUnknownOrStandsTwice) {
    SystemINI reader =
        ini("x=1\n[System]\nLogFolder=/first\nlogfolder=/second\nLogfolders=/l\n"
            "[DAHS]\nSiteID=A\nDAHSID=1\nConnection1=a1\nConnection2=a2\n"
            "[dahs]\nSiteID=B\nDAHSID=2\nConnection1=b1\nConection2=b2\nBogus\n"
            "[DAHS.3]\nSiteID=C\nDAHSID=3\nDAHSID=3\n[DAHS.4]\nSiteID=D\nDAHSID=4\nconnection1=d\nConnection1=e\n"
            "[System]\nQueryTimeout=20\n");
    EXPECT_TRUE(reader.ReadINI(0, true));
    ASSERT_EQ(reader.AllDAHS().size(), 3U);
    EXPECT_EQ(reader.AllDAHS()[0].Connections[1], "a2");
    EXPECT_EQ(reader.AllDAHS()[1].Connections[0], "b1");
    EXPECT_EQ(reader.AllDAHS()[1].Connections[1], "") << "never another site's database";
    EXPECT_EQ(reader.LogFolder(), "/first");
    EXPECT_EQ(reader.DatabaseTimeouts().query, std::chrono::seconds(20));
    EXPECT_THAT(problems_,
                ElementsAre("line 16: neither a [section] heading nor \"name = value\", the line is left out. Correct "
                            "it, or begin it with ; to make it a comment.",
                            "line 1: lines in no section that is read ('') are left out. Use [System] and [DAHS...].",
                            "[dahs]: two sections have this name (lines 6 and 11); each is an entry of its own",
                            "[dahs]: there is no key 'Conection2' (line 15), it is left out",
                            "[DAHS.3]: DAHSID stands twice (lines 19 and 20)",
                            "[DAHS.4]: connection1 stands twice (lines 24 and 25), with two values; the entry is left "
                            "out",
                            "[System]: there is no key 'Logfolders' (line 5), it is left out",
                            "[System]: LogFolder stands twice (lines 3 and 4), with two values; the first counts"));
}

TEST_F(SystemINITest, TakesTimeoutsThatBoundAWait) {
    struct Case {
        const char* given;
        int connect, query;  // seconds
        std::vector<std::string> problems;
    };
    const std::string noNumber = " is not a number of seconds from 1 to 300; read as ";
    const Case cases[] = {
        {"", 5, 10, {}},
        {"ConnectTimeout=\nquerytimeout = 300", 5, 300, {}},
        {"ConnectTimeout=1\nQueryTimeout=301", 1, 10, {"[System]: QueryTimeout '301'" + noNumber + "10"}},
        {"ConnectTimeout=0\nQueryTimeout=2.5",
         5,
         10,
         {"[System]: ConnectTimeout '0'" + noNumber + "5", "[System]: QueryTimeout '2.5'" + noNumber + "10"}},
    };
    for (const auto& each : cases) {
        problems_.clear();
        SystemINI reader = ini(std::string("[System]\nLogFolder=/l\n") + each.given + "\n[DAHS]\nSiteID=S\nDAHSID=1\n");
        EXPECT_TRUE(reader.ReadINI(0, true));
        EXPECT_EQ(reader.DatabaseTimeouts().connect, std::chrono::seconds(each.connect)) << each.given;
        EXPECT_EQ(reader.DatabaseTimeouts().query, std::chrono::seconds(each.query)) << each.given;
        EXPECT_EQ(problems_, each.problems);
    }
}

TEST_F(SystemINITest, RemovesNoLogsUnlessADayIsNamed) {
    const std::pair<const char*, int> cases[] = {
        {"", 0}, {"KeepLogs=400", 400}, {"keeplogs=0", 0}, {"KeepLogs=-1", 0}, {"KeepLogs=1 week", 0}};
    for (const auto& [given, days] : cases) {
        SystemINI reader = ini(std::string("[System]\nLogFolder=/l\n") + given + "\n[DAHS]\nSiteID=S\nDAHSID=1\n");
        EXPECT_TRUE(reader.ReadINI(0, true));
        EXPECT_EQ(reader.KeepLogs(), days) << given;
    }
    EXPECT_THAT(problems_, testing::Contains("[System]: KeepLogs '1 week' is not a number of days from 1 to 36500; all "
                                             "logs are kept"));
    EXPECT_EQ(problems_.size(), 3U);
}

TEST_F(SystemINITest, LeavesDamagedEntriesOutAndSaysWhy) {
    SystemINI reader =
        ini("[System]\nLogFolder=/l\n[DAHS.1]\nDAHSID=1\n[DAHS.2]\nSiteID=S2\n[DAHS.3]\nSiteID=S3\nDAHSID=2147483648\n"
            "[DAHS.4]\nSiteID=S4\nDAHSID=1x\n[DAHS.5]\nSiteID=S5\nDAHSID=5\nDefault=perhaps\n [DAHS.6\nSiteID=S6\n"
            "[DAHS.7]\nSiteID=S7\nDAHSID=7\nDefault=" +
            std::string(1, '\0') + "\n[DAHS.8]\nSiteID=S8\nDAHSID=\x1B" + std::string(5000, '7') + "\n");
    EXPECT_TRUE(reader.ReadINI(0, true));
    ASSERT_EQ(reader.AllDAHS().size(), 2U);
    EXPECT_EQ(reader.AllDAHS()[0].SiteID, "S5") << "what stands under a broken heading is not this entry's";
    EXPECT_EQ(reader.AllDAHS()[1].SiteID, "S7") << "a NUL byte hides nothing";
    EXPECT_FALSE(reader.SelectDAHS(0, true));
    EXPECT_THAT(problems_,
                ElementsAre("line 17: a section heading without ], the lines under it are left out. Add the ].",
                            "[DAHS.1]: SiteID is missing; the entry is left out",
                            "[DAHS.2]: DAHSID '' is not a 32-bit whole number; the entry is left out",
                            "[DAHS.3]: DAHSID '2147483648' is not a 32-bit whole number; the entry is left out",
                            "[DAHS.4]: DAHSID '1x' is not a 32-bit whole number; the entry is left out",
                            "[DAHS.5]: Default 'perhaps' is neither yes nor no; read as no",
                            "[DAHS.8]: DAHSID '?" + std::string(63, '7') +
                                "...' is not a 32-bit whole number; the entry is left out",
                            "no DAHS entry names this computer ('srv1.plant.example'), and none is marked as default"));
}

TEST_F(SystemINITest, SelectsByComputerBeforeDefault) {
    struct Case {
        const char *computers, *thisComputer;
        bool isNamed;
    };
    const Case cases[] = {
        {"srv1", "SRV1", true},
        {"srv1", "srv1.plant.example", true},
        {"srv1.plant.example", "srv1", true},
        {"Srv1.Plant.Example", "srv1.plant.example", true},
        {"srv1.other.example", "srv1.plant.example", false},
        {"a,,b", "B", true},
        {"srv", "srv1", false},
        {"", "srv1", false},
        {"srv1", "", false},
    };
    for (const auto& each : cases) {
        SystemINI reader = ini(std::string("[DAHS.1]\nSiteID=Default\nDAHSID=1\nDefault=Yes\n"
                                           "[DAHS.2]\nSiteID=Named\nDAHSID=2\nComputer=") +
                                   each.computers + "\n",
                               each.thisComputer);
        EXPECT_TRUE(reader.ReadINI(0, false));
        EXPECT_TRUE(reader.SelectDAHS(0, false));
        EXPECT_EQ(reader.SelectedDAHS().SiteID, each.isNamed ? "Named" : "Default") << each.computers;
    }
}

TEST_F(SystemINITest, AnUnreadableFileFails) {
    SystemINI empty = ini("");
    EXPECT_FALSE(empty.ReadINI(0, true));
    SystemINI huge = ini(std::string(SystemINI::maxFileSize + 1, ';'));
    EXPECT_FALSE(huge.ReadINI(0, true));
    std::filesystem::remove(path_);
    EXPECT_FALSE(huge.ReadINI(0, true));
    EXPECT_FALSE(huge.ReadINI(0, false)) << "and nothing is said";
    EXPECT_FALSE(huge.SelectDAHS(0, false));
    EXPECT_THAT(problems_,
                ElementsAre("[System]: LogFolder is missing; logs go to the root folder", "no usable DAHS entry",
                            "larger than 4194304 bytes", "cannot be opened: No such file or directory"));
}

}  // namespace
}  // namespace quelm
