// quelm-monitor: shows over HTTP how the server is, to Prometheus and to people. A process of its own: whatever befalls
// it, the server's clients notice nothing.
//
// Exit codes: 0 stopped by a signal; 1 it cannot listen; 2 the command line cannot be understood.

#include <fmt/format.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>
#include <vector>

#include "OPC/Monitor/Answers.h"
#include "OPC/Monitor/ControlLink.h"
#include "OPC/Monitor/Settings.h"
#include "OPC/Monitor/Web.h"
#include "loop/AsioLoop.h"

namespace quelm::monitor {
namespace {

void say(const std::string& line) {
    std::fputs((line + '\n').c_str(), stderr);
}

int serve(const Settings& settings) {
    AsioLoop loop;
    ControlLink link(settings.control);
    Answers answers([&](const Json& request) { return link.ask(request); });
    Web web(settings, loop, answers);
    const int port = web.listen();
    if (port < 0) {
        say(fmt::format("quelm-monitor: cannot listen on {} port {}: {}; remedy: choose another in monitor.conf",
                        settings.address, settings.port, std::generic_category().message(errno)));
        return 1;
    }
    std::unique_ptr<ITimer> sampling;
    sampling = loop.makeTimer([&] {
        answers.sampleNext();
        sampling->start(std::chrono::milliseconds(answers.pauseBetweenSamples()));
    });
    sampling->start(std::chrono::milliseconds(answers.pauseBetweenSamples()));
    loop.onSignal({SIGTERM, SIGINT}, [&](int) { web.stop(); });
    web.start([&] { loop.stop(); });
    const std::string host =
        settings.address.find(':') == std::string::npos ? settings.address : '[' + settings.address + ']';
    say(fmt::format("quelm-monitor {}: http://{}:{}/ shows the server behind {}", QUELM_VERSION, host, port,
                    settings.control));
    loop.run();
    return 0;
}

int run(int argc, char** argv) {
    std::string conf = settingsPath();
    std::string address;
    std::string control;
    int port = -1;
    CLI::App app("Shows over HTTP how the Quelm 5 OPC DA Server is: a page, and metrics for Prometheus",
                 "quelm-monitor");
    app.set_version_flag("--version", fmt::format("quelm-monitor {}", QUELM_VERSION));
    app.add_option("--conf", conf, "The settings")->capture_default_str();
    app.add_option("--address", address, "The numeric address to listen on, in place of the settings'");
    app.add_option("--port", port, "The port to listen on, in place of the settings'; 0 is any free one")
        ->check(CLI::Range(0, 65535));
    app.add_option("--control", control, "The server's control socket, in place of the settings'");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    std::vector<std::string> problems;
    Settings settings = readSettings(conf, problems);
    for (const std::string& problem : problems) {
        say(fmt::format("quelm-monitor: {}: {}", conf, problem));
    }
    if (!address.empty() && !isNumericAddress(address)) {
        say("quelm-monitor: --address must be a numeric address");
        return 2;
    }
    settings.address = address.empty() ? settings.address : address;
    settings.port = port < 0 ? settings.port : port;
    settings.control = control.empty() ? settings.control : control;
    return serve(settings);
}

}  // namespace
}  // namespace quelm::monitor

int main(int argc, char** argv) {
    try {
        return quelm::monitor::run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quelm-monitor: %s\n", error.what());
        return 1;
    }
}
