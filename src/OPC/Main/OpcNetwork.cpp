#include "OPC/Main/OpcNetwork.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "OPC/Health/ControlPath.h"
#include "OPC/Health/ControlSocket.h"
#include "OPC/Health/Traffic.h"
#include "OPC/Main/DomainLogOns.h"
#include "base/RuntimeError.h"
#include "base/TimeSource.h"
#include "base/WorkerThread.h"
#include "dcom/DcomSettings.h"
#include "dcom/net/RepeatFilter.h"
#include "dcom/net/TcpDialer.h"
#include "dcom/net/TcpServer.h"
#include "dcom/orpc/ActivationHandler.h"
#include "dcom/orpc/ObjectExporter.h"
#include "dcom/orpc/OrpcHandler.h"
#include "dcom/outgoing/RemoteProcesses.h"
#include "opcda/Server.h"
#include "opcda/wire/InterfaceTable.h"
#include "opcda/wire/OpcClassFactory.h"
#include "opcda/wire/OpcServerObject.h"
#include "opcda/wire/ServerListObject.h"

namespace quelm {

namespace {

constexpr std::chrono::milliseconds exporterTick{1000};
// From the moment that clients are asked to let go until the network may close over them: on a line that works they
// have answered long before.
constexpr std::chrono::milliseconds askingTime{1000};
// How long the network waits for clients' programs to take back what was held of them: else they keep it for minutes.
constexpr std::chrono::milliseconds givingBackTime{500};
constexpr std::chrono::milliseconds closingStep{20};

dcom::orpc::ExporterSettings exporterSettings(const dcom::DcomSettings& settings, const std::string& principal,
                                              const std::function<void(std::string_view)>& log) {
    dcom::orpc::ExporterSettings result;
    result.objectPort = settings.objectPort;
    result.activationPort = settings.activationPort;
    result.hostNames = {settings.ntlm.computerName};
    result.principal = principal;
    constexpr std::uint64_t second = 1000;
    result.pingTimeout = settings.pingTimeout * second;
    result.firstPing = settings.firstPing * second;
    result.closeGrace = settings.closeGrace * second;
    result.minimumLevel = settings.minimumLevel;
    result.opensToAll = settings.openServerList;
    result.log = log;
    return result;
}

dcom::outgoing::CallSettings callSettings(const dcom::DcomSettings& settings) {
    dcom::outgoing::CallSettings result;
    result.account = settings.callbacks.account;
    result.minimumLevel = settings.callbacks.minimumLevel;
    result.allowNoLogOn = settings.callbacks.allowNoLogOn;
    // Client machines count three periods of two minutes, which nobody can set there.
    result.pingPeriod =
        std::min(result.pingPeriod, std::chrono::milliseconds(std::chrono::seconds(settings.pingTimeout)) / 3);
    result.settingsPath = dcom::dcomSettingsPath();
    return result;
}

// Says who comes, when a client gets its server object, and that he goes, when the object goes; meanwhile he stands in
// the book.
class ToldClients final : public dcom::orpc::ClassFactory {
 public:
    // book and calls outlive the factory and all its objects.
    ToldClients(std::shared_ptr<opcda::wire::OpcClassFactory> factory, std::function<void(std::string_view)> say,
                health::ClientBook& book, health::CountedCalls& calls)
        : factory_(std::move(factory)), say_(std::move(say)), book_(book), calls_(calls) {}

    Uuid classId() const override { return factory_->classId(); }
    std::shared_ptr<void> holdServer() override { return factory_->holdServer(); }

    std::shared_ptr<dcom::orpc::ComObject> create(const dcom::rpc::Peer& peer, const std::string& account,
                                                  HResult& result) override {
        auto object = factory_->create(peer, account, result);
        if (object == nullptr) {
            return nullptr;
        }
        const std::string who = fmt::format("OPC client {} (account '{}', level {})", peer.remoteAddress, account,
                                            dcom::rpc::levelName(peer.level));
        say_(who + " is here");
        auto* const told = object.get();
        const std::uint64_t number = book_.add({.server = &static_cast<opcda::wire::OpcServerObject&>(*told).server(),
                                                .address = std::string(peer.host()),
                                                .account = account,
                                                .level = std::string(dcom::rpc::levelName(peer.level)),
                                                .since = timeSource().fileTimeNow(),
                                                .traffic = calls_.trafficOf(peer.host(), account)});
        return {told, [object = std::move(object), who, say = say_, &book = book_, number](auto*) mutable {
                    book.remove(number);
                    object.reset();
                    say(who + " is gone");
                }};
    }

 private:
    std::shared_ptr<opcda::wire::OpcClassFactory> factory_;
    std::function<void(std::string_view)> say_;
    health::ClientBook& book_;
    health::CountedCalls& calls_;
};

}  // namespace

struct OpcNetwork::Impl {
    using Trouble = std::function<void(std::string_view)>;

