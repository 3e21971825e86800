#include "OPC/Client/check/Known.h"

#include <fmt/format.h>

#include <charconv>

#include "OPC/Client/Options.h"
#include "base/Text.h"

namespace quelm::opcclient::check {

Known readKnown(const std::string& path) {
    Known known;
    for (const std::string& line : linesFromFile(path)) {
        int number = 0;
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
        const std::string_view reason = trimBlanks(std::string_view(line).substr(end - line.data()));
        if (error != std::errc() || reason.empty()) {
            throw UsageError(fmt::format("{}: '{}' is no number of a case with a reason behind it", path, line));
        }
        known[number] = reason;
    }
    return known;
}

}  // namespace quelm::opcclient::check
