#include "opcda/wire/WireVariant.h"

#include "OpcSupport.h"

namespace quelm::opcda::wire::test {
namespace {

// size: of the body in units of 8 bytes. arm: of the union, with what it points to.
void expectWrittenAndPassedOver(const OpcValue& value, unsigned size, const char* arm) {
    SCOPED_TRACE(value.type);
    Bytes bytes;
    dcom::ndr::Writer out(bytes);
    writeVariant(out, value);
    Parameters expected;
    expected.u32(size).u32(0).u16(value.type).hex("000000000000");
    EXPECT_HEX(bytes, expected.u32(value.type == VT_BSTR_ARRAY ? 0x2000U : value.type).hex(arm));

    dcom::ndr::Reader in(bytes);
    skipVariant(in);
    EXPECT_TRUE(in.good());
    in.align(4);  // one- and two-byte values are padded
    EXPECT_EQ(in.remaining(), 0U);
}

TEST(WireVariantTest, Numbers) {
    const struct {
        VarType type;
        std::int64_t integer;
        double real;
        unsigned size;
        const char* arm;
    } cases[] = {
        {VT_EMPTY, 0, 0, 3, ""},
        {VT_NULL, 0, 0, 3, ""},
        {VT_I1, -2, 0, 3, "FE000000"},
        {VT_UI1, 200, 0, 3, "C8000000"},
        {VT_I2, -2, 0, 3, "FEFF0000"},
        {VT_UI2, 0xFFFE, 0, 3, "FEFF0000"},
        {VT_BOOL, -1, 0, 3, "FFFF0000"},
        {VT_I4, -2, 0, 3, "FEFFFFFF"},
        {VT_UI4, 0xFFFFFFFE, 0, 3, "FEFFFFFF"},
        {VT_INT, -2, 0, 3, "FEFFFFFF"},
        {VT_UINT, 1, 0, 3, "01000000"},
        {VT_ERROR, static_cast<std::int32_t>(0x80020004), 0, 3, "04000280"},
        {VT_R4, 0, 12.5, 3, "00004841"},
        {VT_R8, 0, 0.25, 4, "00000000 000000000000D03F"},
        {VT_DATE, 0, 1.5, 4, "00000000 000000000000F83F"},
        {VT_CY, -1, 0, 4, "00000000 FFFFFFFFFFFFFFFF"},
        {VT_I8, 2, 0, 4, "00000000 0200000000000000"},
        {VT_UI8, -1, 0, 4, "00000000 FFFFFFFFFFFFFFFF"},
        {VT_DECIMAL, 0, 0, 5, "00000000 0000 01 80 09000000 7D00000000000000"},
    };
    for (const auto& each : cases) {
        OpcValue value;
        value.type = each.type;
        value.integer = each.integer;
        value.real = each.real;
        value.single = static_cast<float>(each.real);
        value.decimal = Decimal{125, 9, 1, true};
        expectWrittenAndPassedOver(value, each.size, each.arm);
    }
}

TEST(WireVariantTest, Texts) {
    OpcValue text;
    text.type = VT_BSTR;
    text.text = "AbÄ";  // referent, words, bytes, words, units without NUL
    expectWrittenAndPassedOver(text, 6, "04000200 03000000 06000000 03000000 4100 6200 C400");
    text.text = "";
    expectWrittenAndPassedOver(text, 5, "04000200 00000000 00000000 00000000");
    text.text = "\U0001F600";
    expectWrittenAndPassedOver(text, 5, "04000200 02000000 04000000 02000000 3DD8 00DE");

    const std::vector<std::string> three{"ab", "", "Ä"};
    OpcValue array;
    array.type = VT_BSTR_ARRAY;
    expectWrittenAndPassedOver(array, 9,
                               "04000200 08000200 01000000 0100 8001 04000000 00000800"
                               "08000000 00000000 0C000200 00000000 00000000 00000000");
    array.texts = three;
    expectWrittenAndPassedOver(array, 16,
                               "04000200 08000200"                             // two pointers
                               "01000000 0100 8001 04000000 00000800"          // dimensions, features, size, type
                               "08000000 03000000 0C000200 03000000 00000000"  // kind, elements, data, bounds
                               "03000000 10000200 14000200 18000200"           // the elements' referents
                               "02000000 04000000 02000000 6100 6200"          // "ab", "", one character
                               "00000000 00000000 00000000"
                               "01000000 02000000 01000000 C400");
}

// Behind size and reserved word; some clients leave the reserved words behind the type as they are.
Bytes foreign(const char* hex) {
    return Parameters().u32(7).u32(0).hex(hex).bytes();
}

TEST(WireVariantTest, PassesOverWhatClientsSend) {
    const std::pair<const char*, const char*> cases[] = {
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
    for (const auto& [name, hex] : cases) {
        const Bytes bytes = foreign(hex);
        dcom::ndr::Reader in(bytes);
        skipVariant(in);
        EXPECT_TRUE(in.good() && in.remaining() == 0) << name;
        for (std::size_t size = 0; size < bytes.size(); ++size) {
            dcom::ndr::Reader cut{std::span(bytes).first(size)};
            skipVariant(cut);
            EXPECT_FALSE(cut.good()) << name << ", " << size << " bytes";
        }
    }
}

TEST(WireVariantTest, RefusesWhatContradictsItself) {
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
        const Bytes bytes = foreign(hex);
        dcom::ndr::Reader in(bytes);
        skipVariant(in);
        EXPECT_FALSE(in.good()) << hex;
    }
}

// Variants in arrays of variants in arrays of variants: no request drives the stack out of bounds.
TEST(WireVariantTest, RefusesBottomlessNesting) {
    const Bytes level = foreign(
        "0C20 000000000000 00200000 55736572 01000000 01000000 0100 8008 10000000 00000C00"
        "0C000000 01000000 55736572 01000000 00000000 01000000 55736572");
    for (const auto& [levels, passes] : {std::pair{3, true}, {8, true}, {9, false}, {100'000, false}}) {
        Parameters all;
        for (int i = 0; i < levels; ++i) {
            all.add(level);
        }
        all.hex("03000000 00000000 0000 000000000000 00000000");
        dcom::ndr::Reader in(all);
        skipVariant(in);
        EXPECT_EQ(in.good() && in.remaining() == 0, passes) << levels;
    }
}

}  // namespace
}  // namespace quelm::opcda::wire::test
