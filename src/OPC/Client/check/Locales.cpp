// Area 3: languages, and the client's name.

#include <array>

#include "OPC/Client/check/Stage.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace locales {
namespace {

using namespace opcda::client;

std::uint32_t localeOf(const IOPCCommon& common, Findings& found) {
    const auto reply = common.GetLocaleID();
    found.result("GetLocaleID", reply.result, {S_OK});
    return reply.out;
}

std::vector<std::uint32_t> offered(const IOPCCommon& common, Findings& found) {
    const auto reply = common.QueryAvailableLocaleIDs();
    found.result("QueryAvailableLocaleIDs", reply.result, {S_OK});
    found.need(reply.out && !reply.out->empty(), "no locale is offered");
    return *reply.out;
}

void firstLocale(Stage& stage, Findings& found) {
    found.equal("the locale", localeOf(stage.as<IOPCCommon>(stage.server()), found), 0x0800U);
}

void availableLocales(Stage& stage, Findings& found) {
    offered(stage.as<IOPCCommon>(stage.server()), found);
}

void setsLocales(Stage& stage, Findings& found) {
    const auto common = stage.as<IOPCCommon>(stage.server());
    for (const std::uint32_t locale : offered(common, found)) {
        found.result(fmt::format("SetLocaleID({:#06x})", locale), common.SetLocaleID(locale), {S_OK});
        found.equal("the locale", localeOf(common, found), locale);
    }
}

void refusesLocale(Stage& stage, Findings& found) {
    const auto common = stage.as<IOPCCommon>(stage.server());
    const std::uint32_t before = localeOf(common, found);
    found.result("SetLocaleID(0xFFFF)", common.SetLocaleID(0xFFFF), {E_INVALIDARG});
    found.equal("the locale", localeOf(common, found), before);
}

void ownLocale(Stage& stage, Findings& found) {
    const auto first = stage.as<IOPCCommon>(stage.server());
    const auto second = stage.as<IOPCCommon>(stage.newServer(stage.session()));
    const std::uint32_t before = localeOf(second, found);
    for (const std::uint32_t locale : offered(first, found)) {
        if (locale != before) {
            found.result("SetLocaleID", first.SetLocaleID(locale), {S_OK});
            found.equal("the second object's locale", localeOf(second, found), before);
            return;
        }
    }
    found.skip("the server has one locale only");
}

void clientName(Stage& stage, Findings& found) {
    const auto common = stage.as<IOPCCommon>(stage.server());
    found.result("SetClientName", common.SetClientName("host:client"), {S_OK});
    found.result("SetClientName(\"\")", common.SetClientName(""), {S_OK});
}

constexpr std::array<Case, 6> cases{{
    {23, Version::Da2, "a new server object: GetLocaleID", "the system's default, 0x0800", firstLocale},
    {24, Version::Da2, "QueryAvailableLocaleIDs", "S_OK, one at least", availableLocales},
    {25, Version::Da2, "SetLocaleID of each of them", "S_OK; GetLocaleID gives it", setsLocales},
    {26, Version::Da2, "SetLocaleID(0xFFFF)", "E_INVALIDARG; the old one stays", refusesLocale},
    {27, Version::Da2, "SetLocaleID on one of two objects", "the other one's stays", ownLocale},
    {28, Version::Da2, "SetClientName, also empty", "S_OK", clientName},
}};

}  // namespace
}  // namespace locales

std::span<const Case> localeCases() {
    return locales::cases;
}

}  // namespace quelm::opcclient::check
