#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Shared Types/Conversion.h"
#include "Shared Types/RuntimeError.h"

namespace quelm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Messages final : public IRaiseMsg {
 public:
    void RaiseMsg(std::int32_t lngMsgType, std::string_view strDescription) override {
        lines.push_back(std::to_string(lngMsgType) + " " + std::string(strDescription));
    }
    std::vector<std::string> lines;
};

TEST(UtilityXMLDOMFunctionsTest, DocumentsThatDoNotParse) {
    const std::string forty(40, 'x');
    struct Case {
        std::string xml;
        std::string excerpt;
    };
    const Case cases[] = {
        {"", ""},
        {forty, forty},
        {forty + "y", forty + "..."},
        {"<a>ä", "<a>ä"},
        {"<!DOCTYPE a><a/>", "<!DOCTYPE a><a/>"},
    };
    for (const Case& c : cases) {
        Messages messages;
        EXPECT_TRUE(LoadXMLDocument(&messages, c.xml).isNothing());
        EXPECT_THAT(messages.lines, ElementsAre("4 XMLDOM-0001: Cannot parse XML document; " + c.excerpt));
        EXPECT_TRUE(LoadXMLDocument(nullptr, c.xml).isNothing());
    }
}

TEST(UtilityXMLDOMFunctionsTest, Fragments) {
    struct Case {
        const char* fragment;
        const char* xpath;
        const char* text;
    };
    const Case cases[] = {
        {"", ".", ""},
        {"<a>1</a><b>2</b>", "b", "2"},
        {"<a>$1 $$</a>$", "a", "$1 $$"},
        {"text only", ".", "text only"},
        {"<a> 12.5 </a>", "a", "12.5"},
        {"<a>1</a>", "c", ""},
    };
    for (const Case& c : cases) {
        Messages messages;
        const XmlDocument document = LoadXMLFragment(&messages, c.fragment);
        ASSERT_FALSE(document.isNothing()) << c.fragment;
        EXPECT_EQ(GetNodeText(document.documentElement(), c.xpath), c.text) << c.fragment;
        EXPECT_THAT(messages.lines, IsEmpty());
    }
}

TEST(UtilityXMLDOMFunctionsTest, AFragmentThatDoesNotParseIsReportedTwice) {
    struct Case {
        std::string fragment;
        std::string first;
        std::string second;
    };
    const std::string tag = "<Z76335016_A23E_E011_A164_0019B97C8595>";
    const Case cases[] = {
        {"<a>", tag + "<...", "<a>"},
        {"ä&", tag + "ä...", "ä&"},
        {"<?xml version='1.0'?><a/>", tag + "<...", "<?xml version='1.0'?><a/>"},
        {"</Z76335016_A23E_E011_A164_0019B97C8595><b>", tag + "<...", "</Z76335016_A23E_E011_A164_0019B97C8595>..."},
    };
    for (const Case& c : cases) {
        Messages messages;
        EXPECT_TRUE(LoadXMLFragment(&messages, c.fragment).isNothing());
        EXPECT_THAT(messages.lines, ElementsAre("4 XMLDOM-0001: Cannot parse XML document; " + c.first,
                                                "4 XMLDOM-0005: Cannot parse XML fragment; " + c.second));
        EXPECT_TRUE(LoadXMLFragment(nullptr, c.fragment).isNothing());
    }
}

TEST(UtilityXMLDOMFunctionsTest, NodeAndAttributeTexts) {
    const XmlDocument document = LoadXMLDocument(nullptr, "<CSV separator=' , ' empty=''>1<b>x</b></CSV>");
    const XmlNode root = document.documentElement();
    EXPECT_EQ(GetAttributeText(root, "separator"), ",");
    EXPECT_EQ(GetAttributeText(root, "empty"), "");
    EXPECT_EQ(GetAttributeText(root, "missing"), "");
    EXPECT_EQ(GetAttributeText(XmlNode(), "separator"), "");
    EXPECT_EQ(GetNodeText(XmlNode(), "b["), "");
    EXPECT_THROW(GetNodeText(root, "b["), RuntimeError);
    EXPECT_THROW(GetNodeDate(root, "b["), RuntimeError);
}

TEST(UtilityXMLDOMFunctionsTest, Dates) {
    struct Case {
        const char* text;
        const char* shown;
    };
    const Case cases[] = {
        {"2013-04-05T06:07:08.5", "2013-04-05 06:07:08"},
        {"2013-04-05T06:07:08.123+02:00", "2013-04-05 06:07:08"},
        {"2013-04-05T06:07:08", "2013-04-05 06:07:08"},
        {"2013-04-05 06:07:08", "2013-04-05 06:07:08"},
        {"2013-04-05", "2013-04-05"},
        {"06:07:08", "06:07:08"},
        {"T06:07:08.9", "06:07:08"},
        {"2013-04-05T06:07:08Z", "00:00:00"},
        {"2013-04-05T06:07:08.5Z", "2013-04-05 06:07:08"},
        {"2013-04-05t06:07:08", "00:00:00"},
        {"2013-04-05 06:07:08.5", "00:00:00"},
        {"2013-02-30T00:00:00", "00:00:00"},
        {"Tomorrow", "00:00:00"},
        {"", "00:00:00"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(dateText(XMLTextToDate(c.text)), c.shown) << c.text;
        const XmlDocument document = LoadXMLFragment(nullptr, "<Start> " + std::string(c.text) + " </Start>");
        const Variant date = GetNodeDate(document.documentElement(), "Start");
        ASSERT_EQ(date.kind(), VariantKind::Date);
        EXPECT_EQ(dateText(date.date()), c.shown) << c.text;
        EXPECT_TRUE(GetNodeDate(document.documentElement(), "Finish").isEmpty());
    }
    EXPECT_TRUE(GetNodeDate(XmlNode(), "Start").isEmpty());
}

}  // namespace
}  // namespace quelm
