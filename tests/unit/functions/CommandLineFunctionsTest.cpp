#include "OPC/OPC DA Server/CommandLineFunctions.h"

#include <gtest/gtest.h>

#include <map>

#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/TimeSource.h"

namespace quelm {
namespace {

// Kind and contents in one text, so that a table shows both.
std::string shown(const Variant& value) {
    static const std::map<VariantKind, std::string> kinds{{VariantKind::Null, "null"},
                                                          {VariantKind::Empty, "empty"},
                                                          {VariantKind::Int32, "number "},
                                                          {VariantKind::Date, "date "},
                                                          {VariantKind::Text, "text "}};
    return kinds.at(value.kind()) + naturalText(value);
}

TEST(CommandLineFunctionsTest, SwitchesAndPlainValues) {
    struct Case {
        const char *commandLine, *name, *plain, *asText;
    };
    const Case cases[] = {
        {"", "visible", "null", "null"},
        {"/INVISIBLE", "visible", "empty", "empty"},
        {"/SITE=A /x=1", "site=", "text A", "text A"},
        {"/n=42", "n=", "number 42", "text 42"},
        {"/n= 3.5 /m", "n=", "number 4", "text 3.5"},
        {"/n=&HFFFF", "n=", "number -1", "text &HFFFF"},
        {"/n=   /m=1", "n=", "empty", "empty"},
        {"/n=2026-01-02 03:04", "n=", "date 2026-01-02 03:04:00", "text 2026-01-02 03:04"},
        {"/d=2026/01/02", "d=", "number 2026", "text 2026"},
        {"/t=\"a\"\"b/c\"", "t=", "text a\"\"b", "text a\"b/c"},
        {"/t=\"a/b\" /u=1", "t=", "text a", "text a/b"},
        {"/t=\"\"", "t=", "empty", "empty"},
        {"/t=\"open\"\"", "t=", "text open\"", "text open\""},
        {"/t=\"a\"tail", "t=", "text a\"tail", "text a"},
        {"/ä=Ö /b", "Ä=", "text Ö", "text Ö"},
        {"/a/b=1", "a/b=", "empty", "empty"},
        {"/a=1/a=2", "a=", "number 1", "text 1"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(shown(GetCommandLineArg(c.commandLine, c.name, false, false)), c.plain) << c.commandLine;
        EXPECT_EQ(shown(GetCommandLineArg(c.commandLine, c.name, false, true)), c.asText) << c.commandLine;
    }
    EXPECT_THROW(GetCommandLineArg("/n=3000000000", "n=", false, false), RuntimeError);
}

TEST(CommandLineFunctionsTest, DateKeywords) {
    const std::pair<const char*, const char*> cases[] = {
        {"now", "2026-05-15 10:20:00"},
        {"NOW-30", "2026-05-15 09:50:00"},
        {"currenthour-11", "2026-05-14 23:00:00"},
        {"currenthourend-1", "2026-05-15 09:59:00"},
        {"today", "2026-05-15"},
        {"CurrentDay-15", "2026-04-30"},
        {"today+1", "2026-05-15"},
        {"currentmonth-5", "2025-12-01"},
        {"currentquarter-2", "2025-10-01"},
        {"currenthalfyear-1", "2025-07-01"},
        {"currentyear-26", "2000-01-01"},
        {"currentyearend-1", "2025-12-31 23:59:00"},
    };
    ManualTimeSource source(makeDate(2026, 5, 15, 10, 20, 30));
    source.advanceMilliseconds(700);
    const ScopedTimeSource inForce(source);
    for (const auto& [value, date] : cases) {
        const std::string commandLine = "/from=\"" + std::string(value) + "\"";
        EXPECT_EQ(shown(GetCommandLineArg(commandLine, "from=", true, false)), "date " + std::string(date)) << value;
    }
}

TEST(CommandLineFunctionsTest, DateMode) {
    const std::pair<const char*, const char*> cases[] = {
        {"/from=#2026-01-02 03:04#", "date 2026-01-02 03:04:00"},
        {"/from=#today#", "text today"},
        {"/from=## /from=\"today\"", "date 2026-05-15"},
        {"/from=\" today-1 \"", "date 2026-05-14"},
        {"/from=\"today-1", "date 2026-05-14"},
        {"/from=\"some day\"", "text some day"},
        {"/from=today", "empty"},
        {"/FROM=\"today\"", "empty"},
    };
    ManualTimeSource source(makeDate(2026, 5, 15, 10, 20, 30));
    const ScopedTimeSource inForce(source);
    for (const auto& [commandLine, result] : cases) {
        EXPECT_EQ(shown(GetCommandLineArg(commandLine, "from=", true, false)), result) << commandLine;
    }
    EXPECT_EQ(shown(GetCommandLineArg("/from=\"today-1\"", "from=", true, true)), "text 2026-05-14");
    for (const char* value : {"currentquarter-1000000000", "today-3000000000", "today-9999999", "currentyear-9000"}) {
        EXPECT_THROW(GetCommandLineArg("/from=\"" + std::string(value) + "\"", "from=", true, false), RuntimeError)
            << value;
    }
}

}  // namespace
}  // namespace quelm
