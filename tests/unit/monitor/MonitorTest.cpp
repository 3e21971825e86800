// What the monitor makes of the server's answers, whatever they are, and of the questions of whoever comes.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "OPC/Monitor/Answers.h"
#include "OPC/Monitor/Fields.h"
#include "OPC/Monitor/Metrics.h"
#include "OPC/Monitor/Settings.h"
#include "base/TimeSource.h"

namespace quelm::monitor {
namespace {

Json itemAt(const std::string& id, const Json& value, const std::string& time) {
    return {{"id", id}, {"value", value}, {"quality", 192}, {"time", time}};
}

TEST(Metrics, WhatIsMissingOrDamagedIsLeftOutAndTheRestStands) {
    const Json status = Json::parse(R"({"version":"a\"b","now":"2026-11-23T22:31:40.125Z","calls":7,"clients":"many",
        "memoryBytes":null,"longestTurnMilliseconds":2.5,"sites":[3,{"site":"N\n1","lastPass":"2026-11-23T22:31:35.000Z",
        "lastSnapshot":null,"database":"unknown","good":4},{"site":"S","lastPass":"2026-11-24T00:00:00Z","database":"down"}]})");
    std::vector<std::string> samples;
    std::istringstream text(metricsText(&status));
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with('#')) {
            samples.push_back(line);
        }
    }
    EXPECT_EQ(
        samples,
        (std::vector<std::string>{
            "quelm_up 1", "quelm_monitor_build_info{version=\"" QUELM_VERSION "\"} 1",
            R"(quelm_build_info{version="a\"b"} 1)", "quelm_calls_total 7", "quelm_longest_turn_seconds 0.0025",
            R"(quelm_site_last_pass_age_seconds{site="N\n1"} 5.125)", R"(quelm_site_last_pass_age_seconds{site="S"} 0)",
            R"(quelm_site_database_up{site="S"} 0)", R"(quelm_items{site="N\n1",quality="good"} 4)"}));
    EXPECT_NE(metricsText(nullptr).find("\nquelm_up 0\n"), std::string::npos);
}

TEST(Fields, OnlyWholeTimesAreTimes) {
    for (const char* text :
         {"", "2026-11-23", "2026-11-23T22:31:40.125", "2026-13-23T22:31:40Z", "2026-02-30T22:31:40Z",
          "2026-11-23T24:31:40Z", "2026-11-23T22:31:nanZ", "2026-11-23 22:31:40Z"}) {
        EXPECT_EQ(timeIn({{"t", text}}, "t"), std::nullopt) << text;
    }
    EXPECT_EQ(timeIn({{"t", "1970-01-02T00:00:01.250Z"}}, "t"), 86401.25);
}

TEST(Answers, QuestionsGoToTheServerWithinBounds) {
    std::vector<std::string> asked;
    Answers answers([&](const Json& request) {
        asked.push_back(request.dump());
        return Json{{"fine", true}};
    });
    struct Case {
        const char* what;
        Parameters parameters;
        int status;
        const char* asked;
    };
    const Case cases[] = {
        {"status", {}, 200, R"({"ask":"status"})"},
        {"clients", {{"x", "y"}}, 200, R"({"ask":"clients"})"},
        {"items",
         {{"name", "NOx"}, {"quality", "bad"}, {"from", "100"}, {"count", "500"}},
         200,
         R"({"ask":"items","count":500,"from":100,"name":"NOx","quality":"bad","site":""})"},
        {"messages", {{"after", "12"}}, 200, R"({"after":12,"ask":"messages"})"},
        {"items", {{"count", "501"}}, 400, nullptr},
        {"items", {{"from", "-1"}}, 400, nullptr},
        {"items", {{"from", "1e3"}}, 400, nullptr},
        {"items", {{"quality", "fair"}}, 400, nullptr},
        {"items", {{"name", std::string(1025, 'x')}}, 400, nullptr},
        {"messages", {{"after", "99999999999999999999"}}, 400, nullptr},
        {"reload", {}, 404, nullptr},
    };
    for (const Case& each : cases) {
        asked.clear();
        EXPECT_EQ(answers.api(each.what, each.parameters).status, each.status) << each.what;
        EXPECT_EQ(asked, each.asked ? std::vector<std::string>{each.asked} : std::vector<std::string>()) << each.what;
    }
}

