#include "DB Interface Library/DBIL.h"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "base/RuntimeError.h"

namespace quelm {

namespace {

bool answers(ISqlConnection& connection) {
    connection.test();
    return true;
}

}  // namespace

bool DBIL::Initialize(std::string_view) {
    return true;
}

bool DBIL::SetupSite(std::string_view strSiteID, std::string_view strConnection1, std::string_view strConnection2,
                     std::string_view strConnection3, std::string_view strConnection4, std::string_view strConnection5,
                     bool, bool) {
    try {
        sites_.setUp(strSiteID, {strConnection1, strConnection2, strConnection3, strConnection4, strConnection5});
        realtimeDB_.expect(strSiteID);
        return true;
    } catch (...) {
        report(fmt::format("Site '{}': connection 1 ({}) or 2 ({}) is not usable: {}", strSiteID,
                           redactConnectionString(strConnection1), redactConnectionString(strConnection2),
                           currentError().text()));
        return false;
    }
}

bool DBIL::TestConnections(std::string_view strSiteID, bool blnConnection1, bool blnConnection2, bool blnConnection3,
                           bool blnConnection4, bool blnConnection5, bool blnReport) {
    const std::array chosen = {blnConnection1, blnConnection2, blnConnection3, blnConnection4, blnConnection5};
    std::vector<ConnectionTest> tests;
    bool found = false;
    sites_.forEachSite([&](const std::string& siteID) {
        if (!strSiteID.empty() && siteID != strSiteID) {
            return;
        }
        found = true;
        for (std::size_t which = 0; which < chosen.size(); ++which) {
            if (chosen[which]) {
                tests.push_back({siteID, which, nullptr, std::nullopt, std::nullopt});
            }
        }
    });
    if (!found && !strSiteID.empty()) {
        if (blnReport) {
            report(fmt::format("Site '{}' is not set up", strSiteID));
        }
        return false;
    }
    // Those that do not answer are waited for side by side.
    for (ConnectionTest& test : tests) {
        begin(test);
    }
    bool all = true;
    for (ConnectionTest& test : tests) {
        all = finish(test, blnReport) && all;
    }
    return all;
}

void DBIL::begin(ConnectionTest& test) {
    try {
        test.worker = sites_.connection(test.siteID, test.which);
        if (test.worker->isFree()) {
            test.call = test.worker->begin(answers);
        }
    } catch (...) {
        test.failure = currentError();
    }
}

bool DBIL::finish(ConnectionTest& test, bool blnReport) {
    try {
        if (!test.failure) {
            return test.call ? test.worker->finish(std::move(*test.call)) : test.worker->run(answers);
        }
    } catch (...) {
        test.failure = currentError();
    }
    if (blnReport) {
        report(fmt::format("Site '{}': connection {} ({}) failed: {}", test.siteID, test.which + 1,
                           sites_.shownConnectionString(test.siteID, test.which), test.failure->text()));
    }
    return false;
}

void DBIL::Terminate() {
    sites_.closeAll();
    realtimeDB_.releaseSnapshots();
}

void DBIL::report(std::string_view strProblem) const {
    if (problems_) {
        problems_(strProblem);
    }
}

}  // namespace quelm
