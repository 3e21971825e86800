// The command line that an operator or a service manager starts the server with. It may raise overflow, and for date
// keywords an offset beyond every date, and nothing else.

#include <string>

#include "FuzzInput.h"
#include "OPC/OPC DA Server/CommandLineFunctions.h"
#include "Shared Types/RuntimeError.h"
#include "Shared Types/TimeSource.h"

namespace quelm::fuzz {
namespace {

void readArgument(std::string_view commandLine, std::string_view name, bool isDate, bool asString) {
    try {
        const Variant value = GetCommandLineArg(commandLine, name, isDate, asString);
        switch (value.kind()) {
            case VariantKind::Null:
            case VariantKind::Empty:
            case VariantKind::Text:
                break;
            case VariantKind::Int32:
            case VariantKind::Date:
                require(!asString, "a text when a text was asked for");
                break;
            default:
                require(false, "a value of the kinds that were promised");
        }
        require(name.ends_with('=') || value.isNull() || value.isEmpty(), "a switch has no value");
    } catch (const RuntimeError& error) {
        require(error.number() == errors::overflow || (isDate && error.number() == errors::invalidCall),
                "overflow, or a keyword's offset, and nothing else");
    }
}

void runInput(Input input) {
    const std::uint8_t mode = input.u8();
    std::string name = input.text();
    const ExactCopy commandLine(input.rest());
    constexpr std::string_view names[] = {"site=", "visible", "/date=", "/start="};
    if ((mode & 4) != 0) {
        name = names[(mode >> 3) % std::size(names)];
    }
    readArgument(commandLine.text(), name, (mode & 1) != 0, (mode & 2) != 0);
    try {
        GetKeywordOffset(commandLine.text());
    } catch (const RuntimeError& error) {
        require(error.number() == errors::overflow, "overflow and nothing else");
    }
}

}  // namespace
}  // namespace quelm::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quelm::ManualTimeSource time(quelm::Date{46348.5});
    const quelm::ScopedTimeSource scope(time);
    quelm::fuzz::runInput({data, size});
    return 0;
}