    // trouble and client are called on the network's thread.
    Impl(SLIKServer& control, const health::PlantHealth& plant, AsioLoop& loop, const Trouble& trouble,
         const Trouble& client, std::function<void(health::ReloadDone)> reload, dcom::DcomSettings read)
        : asRead(read),
          settings(std::move(read)),
          say(client),
          callbackLines(loop, trouble),
          dialer(loop),
          calls(callSettings(settings)),
          remoteObjects({dialer, loop, calls,
                         [this](const std::string& source, const std::string& kind, const std::string& line) {
                             callbackLines.say(source, kind, line);
                         }}),
          outgoing{remoteObjects, messages},
          domain(settings, loop, trouble, client),
          application(control.network(), loop, messages),
          exporter(exporterSettings(settings, domain.principal(), trouble),
                   [] { return timeSource().monotonicMilliseconds(); }),
          activationHandler(exporter, classes),
          objectHandler(exporter, opcda::wire::isOpcInterface, opcda::wire::isServerListInterface),
          countedCalls(objectHandler, longestTurn),
          refusals(loop, trouble),
          protocol{
              .accounts = settings.accounts,
              .logOn = settings.ntlm,
              .minimumLevel = settings.minimumLevel,
              .onRefused =
                  [this](const dcom::rpc::Refusal& refusal) {
                      ++refused;
                      refusals.say(
                          std::string(refusal.peer.host()), refusal.kind(),
                          refusal.line(
                              dcom::dcomSettingsPath() +
                              " (a change counts once the server has read it: systemctl reload quelm-opc-server)"));
                  },
              .budgets = &application.budgets(),
              .challenge = std::nullopt,
              .access = settings.access},
          server(loop, loop, protocol, tcpSettings(trouble)),
          timer(loop.makeTimer([this] { tick(); })),
          answers(loop, {.application = application,
                         .plant = plant,
                         .clients = clients,
                         .longestTurn = longestTurn,
                         .counters = [this] { return counters(); },
                         .reload = std::move(reload)}),
          controlSocket(loop, answers) {
        classes.add(std::make_shared<ToldClients>(std::make_shared<opcda::wire::OpcClassFactory>(application, outgoing),
                                                  client, clients, countedCalls));
        classes.add(std::make_shared<opcda::wire::ServerListFactory>(application));
        domain.serve(protocol);
    }

    static dcom::net::TcpSettings tcpSettings(const Trouble& trouble) {
        dcom::net::TcpSettings result;
        result.onTrouble = trouble;
        return result;
    }

    void listen() {
        for (const std::string& address : settings.addresses) {
            // One object port for all addresses, also where the first one chose it.
            settings.objectPort = server.listen(address, settings.objectPort, countedCalls);
            server.listen(address, settings.activationPort, activationHandler);
        }
        exporter.listenOn(settings.objectPort);
        timer->start(exporterTick);
    }

    // Clients reach the sockets that were handed over, whatever the settings say.
    void adopt(const systemd::PassedSockets& passed, const Lines& lines) {
        const std::string asked = listening();
        settings.addresses.clear();
        adopt(passed.activation, activationHandler, settings.activationPort);
        adopt(passed.object, countedCalls, settings.objectPort);
        if (const std::string real = listening(); asked != real) {
            lines.trouble(
                fmt::format("The sockets handed over are not those of the settings: clients are served on {}, and the "
                            "settings ask for {}; to have what the settings say, run \"Q5OPCServer regserver\" as root",
                            real, asked));
        }
        exporter.listenOn(settings.objectPort);
        timer->start(exporterTick);
    }

    // Clients find the object port by one number, so that all sockets of a kind must have the same one.
    void adopt(const std::vector<int>& descriptors, dcom::rpc::CallHandler& handler, std::uint16_t& port) {
        std::optional<std::uint16_t> first;
        for (const int descriptor : descriptors) {
            const auto socket = server.adopt(descriptor, handler);
            if (first.value_or(socket.port) != socket.port) {
                throw dcom::net::ListenError(
                    fmt::format("Sockets handed over for one purpose listen on ports {} and {}; give them one", *first,
                                socket.port));
            }
            first = port = socket.port;
            if (std::find(settings.addresses.begin(), settings.addresses.end(), socket.address) ==
                settings.addresses.end()) {
                settings.addresses.push_back(socket.address);
            }
        }
    }

    std::string listening() const {
        std::vector<std::string> addresses = settings.addresses;
        std::sort(addresses.begin(), addresses.end());
        return fmt::format("{}: activation on port {}, objects on port {}", fmt::join(addresses, ", "),
                           settings.activationPort, settings.objectPort);
    }

