#include <gmock/gmock.h>

#include <fstream>
#include <set>

#include "OPC/Client/check/CheckReport.h"

using namespace quelm;
using namespace quelm::opcclient;
using namespace quelm::opcclient::check;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

TEST(Findings, AreWhatCameOtherwise) {
    Findings found;
    found.result("Fine", S_OK, {S_OK, S_FALSE});
    EXPECT_EQ(found.verdict(), Verdict::Passed);
    found.tolerate("odd");
    EXPECT_EQ(found.verdict(), Verdict::Tolerated);
    found.codes("Read", S_OK, opcda::client::Errors({S_OK, E_FAIL}), {{S_OK}, {OPC_E_INVALIDHANDLE, E_INVALIDARG}});
    EXPECT_EQ(found.verdict(), Verdict::Failed);
    EXPECT_EQ(found.came(), "Read: S_OK, not S_FALSE; Read, item 2: E_FAIL, not OPC_E_INVALIDHANDLE or E_INVALIDARG");
    found.codes("Write", std::nullopt, {{S_OK}});
    EXPECT_THAT(found.came(), HasSubstr("Write: no code for each item"));
    EXPECT_THROW(found.skip("too late to skip"), Findings::Stop);
    EXPECT_EQ(found.verdict(), Verdict::Failed) << "and a later need to stop hides nothing";
}

TEST(CheckReport, SumsUpByVersion) {
    const Case cases[] = {{1, Version::Da2, "a", "b", nullptr},
                          {2, Version::Da2, "c<", "d", nullptr},
                          {3, Version::Da3, "e", "f", nullptr},
                          {4, Version::Da3, "g", "h", nullptr}};
    const Area area{1, "Area", cases};
    std::vector<Ran> ran{{&area, &cases[0], Verdict::Passed, "", "", 1},
                         {&area, &cases[1], Verdict::Failed, "x\"", "", 2},
                         {&area, &cases[2], Verdict::Failed, "y", "by design", 3},
                         {&area, &cases[3], Verdict::Skipped, "z", "", 4}};
    EXPECT_THAT(summary(ran), ElementsAre("DA 2.05a: 1 of 2 (1 failed)", "DA 3.0: 0 of 1 (1 known, 1 skipped)"));
    EXPECT_THAT(linesOf(ran[1]), ElementsAre("   2 failed    c<", "       expected: d", "       came: x\""));
    EXPECT_EQ(answerOf(ran).code, ExitCode::ItemFailed);
    const std::string path = testing::TempDir() + "junit.xml";
    writeJunit(path, ran);
    std::ifstream file(path);
    const std::string junit{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(junit, HasSubstr("name=\"2 c&lt;\" time=\"0.002\"><failure message=\"x&quot;\">expected: d</failure>"));
    EXPECT_THAT(junit, HasSubstr("tests=\"4\" failures=\"1\""));
    ran[1].known = "by design too";
    EXPECT_EQ(answerOf(ran).code, ExitCode::Good);
}

TEST(CheckKnown, AreNumbersWithReasons) {
    const std::string path = testing::TempDir() + "known.txt";
    const auto write = [&path](const char* text) { std::ofstream(path) << text; };
    write("# ours\n\n86 clients expect E_FAIL\n");
    EXPECT_EQ(readKnown(path), (Known{{86, "clients expect E_FAIL"}}));
    for (const char* wrong : {"86\n", "x reason\n", "-\n"}) {
        write(wrong);
        EXPECT_THROW(readKnown(path), UsageError) << wrong;
    }
}

TEST(CheckCases, HaveNumbersOfTheirOwn) {
    std::set<int> numbers;
    for (const Ran& ran : chosen({})) {
        EXPECT_TRUE(numbers.insert(ran.what->number).second) << ran.what->number;
    }
    EXPECT_EQ(chosen({{29, 200, 201}, false, {}}).size(), 2U);
}

}  // namespace
