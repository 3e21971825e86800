// What an operator mistypes in the system INI file or in a connection string costs what it stands in and nothing else.

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "DB Interface Library/Sql.h"
#include "DB Interface Library/SystemINI.h"

namespace quelm {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

// The sites that are read, and the problems that are reported.
struct Outcome {
    std::vector<std::string> sites;
    std::vector<std::string> problems;
};

Outcome readIni(const std::string& text) {
    const auto path = std::filesystem::temp_directory_path() /
                      ("quelm_ini_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
    std::ofstream(path, std::ios::binary) << text;
    Outcome outcome;
    SystemINI ini(path.string(), "quelm01", [&](std::string_view line) { outcome.problems.emplace_back(line); });
    ini.ReadINI(0, true);
    std::filesystem::remove(path);
    for (const DAHSEntry& entry : ini.AllDAHS()) {
        outcome.sites.push_back(entry.SiteID + " " + entry.Connections[0]);
    }
    return outcome;
}

TEST(DamagedText, AHeadingWithoutItsBracketDoesNotOverwriteTheSiteBefore) {
    const Outcome outcome = readIni(
        "[System]\nLogFolder=/log\n[DAHS.1]\nSiteID=A\nDAHSID=1\nConnection1=a\n [DAHS.2\nSiteID=B\nDAHSID=2\n"
        "Connection1=b\n[DAHS.3]\nSiteID=C\nDAHSID=3\nConnection1=c\n");
    EXPECT_THAT(outcome.sites, ElementsAre("A a", "C c"));
    EXPECT_THAT(outcome.problems,
                ElementsAre(EndsWith(": '[DAHS.2': a heading without ] (there are 1); the lines under it are left "
                                     "out")));
}

TEST(DamagedText, ANulByteDoesNotHideTheSitesBehindIt) {
    const std::string nul(1, '\0');
    const Outcome outcome = readIni("[System]\nLogFolder=/log\n[DAHS.1]\nSiteID=A\nDAHSID=1\nDefault=" + nul +
                                    "\n[DAHS.2]\nSiteID=B\nDAHSID=2\n");
    EXPECT_THAT(outcome.sites, ElementsAre("A ", "B "));
    EXPECT_THAT(outcome.problems, ElementsAre());
}

TEST(DamagedText, AProblemShowsOnlyTheStartOfWhatIsWrong) {
    const Outcome outcome =
        readIni("[System]\nLogFolder=/log\n[DAHS.1]\nSiteID=A\nDAHSID=\x1B" + std::string(5000, '7') + "\n");
    ASSERT_EQ(outcome.problems.size(), 2U);
    EXPECT_THAT(outcome.problems[0], EndsWith("[DAHS.1]: DAHSID '?" + std::string(63, '7') +
                                              "...' is not a 32-bit whole number; the entry is left out"));
}

TEST(DamagedText, NoPasswordIsShownOfADamagedConnectionString) {
    EXPECT_EQ(redactConnectionString("Driver=SQLite;Database={a b.db;PWD=secret"), "Driver=SQLite;Database=***");
    EXPECT_EQ(redactConnectionString("Database=a.db Password=secret;Driver=SQLite"), "Database=***;Driver=SQLite");
}

}  // namespace
}  // namespace quelm
