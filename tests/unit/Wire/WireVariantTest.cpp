#include "OPC DA/wire/WireVariant.h"

#include <functional>

#include "WireSupport.h"

namespace quelm::opcda::wire::test {
namespace {

struct Encoding {
    const char* name;
    std::function<void(OpcValue&)> fill;
    const char* hex;
};

const std::vector<std::string> threeTexts{"ab", "", "\xC3\x84"};

const std::vector<Encoding> encodings{
    {"nothing", [](OpcValue&) {}, "03000000 00000000 0000 000000000000 00000000"},
    {"null", [](OpcValue& v) { v.type = VT_NULL; }, "03000000 00000000 0100 000000000000 01000000"},
    {"I1", [](OpcValue& v) { v.type = VT_I1, v.integer = -2; },
     "03000000 00000000 1000 000000000000 10000000 FE000000"},
    {"UI1", [](OpcValue& v) { v.type = VT_UI1, v.integer = 200; },
     "03000000 00000000 1100 000000000000 11000000 C8000000"},
    {"I2", [](OpcValue& v) { v.type = VT_I2, v.integer = -2; },
     "03000000 00000000 0200 000000000000 02000000 FEFF0000"},
    {"UI2", [](OpcValue& v) { v.type = VT_UI2, v.integer = 0xFFFE; },
     "03000000 00000000 1200 000000000000 12000000 FEFF0000"},
    {"BOOL true", [](OpcValue& v) { v.type = VT_BOOL, v.integer = -1; },
     "03000000 00000000 0B00 000000000000 0B000000 FFFF0000"},
    {"BOOL false", [](OpcValue& v) { v.type = VT_BOOL; }, "03000000 00000000 0B00 000000000000 0B000000 00000000"},
    {"I4", [](OpcValue& v) { v.type = VT_I4, v.integer = -2; },
     "03000000 00000000 0300 000000000000 03000000 FEFFFFFF"},
    {"UI4", [](OpcValue& v) { v.type = VT_UI4, v.integer = 0xFFFFFFFE; },
     "03000000 00000000 1300 000000000000 13000000 FEFFFFFF"},
    {"INT", [](OpcValue& v) { v.type = VT_INT, v.integer = -2; },
     "03000000 00000000 1600 000000000000 16000000 FEFFFFFF"},
    {"UINT", [](OpcValue& v) { v.type = VT_UINT, v.integer = 1; },
     "03000000 00000000 1700 000000000000 17000000 01000000"},
    {"ERROR", [](OpcValue& v) { v.type = VT_ERROR, v.integer = static_cast<std::int32_t>(0x80020004); },
     "03000000 00000000 0A00 000000000000 0A000000 04000280"},
    {"R4", [](OpcValue& v) { v.type = VT_R4, v.single = 12.5F; },
     "03000000 00000000 0400 000000000000 04000000 00004841"},
    {"R8", [](OpcValue& v) { v.type = VT_R8, v.real = 0.25; },
     "04000000 00000000 0500 000000000000 05000000 00000000 000000000000D03F"},
    {"DATE", [](OpcValue& v) { v.type = VT_DATE, v.real = 1.5; },
     "04000000 00000000 0700 000000000000 07000000 00000000 000000000000F83F"},
    {"CY", [](OpcValue& v) { v.type = VT_CY, v.integer = -1; },
     "04000000 00000000 0600 000000000000 06000000 00000000 FFFFFFFFFFFFFFFF"},
    {"I8", [](OpcValue& v) { v.type = VT_I8, v.integer = 2; },
     "04000000 00000000 1400 000000000000 14000000 00000000 0200000000000000"},
    {"UI8", [](OpcValue& v) { v.type = VT_UI8, v.integer = -1; },
     "04000000 00000000 1500 000000000000 15000000 00000000 FFFFFFFFFFFFFFFF"},
    {"DECIMAL",
     [](OpcValue& v) {
         v.type = VT_DECIMAL, v.decimal = Decimal{125, 9, 1, true};
     },
     "05000000 00000000 0E00 000000000000 0E000000 00000000 0000 01 80 09000000 7D00000000000000"},
    // Referent, words, bytes, words, units without NUL.
    {"BSTR", [](OpcValue& v) { v.type = VT_BSTR, v.text = "Ab\xC3\x84"; },
     "06000000 00000000 0800 000000000000 08000000 04000200 03000000 06000000 03000000 4100 6200 C400"},
    {"empty BSTR", [](OpcValue& v) { v.type = VT_BSTR; },
     "05000000 00000000 0800 000000000000 08000000 04000200 00000000 00000000 00000000"},
    {"BSTR beyond the basic plane", [](OpcValue& v) { v.type = VT_BSTR, v.text = "\xF0\x9F\x98\x80"; },
     "05000000 00000000 0800 000000000000 08000000 04000200 02000000 04000000 02000000 3DD8 00DE"},
    {"array of BSTR", [](OpcValue& v) { v.type = VT_BSTR_ARRAY, v.texts = threeTexts; },
     "10000000 00000000 0820 000000000000 00200000"  // type 0x2008, the union's arm 0x2000
     "04000200 08000200"                             // two pointers
     "01000000 0100 8001 04000000 00000800"          // dimensions, features, element size, type
     "08000000 03000000 0C000200 03000000 00000000"  // kind, elements, data, bounds
     "03000000 10000200 14000200 18000200"           // the elements' referents
     "02000000 04000000 02000000 6100 6200"          // "ab", "", one character
     "00000000 00000000 00000000"
     "01000000 02000000 01000000 C400"},
    {"array without elements", [](OpcValue& v) { v.type = VT_BSTR_ARRAY; },
     "09000000 00000000 0820 000000000000 00200000 04000200 08000200"
     "01000000 0100 8001 04000000 00000800 08000000 00000000 0C000200 00000000 00000000 00000000"},
};

TEST(WireVariantTest, WritesEveryTypeAndPassesOverWhatItWrote) {
    for (const Encoding& encoding : encodings) {
        SCOPED_TRACE(encoding.name);
        OpcValue value;
        encoding.fill(value);
        Bytes bytes;
        dcom::ndr::Writer out(bytes);
        writeVariant(out, value);
        EXPECT_HEX(bytes, encoding.hex);

        dcom::ndr::Reader in(bytes);
        skipVariant(in);
        EXPECT_TRUE(in.good());
        in.align(4);  // one- and two-byte values are padded
        EXPECT_EQ(in.remaining(), 0U);
    }
}

// A body starts on a multiple of 8, wherever the one before it ended.
TEST(WireVariantTest, AlignsBodies) {
    Bytes bytes;
    dcom::ndr::Writer out(bytes);
    out.u32(0xEEEEEEEE);
    OpcValue text;
    text.type = VT_BSTR;
    text.text = "x";
    writeVariant(out, text);
    writeVariant(out, OpcValue());
    EXPECT_HEX(bytes,
               "EEEEEEEE 00000000 05000000 00000000 0800 000000000000 08000000 04000200"
               "01000000 02000000 01000000 7800 0000"
               "03000000 00000000 0000 000000000000 00000000");
}

struct Foreign {
    const char* name;
    const char* hex;
};

constexpr const char* head = "07000000 00000000 ";

// Their reserved words are as some clients leave them.
const std::vector<Foreign> foreign{
    {"TRUE as 1", "0B00 CCCCCCCCCCCC 0B000000 0100"},
    {"null BSTR", "0800 CCCCCCCCCCCC 08000000 00000000"},
    {"BSTR without contents", "0800 CCCCCCCCCCCC 08000000 55736572 00000000 FFFFFFFF 00000000"},
    {"reference to R8", "0540 CCCCCCCCCCCC 05400000 55736572 0000000000000440"},
    {"reference to BSTR", "0840 CCCCCCCCCCCC 08400000 55736572 01000000 01000000 02000000 01000000 4100"},
    {"null reference", "0340 CCCCCCCCCCCC 03400000 00000000"},
    {"reference to VARIANT",
     "0C40 CCCCCCCCCCCC 0C400000 55736572 66000000 00000000 03000000 00000000 0300 000000000000 03000000 05000000"},
    {"IUnknown", "0D00 CCCCCCCCCCCC 0D000000 55736572 04000000 04000000 4D454F57"},
    {"array of I2",
     "0220 CCCCCCCCCCCC 00200000 55736572 01000000 01000000 0100 8000 02000000 00000200 02000000 03000000 55736572"
     "03000000 00000000 03000000 0100 0200 0300"},
    {"array of R8 in two dimensions",
     "0520 CCCCCCCCCCCC 00200000 55736572 01000000 02000000 0200 8000 08000000 00000500 14000000 02000000 55736572"
     "01000000 00000000 02000000 00000000 02000000 00000000 000000000000D03F 000000000000D03F"},
    {"array of VARIANT",
     "0C20 CCCCCCCCCCCC 00200000 55736572 01000000 01000000 0100 8008 10000000 00000C00 0C000000 02000000 55736572"
     "02000000 00000000 02000000 55736572 00000000 00000000 03000000 00000000 0300 000000000000 03000000 05000000"},
};

TEST(WireVariantTest, PassesOverWhatClientsSend) {
    for (const Foreign& each : foreign) {
        SCOPED_TRACE(each.name);
        const Bytes bytes = fromHex(std::string(head) + each.hex);
        dcom::ndr::Reader in(bytes);
        skipVariant(in);
        EXPECT_TRUE(in.good());
        EXPECT_EQ(in.remaining(), 0U);
        for (std::size_t size = 0; size < bytes.size(); ++size) {
            dcom::ndr::Reader cut{std::span(bytes).first(size)};
            skipVariant(cut);
            EXPECT_FALSE(cut.good()) << size << " bytes";
        }
    }
}

TEST(WireVariantTest, RefusesWhatContradictsItself) {
    const std::string start = std::string(head);
    for (const char* hex : {
             "2400 CCCCCCCCCCCC 24000000 55736572 00000000 00000000",  // a record
             "FF7F CCCCCCCCCCCC FF7F0000 55736572",                    // no type at all
             "0800 CCCCCCCCCCCC 08000000 55736572 02000000 02000000 01000000 4100 4200",
             "0800 CCCCCCCCCCCC 08000000 55736572 FFFFFFFF 02000000 FFFFFFFF 4100",
             "0D00 CCCCCCCCCCCC 0D000000 55736572 FFFFFFFF FFFFFFFF 4D454F57",
             "0220 CCCCCCCCCCCC 00200000 55736572 01000000 FFFF0000 FFFF 8000 02000000 00000200 02000000 03000000",
             "0820 CCCCCCCCCCCC 00200000 55736572 01000000 01000000 0100 8001 04000000 00000800 08000000 FFFFFFFF"
             "55736572 FFFFFFFF 00000000 FFFFFFFF 55736572",
         }) {
        const Bytes bytes = fromHex(start + hex);
        dcom::ndr::Reader in(bytes);
        skipVariant(in);
        EXPECT_FALSE(in.good()) << hex;
    }
}

// Variants in arrays of variants in arrays of variants: no request drives the stack out of bounds.
TEST(WireVariantTest, RefusesBottomlessNesting) {
    const Bytes level = fromHex(
        "07000000 00000000 0C20 000000000000 00200000 55736572 01000000 01000000 0100 8008 10000000 00000C00"
        "0C000000 01000000 55736572 01000000 00000000 01000000 55736572");
    const Bytes bottom = fromHex("03000000 00000000 0000 000000000000 00000000");
    const auto isPassedOver = [&](int levels) {
        Bytes bytes;
        for (int i = 0; i < levels; ++i) {
            bytes.insert(bytes.end(), level.begin(), level.end());
        }
        bytes.insert(bytes.end(), bottom.begin(), bottom.end());
        dcom::ndr::Reader in(bytes);
        skipVariant(in);
        return in.good() && in.remaining() == 0;
    };
    EXPECT_TRUE(isPassedOver(3));
    EXPECT_FALSE(isPassedOver(9));
    EXPECT_FALSE(isPassedOver(100'000));
}

}  // namespace
}  // namespace quelm::opcda::wire::test
