#include "OPC/Tools/Arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quelm::tools {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Request parse(const std::vector<std::string>& words, Origin origin = Origin::CommandLine) {
    return parseArguments(words, origin);
}

template <class Which>
Which parsed(const std::vector<std::string>& words) {
    return std::get<Which>(parse(words).command);
}

std::string refused(const std::vector<std::string>& words, Origin origin = Origin::CommandLine) {
    try {
        parse(words, origin);
    } catch (const UsageError& error) {
        return error.what();
    }
    return "(taken)";
}

TEST(Arguments, TheValueToWriteIsOfTheTypeThatIsAskedForAndNoOther) {
    const std::pair<std::vector<std::string>, Variant> cases[] = {
        {{"-12"}, Variant(std::int32_t{-12})},
        {{"2147483648"}, Variant(2147483648.0)},
        {{"--type", "text", "12"}, Variant("12")},
        {{"--type=text", ""}, Variant("")},
        {{"--type=text", "[7]"}, Variant("[7]")},
        {{"--type=text", "show"}, Variant("show")},
        {{"-1.5e-3"}, Variant(-1.5e-3)},
        {{"--type=text", "--", "--priority"}, Variant("--priority")},
        {{"--type", "bool", "true"}, Variant(true)},
        {{"0", "--type", "bool"}, Variant(false)},
        {{"--type", "null"}, Variant::null()},
    };
    for (const auto& [given, value] : cases) {
        std::vector<std::string> words{"write", "7"};
        words.insert(words.end(), given.begin(), given.end());
        EXPECT_EQ(parsed<WriteCommand>(words).value, value) << testing::PrintToString(words);
    }
}

TEST(Arguments, AValueThatCouldMeanSomethingElseIsRefused) {
    for (const char* text : {"", " 1", "1 ", "+1", "1,5", "1 000", "0x10", "&H10", "12a", "1e999", "inf", "nan", "-"}) {
        EXPECT_THAT(refused({"write", "7", text}), HasSubstr("is not a number")) << text;
    }
    for (const char* text : {"yes", "TRUE", "2", ""}) {
        EXPECT_THAT(refused({"write", "7", text, "--type", "bool"}), HasSubstr("neither true nor false")) << text;
    }
}

TEST(Arguments, ChannelsAreWholeNumbersWithOrWithoutTheirLetter) {
    EXPECT_EQ(parsed<ShowCommand>({"show", "7"}).channel, 7);
    EXPECT_EQ(parsed<ShowCommand>({"show", "C1999999999"}).channel, 1999999999);
    for (const char* text : {"0", "-7", "2000000000", "99999999999", "7.0", "C", "CC7", "seven", ""}) {
        EXPECT_THAT(refused({"show", text}), HasSubstr("CHANNEL must be")) << text;
    }
}

TEST(Arguments, WaitTakesTheNumberThatFollows) {
    EXPECT_EQ(parsed<RefreshCommand>({"refresh", "12"}).waitSeconds, std::nullopt);
    EXPECT_EQ(parsed<RefreshCommand>({"refresh", "12", "--wait", "5"}).waitSeconds, 5);
    EXPECT_EQ(parsed<RefreshCommand>({"refresh", "--wait=5", "12"}).waitSeconds, 5);
    const auto defaultWait = parsed<RefreshCommand>({"refresh", "12;13", "--wait"});
    EXPECT_EQ(defaultWait.channels, "12;13");
    EXPECT_EQ(defaultWait.waitSeconds, defaultWaitSeconds);
    EXPECT_THAT(refused({"refresh", "--wait", "12"}), HasSubstr("right behind --wait"));
    for (const char* seconds : {"--wait=0", "--wait=-1", "--wait=1.5", "--wait=86401"}) {
        EXPECT_THAT(refused({"refresh", "12", seconds}), HasSubstr("--wait must be")) << seconds;
    }
}

TEST(Arguments, WhatIsNotUnderstoodIsNamed) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{}, "no command"},
        {{"flush"}, "'flush' is no command"},
        {{"health", "--force"}, "health does not take '--force'"},
        {{"health", "show"}, "health does not take 'show'"},
        {{"health", "--json=1"}, "json was given a disallowed"},
        {{"health", "--json", "--json"}, "--json"},
        {{"health", "--site", "A", "--site", "B"}, "--site"},
        {{"health", "--site"}, "--site"},
        {{"show"}, "CHANNEL is missing"},
        {{"write", "7"}, "VALUE is missing"},
        {{"write", "7", "1", "--type", "null"}, "no VALUE"},
        {{"write", "7", "1", "--type", "Number"}, "--type must be"},
        {{"write", "7", "1", "2"}, "write does not take '2'"},
        {{"list", "700", "--blocks", "2"}, "--block-length"},
        {{"list", "700", "--blocks", "1001"}, "from 1 to 1000"},
        {{"list", "700", "--pid", "x"}, "not a PID"},
    };
    for (const auto& [words, reason] : cases) {
        EXPECT_THAT(refused(words), HasSubstr(reason)) << testing::PrintToString(words);
    }
}

TEST(Arguments, AShellLineCannotChangeTheSiteOrOpenAnotherShell) {
    EXPECT_THAT(refused({"health", "--site", "SOUTH"}, Origin::ShellLine), HasSubstr("does not take '--site'"));
    EXPECT_THAT(refused({"shell"}, Origin::ShellLine), HasSubstr("no command"));
    EXPECT_TRUE(std::holds_alternative<ShellCommand>(parse({"shell", "--site", "SOUTH"}).command));
}

TEST(SplitLine, QuotesHoldWordsTogether) {
    EXPECT_THAT(splitLine("  write 7\t12.5 \r"), ElementsAre("write", "7", "12.5"));
    EXPECT_THAT(splitLine(R"(write 7 --type text "a  'b'" 'c"d'e "")"),
                ElementsAre("write", "7", "--type", "text", "a  'b'", "c\"de", ""));
    EXPECT_THROW(splitLine("write 7 'a"), UsageError);
}

}  // namespace
}  // namespace quelm::tools
