#pragma once

// A value as any OPC server may send it: every type of scalar that OPC DA knows and arrays of these. Numbers of one
// kind share one form, so that a program deals with a handful of cases; the type says which of them it was.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/Decimal.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "opcda/Coercion.h"

namespace quelm::opcda::client {

// Types that Coercion.h has no use for.
inline constexpr VarType VT_DISPATCH = 9;
inline constexpr VarType VT_VARIANT = 12;
inline constexpr VarType VT_UNKNOWN = 13;

struct Value {
    using Contents = std::variant<std::monostate, std::int64_t, double, Decimal, std::string, std::vector<std::int64_t>,
                                  std::vector<double>, std::vector<std::string>, std::vector<Value>>;

    // As the server sent it, VT_ARRAY included.
    VarType type = VT_EMPTY;
    // By type, for an array a vector of the same:
    //   I1, UI1, I2, UI2, I4, UI4, I8, INT, UINT   the number
    //   UI8                                        its bit pattern
    //   BOOL                                       -1 or 0
    //   ERROR                                      the code, sign-extended
    //   CY                                         the amount times 10,000
    //   R4, R8, DATE (days since 1899-12-30)       a double
    //   DECIMAL, BSTR (UTF-8)                      Decimal, std::string
    //   arrays of VARIANT                          values
    //   EMPTY, NULL and all that is no data        nothing
    Contents contents;

    static Value integer(VarType type, std::int64_t number) { return {type, number}; }
    static Value real(VarType type, double number) { return {type, number}; }
    static Value text(std::string text) { return {VT_BSTR, std::move(text)}; }
    // From what an operator types, for a scalar type other than DECIMAL: numbers with "." and without blanks, BOOL as
    // true/false/1/0. Nothing for a text that is no value of the type, or beyond its range.
    static std::optional<Value> parse(VarType type, std::string_view text);

    bool isEmpty() const { return type == VT_EMPTY; }
    bool isArray() const { return (type & VT_ARRAY) != 0; }
    // Elements of an array; 0 for a scalar.
    std::size_t size() const;
    // An element of an array as a value of its own; index below size().
    Value at(std::size_t index) const;
    // As a number where it is one (BOOL as 1 or 0, CY in its unit, DECIMAL rounded): what a trend is drawn of.
    std::optional<double> number() const;

    bool operator==(const Value&) const = default;
};

// For people: numbers in their shortest form, dates as "yyyy-MM-dd HH:mm:ss", texts as they are, arrays as
// "[1, 2, 3]", EMPTY and NULL in brackets: "(empty)".
std::string textOf(const Value& value);
// "VT_R4", "VT_ARRAY|VT_BSTR"; "VT_4711" for a number that is no type.
std::string typeName(VarType type);
// The other way, in any case and with or without "VT_": "r4", "VT_ARRAY|VT_I2". Nothing for any other text.
std::optional<VarType> typeOfName(std::string_view name);

// Reads the body of a marshalled VARIANT. Arrays of more than one dimension come as their elements one after the
// other; objects and what is referred to are passed over and leave nothing. What contradicts itself latches the
// reader's fault; nothing is allocated that the bytes do not hold.
Value readValue(dcom::ndr::Reader& in);
// Writes such a body. Objects are written as EMPTY.
void writeValue(dcom::ndr::Writer& out, const Value& value);

}  // namespace quelm::opcda::client
