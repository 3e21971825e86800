#include "opcda/client/Words.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "base/Date.h"
#include "opcda/HResults.h"

namespace quelm::opcda::client {

namespace {

template <class Number>
struct Word {
    Number number;
    std::string_view text;
};

// Empty: there is none.
template <class Number, std::size_t count>
std::string_view wordOf(const std::array<Word<Number>, count>& words, Number number) {
    const auto found =
        std::find_if(words.begin(), words.end(), [&](const auto& word) { return word.number == number; });
    return found != words.end() ? found->text : std::string_view();
}

// The two upper bits and the four below them.
constexpr std::array<Word<unsigned>, 17> qualities{{
    {0x00, "bad"},
    {0x04, "bad, configuration error"},
    {0x08, "bad, not connected"},
    {0x0C, "bad, device failure"},
    {0x10, "bad, sensor failure"},
    {0x14, "bad, last known value"},
    {0x18, "bad, communication failure"},
    {0x1C, "bad, out of service"},
    {0x20, "bad, waiting for initial data"},
    {0x40, "uncertain"},
    {0x44, "uncertain, last usable value"},
    {0x50, "uncertain, sensor not accurate"},
    {0x54, "uncertain, units exceeded"},
    {0x58, "uncertain, sub-normal"},
    {0xC0, "good"},
    {0xD8, "good, local override"},
    {0x80, "undefined"},
}};

constexpr std::array<std::string_view, 4> kinds{"bad", "uncertain", "undefined", "good"};
constexpr std::array<std::string_view, 4> limits{"", ", low limited", ", high limited", ", constant"};

#define NAMED(code) \
    Word<HResult> { \
        code, #code \
    }

constexpr std::array results{
    NAMED(S_OK),
    NAMED(S_FALSE),
    NAMED(E_NOTIMPL),
    NAMED(E_NOINTERFACE),
    NAMED(E_FAIL),
    NAMED(E_ACCESSDENIED),
    NAMED(E_OUTOFMEMORY),
    NAMED(E_INVALIDARG),
    NAMED(REGDB_E_CLASSNOTREG),
    NAMED(CLASS_E_NOAGGREGATION),
    NAMED(CO_E_SERVER_STOPPING),
    NAMED(CO_E_CLASSSTRING),
    NAMED(CONNECT_E_NOCONNECTION),
    NAMED(CONNECT_E_ADVISELIMIT),
    NAMED(CONNECT_E_CANNOTCONNECT),
    NAMED(DISP_E_TYPEMISMATCH),
    NAMED(DISP_E_OVERFLOW),
    NAMED(RPC_E_DISCONNECTED),
    NAMED(OPC_E_INVALIDHANDLE),
    NAMED(OPC_E_BADTYPE),
    NAMED(OPC_E_PUBLIC),
    NAMED(OPC_E_BADRIGHTS),
    NAMED(OPC_E_UNKNOWNITEMID),
    NAMED(OPC_E_INVALIDITEMID),
    NAMED(OPC_E_INVALIDFILTER),
    NAMED(OPC_E_UNKNOWNPATH),
    NAMED(OPC_E_RANGE),
    NAMED(OPC_E_DUPLICATENAME),
    NAMED(OPC_S_UNSUPPORTEDRATE),
    NAMED(OPC_S_CLAMP),
    NAMED(OPC_S_INUSE),
    NAMED(OPC_E_INVALIDCONFIGFILE),
    NAMED(OPC_E_NOTFOUND),
    NAMED(OPC_E_INVALID_PID),
    NAMED(OPC_E_DEADBANDNOTSET),
    NAMED(OPC_E_DEADBANDNOTSUPPORTED),
    NAMED(OPC_E_NOBUFFERING),
    NAMED(OPC_E_INVALIDCONTINUATIONPOINT),
    NAMED(OPC_S_DATAQUEUEOVERFLOW),
    NAMED(OPC_E_RATENOTSET),
    NAMED(OPC_E_NOTSUPPORTED),
};

#undef NAMED

constexpr std::array<Word<unsigned>, 6> states{{
    {1, "running"},
    {2, "failed"},
    {3, "no configuration"},
    {4, "suspended"},
    {5, "test"},
    {6, "communication fault"},
}};

}  // namespace

std::string qualityText(std::uint16_t quality) {
    const unsigned low = quality & 0xFFU;
    const std::string_view word = wordOf(qualities, low & 0xFCU);
    std::string text =
        word.empty() ? fmt::format("{}, substatus {}", kinds[low >> 6U], low >> 2U & 0xFU) : std::string(word);
    text += limits[low & 3U];
    const unsigned vendor = quality >> 8U;
    return vendor != 0 ? fmt::format("{}, vendor {}", text, vendor) : text;
}

std::string resultName(HResult result) {
    const std::string_view name = wordOf(results, result);
    return name.empty() ? fmt::format("{:08X}", fmt::underlying(result)) : std::string(name);
}

std::string resultText(HResult result) {
    const std::string_view text = errorText(result);
    return text.empty() ? resultName(result) : fmt::format("{} ({})", text, resultName(result));
}

std::string stateText(std::uint16_t state) {
    const std::string_view word = wordOf(states, unsigned{state});
    return word.empty() ? fmt::format("{}", state) : std::string(word);
}

std::string fileTimeText(std::int64_t fileTime) {
    constexpr std::int64_t unitsPerMillisecond = 10'000;
    constexpr std::int64_t millisecondsPerDay = 86'400'000;
    constexpr std::int64_t lastYear = 9999;
    if (fileTime <= 0) {
        return {};
    }
    const std::int64_t milliseconds = fileTime / unitsPerMillisecond;
    if (milliseconds / millisecondsPerDay + dayNumber(1601, 1, 1) >= dayNumber(lastYear + 1, 1, 1)) {
        return {};
    }
    const std::int64_t linear = milliseconds + dayNumber(1601, 1, 1) * millisecondsPerDay;
    const CivilTime time = civilTime(dateFromLinearMilliseconds(linear));
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", time.year, time.month, time.day, time.hour,
                       time.minute, time.second, time.millisecond);
}

std::string_view accessRightsText(std::uint32_t accessRights) {
    constexpr std::array<std::string_view, 4> words{"none", "read", "write", "read, write"};
    return words[accessRights & 3U];
}

}  // namespace quelm::opcda::client
