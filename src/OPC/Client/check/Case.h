#pragma once

// The cases of the check: each asks a server something whose answer OPC DA leaves no choice about, or little.

#include <span>

#include "OPC/Client/check/Findings.h"

namespace quelm::opcclient::check {

class Stage;

// The first version of OPC DA that says so.
enum class Version { Da2, Da3 };

struct Case {
    int number;
    Version version;
    const char* asked;
    const char* expected;
    void (*run)(Stage&, Findings&);
    bool writes = false;  // tries to write to an item, which is done only where that is allowed
    // Why it runs only when it is named: it needs somebody at the server, or much time. Empty: it runs always.
    const char* onlyNamed = "";
};

struct Area {
    int number;
    const char* title;
    std::span<const Case> cases;
};

// In the order of their numbers.
std::span<const Area> areas();

// The areas' own lists, each in a file of its own.
std::span<const Case> discoveryCases();
std::span<const Case> statusCases();
std::span<const Case> localeCases();
std::span<const Case> groupCases();
std::span<const Case> groupNameCases();
std::span<const Case> itemCases();
std::span<const Case> attributeCases();
std::span<const Case> syncCases();
std::span<const Case> asyncCases();
std::span<const Case> subscriptionCases();
std::span<const Case> changeCases();
std::span<const Case> shutdownCases();
std::span<const Case> browse2Cases();
std::span<const Case> browse3Cases();
std::span<const Case> propertyCases();
std::span<const Case> ageCases();
std::span<const Case> limitCases();
std::span<const Case> lifetimeCases();
std::span<const Case> deathCases();

}  // namespace quelm::opcclient::check