TEST(Answers, AnHourOfThoseItemsThatAreLookedAt) {
    ManualTimeSource time{Date()};
    ScopedTimeSource inForce(time);
    int second = 0;
    bool isUp = true;
    Answers answers([&](const Json& request) -> Json {
        if (!isUp) {
            throw LinkTrouble(Trouble::Stopped, "gone");
        }
        const std::string id = request["name"];
        const Json taken = itemAt(id, second % 2 ? Json(second) : Json("text"),
                                  "2026-11-23T22:00:" + std::to_string(10 + second) + "Z");
        return {{"total", 2}, {"items", id == "none" ? Json::array() : Json{itemAt(id + ".Raw", 1, "x"), taken}}};
    });
    const auto samples = [&](const std::string& item) {
        return Json::parse(answers.api("trend", {{"item", item}}).body)["samples"].dump();
    };
    EXPECT_EQ(answers.api("trend", {{"item", "none"}}).status, 404);
    EXPECT_EQ(samples("A"), R"([["2026-11-23T22:00:10Z",null,192]])");
    answers.sampleNext();  // the same reading
    second = 1;
    answers.sampleNext();
    isUp = false;
    answers.sampleNext();
    EXPECT_EQ(samples("A"), R"([["2026-11-23T22:00:10Z",null,192],["2026-11-23T22:00:11Z",1.0,192]])");
    EXPECT_EQ(answers.api("status", {}).body, R"({"error":"gone","state":"stopped"})");
    isUp = true;
    time.advanceMilliseconds(3'600'001);
    EXPECT_EQ(samples("A"), "[]");
    for (int i = 0; i < 60; ++i) {
        time.advanceMilliseconds(1);
        EXPECT_NE(samples("B" + std::to_string(i)), "[]");
    }
    EXPECT_EQ(answers.pauseBetweenSamples(), 300) << "50 are kept";
    EXPECT_EQ(samples("B59").size(), samples("B10").size());
}

TEST(ControlLink, BoundsWhatComesAndSaysWhyNothingDoes) {
    char folder[] = "/tmp/quelm-monitor-XXXXXX";
    ASSERT_NE(::mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/control";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto troubleOf = [](ControlLink& link) -> std::string {
        try {
            return link.ask({{"ask", "status"}}).dump();
        } catch (const LinkTrouble& trouble) {
            return std::to_string(static_cast<int>(trouble.kind())) + trouble.what();
        }
    };
    ControlLink none(path);
    EXPECT_EQ(troubleOf(none), "0the server is not running: nobody listens on " + path);
    const int listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listening, 8), 0);
    const std::pair<std::string, std::string> cases[] = {
        {"{\"x\":1}\n", "{\"x\":1}"},
        {"{\"error\":\"unknown\"}\n", "3unknown"},
        {"[]\n", "2the server's answer cannot be read: it is no JSON object"},
        {std::string(100'000, '[') + "\n", "2the server's answer cannot be read: it is no JSON object"},
        {"{\"x\":", "2the server closed the connection without an answer"},
        {std::string(ControlLink::longestAnswer + 1, 'x'), "2the server's answer is longer than 4 MiB"},
    };
    for (const auto& each : cases) {
        std::thread server([&] {
            const int peer = ::accept(listening, nullptr, nullptr);
            char request[100];
            EXPECT_GT(::recv(peer, request, sizeof request, 0), 0);
            for (std::size_t sent = 0; sent < each.first.size();) {
                const ssize_t taken = ::send(peer, each.first.data() + sent, each.first.size() - sent, MSG_NOSIGNAL);
                if (taken <= 0) {
                    break;
                }
                sent += static_cast<std::size_t>(taken);
            }
            ::close(peer);
        });
        ControlLink link(path);
        EXPECT_EQ(troubleOf(link), each.second);
        server.join();
    }
    ::close(listening);
    ::unlink(path.c_str());
    ::rmdir(folder);
}

TEST(Settings, WhatIsDamagedCostsItselfOnly) {
    std::vector<std::string> problems;
    const Settings settings = settingsFrom(
        "[Listen]\nAddress = plant\nPort = 70000\nNames = plant-7, , monitor.example\n[Server]\nControl = run\nX = "
        "1\n[Y]\n",
        problems);
    EXPECT_EQ(settings.address, "127.0.0.1");
    EXPECT_EQ(settings.port, 9455);
    EXPECT_EQ(settings.names, (std::vector<std::string>{"plant-7", "monitor.example"}));
    EXPECT_EQ(settings.control, "/run/quelm/control");
    EXPECT_EQ(problems.size(), 5U);
    const std::pair<const char*, bool> hosts[] = {
        {"127.0.0.1:9455", true}, {"127.0.0.1", true},
        {"[::1]:9455", true},     {"LOCALHOST:9455", true},
        {"Plant-7", true},        {"evil.example", false},
        {"127.0.0.1.nip", false}, {"[::1", false},
        {"[x]", false},           {"", false},
        {"localhost:", false},    {"localhost:80x", false},
        {"[::1]evil", false},
    };
    for (const auto& [host, isOwn] : hosts) {
        EXPECT_EQ(isOwnHost(host, settings.names), isOwn) << host;
    }
}

}  // namespace
}  // namespace quelm::monitor
