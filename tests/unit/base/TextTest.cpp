#include "base/Text.h"

#include <gtest/gtest.h>

#include "base/Collection.h"
#include "base/Raised.h"
#include "base/Utf.h"

namespace quelm {
namespace {

TEST(TextTest, FoldsEveryScript) {
    struct Case {
        const char *text, *folded, *upper;
    };
    const Case cases[] = {
        {"Kessel 1", "kessel 1", "KESSEL 1"},
        {"ÄÖÜß×÷Ÿ", "äöüß×÷ÿ", "ÄÖÜß×÷Ÿ"},
        {"ΑΒΣς", "αβσσ", "ΑΒΣΣ"},
        {"Ａ５", "ａ５", "Ａ５"},
        {"µ", "μ", "Μ"},
        {"ẞ", "ß", "ẞ"},
        {"İı", "İı", "İı"},
        {"\u212A\u2160", "k\u2170", "K\u2160"},
        {"\U00010400", "\U00010428", "\U00010400"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(foldCase(c.text), c.folded) << c.text;
        EXPECT_TRUE(equalsIgnoringCase(c.text, c.folded)) << c.text;
        EXPECT_EQ(FoldedKey(c.text).view(), c.folded);
        EXPECT_EQ(toUpperCase(c.text), c.upper) << c.text;
    }
    EXPECT_FALSE(equalsIgnoringCase("a", "ab"));
    EXPECT_FALSE(equalsIgnoringCase("ä", "a"));
    EXPECT_EQ(foldCase("\xFFÄ\xC3"), "\xFFä\xC3") << "a byte that is no UTF-8 stays as it is";
    EXPECT_TRUE(equalsIgnoringCase("A\xFF", "a\xFF"));
    for (const char* other : {"a\xFE", "a\uFFFD", "aÿ"}) {
        EXPECT_FALSE(equalsIgnoringCase("a\xFF", other)) << other;
    }
}

TEST(TextTest, CountsCharactersNotBytes) {
    EXPECT_EQ(characterCount("äß漢\U0001F600"), 4U);
    EXPECT_EQ(leftCharacters("äß漢x", 2), "äß");
    EXPECT_EQ(leftCharacters("äß", 9), "äß");
    EXPECT_EQ(characterCount("a\xFF\xC3"), 3U);
    EXPECT_EQ(leftCharacters("a\xFF\xC3", 2), "a\xFF");
}

TEST(TextTest, TrimsBlanksOnly) {
    EXPECT_EQ(trimBlanks("  a b\t "), "a b\t");
    EXPECT_EQ(trimBlanks("   "), "");
    EXPECT_EQ(trimLeftBlanks("  a "), "a ");
}

TEST(UtfTest, BrokenSequencesBecomeTheReplacement) {
    struct Case {
        std::string_view utf8;
        std::u16string utf16;
    };
    const Case cases[] = {
        {"a€\U0001F600", u"a\u20AC\U0001F600"},  {"\xC0\x80", u"\uFFFD\uFFFD"},  // overlong
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},                                 // surrogate
        {"\xF5\x80", u"\uFFFD\uFFFD"},           {"\xE2\x82", u"\uFFFD\uFFFD"},  // cut short
    };
    for (const Case& c : cases) {
        EXPECT_EQ(utf8ToUtf16(c.utf8), c.utf16);
    }
    EXPECT_EQ(utf16ToUtf8(std::u16string{u'a', char16_t{0xD800}, u'b', char16_t{0xDC00}}), "a\uFFFDb\uFFFD");
    EXPECT_EQ(utf16ToUtf8(u"\U0001F600"), "\U0001F600");
}

}  // namespace
}  // namespace quelm
