#include "OPC/Client/Options.h"

#include <gmock/gmock.h>

#include <sstream>

using namespace quelm::opcclient;
using quelm::dcom::rpc::AuthLevel;
using testing::HasSubstr;

namespace {

Options parsed(const std::string& line) {
    std::istringstream in(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
    return parseOptions(words);
}

TEST(OpcdaOptions, SayWhatIsAskedOfWhichServerAndAsWhom) {
    const Options read = parsed(R"(read plant:1135 A.B -U DOM\me C --level privacy --json --max-age 5000 --timeout 3)");
    EXPECT_EQ(read.command, Command::Read);
    EXPECT_EQ(std::tie(read.host, read.domain, read.user), std::make_tuple("plant", "DOM", "me"));
    EXPECT_EQ(read.port, 1135);
    EXPECT_EQ(read.items, (std::vector<std::string>{"A.B", "C"}));
    EXPECT_EQ(read.level, AuthLevel::Privacy);
    EXPECT_EQ(read.form, Form::Json);
    EXPECT_EQ(read.maxAge, 5000U);
    EXPECT_EQ(read.limit, std::chrono::seconds(3));

    const Options check = parsed("--user me@plant.local check h --case 3,1 --case 7 --callback 10.0.0.1:4000 -s P.S.1");
    EXPECT_EQ(std::tie(check.user, check.domain), std::make_tuple("me", "plant.local"));
    EXPECT_EQ(check.cases, (std::set<int>{1, 3, 7}));
    EXPECT_EQ(check.callbackAddress, "10.0.0.1");
    EXPECT_EQ(check.callbackPort, 4000);
    EXPECT_EQ(check.server, "P.S.1");
    EXPECT_EQ(parsed("status h P.S.1").server, "P.S.1");
    EXPECT_TRUE(parsed("check --list").listsCases);
    EXPECT_EQ(parsed("--help").command, Command::Help);
}

TEST(OpcdaOptions, RefuseWhatCannotBeMeant) {
    const std::pair<const char*, const char*> cases[] = {{"", "no command"},
                                                         {"read h", "at least one ITEM"},
                                                         {"status", "needs a HOST"},
                                                         {"status :135", "needs a HOST"},
                                                         {"status h:0", "1 to 65535"},
                                                         {"status h:x", "whole number"},
                                                         {"read h A --device --max-age 1", "exclude"},
                                                         {"read h A --max-age -1", "whole number"},
                                                         {"read h A --json --csv", "exclude"},
                                                         {"read h A --level none", "--level is"},
                                                         {R"(read h A -U DOM\)", "names no user"},
                                                         {"read h A --password-file f", "without --user"},
                                                         {"check h --case 201", "1 to 200"},
                                                         {"check h --writes", "--item"},
                                                         {"watch h A --rate 3600001", "3600000"},
                                                         {"status h --depth 2", "not expected"}};
    for (const auto& [line, words] : cases) {
        try {
            parsed(line);
            ADD_FAILURE() << line;
        } catch (const UsageError& error) {
            EXPECT_THAT(error.what(), HasSubstr(words)) << line;
        }
    }
}

}  // namespace
