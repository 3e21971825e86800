#include "OPC/Main/OpcNetwork.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "DCOM/DcomSettings.h"
#include "DCOM/net/TcpServer.h"
#include "DCOM/orpc/ActivationHandler.h"
#include "DCOM/orpc/ObjectExporter.h"
#include "DCOM/orpc/OrpcHandler.h"
#include "OPC DA/Server.h"
#include "OPC DA/wire/Iids.h"
#include "OPC DA/wire/OpcClassFactory.h"
#include "Shared Types/RuntimeError.h"
#include "Shared Types/TimeSource.h"

namespace quelm {

namespace {

constexpr std::chrono::milliseconds exporterTick{1000};

dcom::orpc::ExporterSettings exporterSettings(const dcom::DcomSettings& settings,
                                              const std::function<void(std::string_view)>& log) {
    dcom::orpc::ExporterSettings result;
    result.objectPort = settings.objectPort;
    result.activationPort = settings.activationPort;
    result.hostNames = {"localhost", settings.ntlm.computerName};
    result.minimumLevel = static_cast<dcom::rpc::AuthLevel>(settings.minimumLevel);
    result.log = log;
    return result;
}

}  // namespace

struct OpcNetwork::Impl {
    Impl(SLIKServer& control, AsioLoop& loop, const Lines& lines, dcom::DcomSettings read)
        : settings(std::move(read)),
          application(control),
          exporter(exporterSettings(settings, lines.trouble), [] { return timeSource().monotonicMilliseconds(); }),
          activationHandler(exporter, classes),
          objectHandler(exporter, opcda::wire::isOpcInterface),
          protocol{
              .accounts = settings.accounts,
              .logOn = settings.ntlm,
              .minimumLevel = static_cast<dcom::rpc::AuthLevel>(settings.minimumLevel),
              .onRefused = [trouble = lines.trouble](const dcom::rpc::Refusal& refusal) { trouble(refusal.line()); },
              .challenge = std::nullopt},
          server(loop, loop, protocol, tcpSettings(lines)),
          timer(loop.makeTimer([this] { tick(); })) {
        classes.add(std::make_shared<opcda::wire::OpcClassFactory>(application));
    }

    static dcom::net::TcpSettings tcpSettings(const Lines& lines) {
        dcom::net::TcpSettings result;
        result.onTrouble = lines.trouble;
        return result;
    }

    void listen() {
        for (const std::string& address : settings.addresses) {
            // One object port for all addresses, also where the first one chose it.
            settings.objectPort = server.listen(address, settings.objectPort, objectHandler);
            server.listen(address, settings.activationPort, activationHandler);
        }
        exporter.listenOn(settings.objectPort);
        timer->start(exporterTick);
    }

    // Clients find the object port by one number, so that all sockets for it must have the same one. Whatever port
    // the settings say is not what clients reach.
    void adopt(const systemd::PassedSockets& passed, const Lines& lines) {
        const dcom::DcomSettings asked = settings;
        for (const int descriptor : passed.activation) {
            settings.activationPort = server.adopt(descriptor, activationHandler);
        }
        std::optional<std::uint16_t> port;
        for (const int descriptor : passed.object) {
            settings.objectPort = server.adopt(descriptor, objectHandler);
            if (port.value_or(settings.objectPort) != settings.objectPort) {
                throw dcom::net::ListenError(
                    fmt::format("The sockets handed over for objects listen on ports {} and {}; give them one", *port,
                                settings.objectPort));
            }
            port = settings.objectPort;
        }
        if (asked.activationPort != settings.activationPort || asked.objectPort != settings.objectPort) {
            lines.trouble(
                fmt::format("The sockets handed over listen on ports {} and {} and the settings say {} and "
                            "{}; write the socket units afresh with \"Q5OPCServer regserver\"",
                            settings.activationPort, settings.objectPort, asked.activationPort, asked.objectPort));
        }
        exporter.listenOn(settings.objectPort);
        timer->start(exporterTick);
    }

    void tick() {
        exporter.tick();
        timer->start(exporterTick);
    }

    dcom::DcomSettings settings;
    opcda::Application application;
    dcom::orpc::ClassRegistry classes;
    dcom::orpc::ObjectExporter exporter;
    dcom::orpc::ActivationHandler activationHandler;
    dcom::orpc::OrpcHandler objectHandler;
    dcom::rpc::ServerSettings protocol;
    dcom::net::TcpServer server;
    std::unique_ptr<ITimer> timer;
};

OpcNetwork::OpcNetwork(SLIKServer& control, AsioLoop& loop, systemd::PassedSockets passed, Lines lines)
    : control_(control), loop_(loop), passed_(std::move(passed)), lines_(std::move(lines)) {}

OpcNetwork::~OpcNetwork() {
    close();
}

void OpcNetwork::open() {
    dcom::DcomSettings settings = dcom::readDcomSettings(dcom::dcomSettingsPath());
    for (const std::string& problem : settings.problems) {
        lines_.trouble(problem);
    }
    for (const std::string& notice : settings.notices) {
        lines_.weakened(notice);
    }
    impl_ = std::make_unique<Impl>(control_, loop_, lines_, std::move(settings));
    try {
        if (passed_.any()) {
            impl_->adopt(std::exchange(passed_, {}), lines_);
        } else {
            impl_->listen();
        }
    } catch (const dcom::net::ListenError& error) {
        impl_.reset();
        throw RuntimeError(errors::invalidCall, error.what());
    }
    const std::string where = fmt::format("OPC clients are served on {}: activation on port {}, objects on port {}",
                                          fmt::join(impl_->settings.addresses, ", "), impl_->settings.activationPort,
                                          impl_->settings.objectPort);
    lines_.notice(where);
}

void OpcNetwork::close() {
    if (impl_ == nullptr) {
        return;
    }
    impl_->timer->stop();
    impl_->server.close();
    impl_->exporter.revokeAll();
    impl_.reset();
}

}  // namespace quelm