    health::Counters counters() const {
        return {.connections = server.connectionCount(),
                .calls = countedCalls.calls(),
                .refusals = refused,
                .callbacks = outgoing.callbacks,
                .callbacksFailed = outgoing.callbacksFailed,
                .keepsRunning = settings.keepRunning};
    }

    // What changes takes the place of what it was where it stands, for log-ons under way look at it. Gives the lines
    // that tell of it.
    std::vector<std::string> apply(const dcom::DcomSettings& fresh) {
        settings.accounts = fresh.accounts;
        protocol.logOn.allowNtlmV1Ess = fresh.ntlm.allowNtlmV1Ess;
        protocol.logOn.allowAnonymous = fresh.ntlm.allowAnonymous;
        protocol.minimumLevel = fresh.minimumLevel;
        domain.admit(fresh.access);
        exporter.change(exporterSettings(fresh, domain.principal(), {}));
        calls = callSettings(fresh);
        settings.keepRunning = fresh.keepRunning;
        std::vector<std::string> lines = fresh.notices;
        const std::string later = needsRestart(fresh);
        lines.push_back(fmt::format(
            "{} was read anew: accounts, levels, times and the callbacks' account hold from now on{}",
            dcom::dcomSettingsPath(), later.empty() ? "" : fmt::format("; restart the server for {}", later)));
        for (const std::string& line : lines) {
            say(line);
        }
        return lines;
    }

    // The changed settings that a server takes at its start only.
    std::string needsRestart(const dcom::DcomSettings& fresh) const {
        std::vector<std::string_view> names;
        const auto compare = [&](bool isSame, std::string_view name) {
            if (!isSame) {
                names.push_back(name);
            }
        };
        compare(fresh.addresses == asRead.addresses, "Address");
        compare(fresh.activationPort == asRead.activationPort, "ActivationPort");
        compare(fresh.objectPort == asRead.objectPort, "ObjectPort");
        compare(fresh.systemBranch == asRead.systemBranch, "SystemBranch");
        compare(fresh.openServerList == asRead.openServerList, "OpenServerList");
        compare(fresh.ntlm.computerName == asRead.ntlm.computerName, "ComputerName");
        compare(fresh.ntlm.domainName == asRead.ntlm.domainName, "Domain");
        compare(fresh.keytab == asRead.keytab, "Keytab");
        compare(fresh.winbind == asRead.winbind, "Winbind");
        return fmt::format("{}", fmt::join(names, ", "));
    }

    void tick() { timer->start(exporter.tick() ? std::chrono::milliseconds(0) : exporterTick); }

    void requestShutdown(const std::string& reason) {
        askedAt = timeSource().monotonicMilliseconds();
        application.requestShutdown(reason);
    }

    // Clients were asked a moment ago, and some may not know yet.
    bool isAsking() const {
        const std::chrono::milliseconds since(timeSource().monotonicMilliseconds() - askedAt);
        return outgoing.shutdownRequests != 0 && since < askingTime;
    }

    void letGoOfClients(SLIKNetwork& control) {
        letGoAt = timeSource().monotonicMilliseconds();
        controlSocket.close();
        timer->stop();
        server.close();
        control.forgetQuestions();
        exporter.revokeAll();
    }

    // Some of the clients' programs that were called back may not know yet that this is over.
    bool isGivingBack() const {
        const std::chrono::milliseconds since(timeSource().monotonicMilliseconds() - *letGoAt);
        return remoteObjects.processCount() != 0 && since < givingBackTime;
    }

