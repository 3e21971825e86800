#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"

#include <gmock/gmock.h>

#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "server/LibraryFakes.h"

namespace quelm {
namespace {

using fakes::Messages;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(UtilityXMLDOMFunctionsTest, DocumentsThatDoNotParse) {
    const std::string forty(40, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, {forty, forty}, {forty + "y", forty + "..."}, {"<!DOCTYPE a><a/>", "<!DOCTYPE a><a/>"}};
    for (const auto& [xml, excerpt] : cases) {
        Messages messages;
        EXPECT_TRUE(LoadXMLDocument(&messages, xml).isNothing());
        EXPECT_THAT(messages.lines, ElementsAre("4 XMLDOM-0001: Cannot parse XML document; " + excerpt));
        EXPECT_TRUE(LoadXMLDocument(nullptr, xml).isNothing());
    }
}

TEST(UtilityXMLDOMFunctionsTest, AFragmentThatDoesNotParseIsReportedTwice) {
    for (const std::string fragment : {"<a>", "</Z76335016_A23E_E011_A164_0019B97C8595><b>", "ä&"}) {
        Messages messages;
        EXPECT_TRUE(LoadXMLFragment(&messages, fragment).isNothing());
        EXPECT_THAT(messages.lines,
                    ElementsAre("4 XMLDOM-0001: Cannot parse XML document; <Z76335016_A23E_E011_A164_0019B97C8595>" +
                                    fragment.substr(0, fragment[0] == '<' ? 1 : 2) + "...",
                                "4 XMLDOM-0005: Cannot parse XML fragment; " + TruncateText(fragment, 40)));
        EXPECT_TRUE(LoadXMLFragment(nullptr, fragment).isNothing());
    }
}

TEST(UtilityXMLDOMFunctionsTest, Dates) {
    const std::pair<const char*, const char*> cases[] = {
        {"2013-04-05T06:07:08.5", "2013-04-05 06:07:08"},
        {"2013.04.05T06:07:08.5", "2013-04-05 06:07:08"},
        {"2013-04-05T06:07:08.123+02:00", "2013-04-05 06:07:08"},
        {"2013-04-05 06:07:08", "2013-04-05 06:07:08"},
        {"2013-04-05T06:07:08Z", "00:00:00"},
        {"2013-04-05t06:07:08", "00:00:00"},
        {"Tomorrow", "00:00:00"},
        {"", "00:00:00"},
    };
    for (const auto& [text, shown] : cases) {
        EXPECT_EQ(dateText(XMLTextToDate(text)), shown) << text;
        const XmlDocument document = LoadXMLFragment(nullptr, "<Start> " + std::string(text) + " </Start>");
        const Variant date = GetNodeDate(document.documentElement(), "Start");
        ASSERT_EQ(date.kind(), VariantKind::Date);
        EXPECT_EQ(dateText(date.date()), shown) << text;
        EXPECT_TRUE(GetNodeDate(document.documentElement(), "Finish").isEmpty());
    }
    EXPECT_TRUE(GetNodeDate(XmlNode(), "Start").isEmpty());
}

}  // namespace
}  // namespace quelm
