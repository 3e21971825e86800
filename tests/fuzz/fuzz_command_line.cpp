// The command line that an operator or a service manager starts the server with. It may raise overflow, and for date
// keywords an offset beyond every date, and nothing else.

#include "FuzzInput.h"
#include "OPC/OPC DA Server/CommandLineFunctions.h"

namespace quelm::fuzz {
namespace {

void readArgument(std::string_view commandLine, std::string_view name, bool isDate, bool asString) {
    const Variant value = GetCommandLineArg(commandLine, name, isDate, asString);
    const VariantKind kind = value.kind();
    require(!asString || (kind != VariantKind::Int32 && kind != VariantKind::Date), "a text when a text was asked for");
    require(value.isNull() || value.isEmpty() || kind == VariantKind::Text || kind == VariantKind::Int32 ||
                kind == VariantKind::Date,
            "a value of the kinds that were promised");
    require(name.ends_with('=') || value.isNull() || value.isEmpty(), "a switch has no value");
}

}  // namespace

void runInput(Input input) {
    const std::uint8_t mode = input.u8();
    std::string name = input.text();
    const ExactCopy commandLine(input.rest());
    constexpr std::string_view names[] = {"site=", "visible", "/date=", "/start="};
    if ((mode & 4) != 0) {
        name = names[(mode >> 3) % std::size(names)];
    }
    const bool isDate = (mode & 1) != 0;
    mayRaise({errors::overflow, isDate ? errors::invalidCall : errors::overflow},
             "overflow, or a keyword's offset, and nothing else",
             [&] { readArgument(commandLine.text(), name, isDate, (mode & 2) != 0); });
    mayRaise({errors::overflow}, "overflow and nothing else", [&] { GetKeywordOffset(commandLine.text()); });
}

}  // namespace quelm::fuzz