    const dcom::DcomSettings asRead;
    dcom::DcomSettings settings;  // with what the sockets that were handed over have made of them
    std::function<void(std::string_view)> say;
    dcom::net::RepeatFilter callbackLines;
    dcom::net::TcpDialer dialer;
    dcom::outgoing::CallSettings calls;
    dcom::outgoing::RemoteProcesses remoteObjects;  // outlives the objects that hold what is called back
    opcda::wire::CallbackMessages messages;
    opcda::wire::OutgoingCalls outgoing;
    DomainLogOns domain;
    opcda::Application application;
    health::LongestTurn longestTurn;
    health::ClientBook clients;  // outlives the objects that stand in it
    dcom::orpc::ClassRegistry classes;
    dcom::orpc::ObjectExporter exporter;
    dcom::orpc::ActivationHandler activationHandler;
    dcom::orpc::OrpcHandler objectHandler;
    health::CountedCalls countedCalls;
    std::uint64_t refused = 0;  // log-ons and calls, since the start
    dcom::net::RepeatFilter refusals;
    dcom::rpc::ServerSettings protocol;
    dcom::net::TcpServer server;
    std::unique_ptr<ITimer> timer;
    health::Answers answers;
    health::ControlSocket controlSocket;
    std::unique_ptr<ITimer> closing;
    std::uint64_t askedAt = 0;             // monotonic milliseconds; when clients were asked to let go
    std::optional<std::uint64_t> letGoAt;  // when they were let go of
};

OpcNetwork::OpcNetwork(SLIKServer& control, const health::PlantHealth& health, AsioLoop& plant, AsioLoop& loop,
                       systemd::PassedSockets passed, Lines lines)
    : control_(control),
      health_(health),
      plant_(plant),
      loop_(loop),
      passed_(std::move(passed)),
      lines_(std::move(lines)),
      trouble_(loop, plant, lines_.trouble),
      client_(loop, plant, lines_.client),
      failure_(loop, plant, lines_.failure) {}

OpcNetwork::~OpcNetwork() {
    close();
}

std::string OpcNetwork::systemBranch() {
    return dcom::readDcomSettings(dcom::dcomSettingsPath()).systemBranch;
}

void OpcNetwork::open() {
    dcom::DcomSettings settings = dcom::readDcomSettings(dcom::dcomSettingsPath());
    for (const std::string& problem : settings.problems) {
        lines_.trouble(problem);
    }
    for (const std::string& notice : settings.notices) {
        lines_.weakened(notice);
    }
    const bool keepsRunning = settings.keepRunning;
    impl_ = std::make_unique<Impl>(
        control_, health_, loop_, [this](std::string_view line) { trouble_.send(line); },
        [this](std::string_view line) { client_.send(line); },
        [this](health::ReloadDone done) { plant_.post([this, done = std::move(done)] { reloadFor(done); }); },
        std::move(settings));
    try {
        if (passed_.any()) {
            impl_->adopt(std::exchange(passed_, {}), lines_);
        } else {
            impl_->listen();
        }
        openControl();
        const SignalsBlocked blocked;  // they are the main thread's
        thread_ = std::thread([this] { run(); });
    } catch (const dcom::net::ListenError& error) {
        impl_.reset();
        throw RuntimeError(errors::invalidCall, error.what());
    } catch (...) {
        impl_.reset();
        throw;
    }
    if (keepsRunning) {
        control_.holdAsResident();
    }
    lines_.notice("OPC clients are served on " + impl_->listening());
}

// A handler that lets a failure out costs its own client; the loop must go on for the others.
void OpcNetwork::run() {
    for (;;) {
        try {
            loop_.run();
            return;
        } catch (...) {
            failure_.send(currentError().text());
        }
    }
}

// Clients are served without it.
void OpcNetwork::openControl() {
    const std::string path = health::controlPath();
    if (const std::string reason = impl_->controlSocket.open(path); !reason.empty()) {
        lines_.client(fmt::format("The server cannot be asked how it is, at {}: {}", path, reason));
    }
}

void OpcNetwork::reload() {
    reloadFor([](const health::Reloaded&) {});
}

// done is called on the network's thread.
void OpcNetwork::reloadFor(health::ReloadDone done) {
    if (impl_ == nullptr) {
        return;
    }
    const auto fresh = std::make_shared<dcom::DcomSettings>(dcom::readDcomSettings(dcom::dcomSettingsPath()));
    for (const std::string& problem : fresh->problems) {
        lines_.trouble(problem);
    }
    if (!fresh->problems.empty()) {
        std::vector<std::string> told = fresh->problems;
        told.push_back(fmt::format("{} was read anew and is damaged, as said on standard error: nothing is changed",
                                   dcom::dcomSettingsPath()));
        lines_.client(told.back());
        loop_.post([done = std::move(done), told] { done({false, told}); });
        return;
    }
    if (fresh->keepRunning) {
        control_.holdAsResident();
    } else {
        control_.releaseResident();
    }
    loop_.post([this, fresh, done = std::move(done)] { done({true, impl_->apply(*fresh)}); });
}

void OpcNetwork::requestShutdown(std::string_view reason) {
    if (impl_ != nullptr) {
        loop_.post([this, text = std::string(reason)] { impl_->requestShutdown(text); });
    }
}

void OpcNetwork::close() {
    if (impl_ == nullptr) {
        return;
    }
    loop_.post([this] {
        impl_->closing = loop_.makeTimer([this] { goOnClosing(); });
        goOnClosing();
    });
    thread_.join();
    impl_.reset();
}

void OpcNetwork::goOnClosing() {
    if (!impl_->letGoAt && !impl_->isAsking()) {
        impl_->letGoOfClients(control_.network());
    }
    if (!impl_->letGoAt || impl_->isGivingBack()) {
        impl_->closing->start(closingStep);
    } else {
        loop_.stop();
    }
}

}  // namespace quelm
