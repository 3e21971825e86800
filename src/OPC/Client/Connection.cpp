#include "OPC/Client/Connection.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "OPC/Client/Password.h"

namespace quelm::opcclient {

using namespace opcda::client;
using dcom::client::Session;
using dcom::client::Trouble;

namespace {

std::string machineName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "linux";
}

std::optional<Uuid> asClassId(const std::string& text) {
    try {
        return Uuid::parse(text);
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    }
}

// For a script a server that is not there is not reached, whoever says so.
Uuid classNamed(Session& session, const std::string& progId) {
    try {
        return classOf(session, progId);
    } catch (const OpcError& error) {
        if (error.result == E_ACCESSDENIED) {
            throw;
        }
        throw Trouble(Trouble::Kind::ClassUnknown, session.serverAddress(), error.what());
    }
}

}  // namespace

dcom::client::LogOn logOnOf(const Options& options) {
    dcom::client::LogOn logOn;
    logOn.level = options.level;
    if (!options.user.empty()) {
        logOn.account = dcom::ntlm::ClientAccount{options.domain, options.user, passwordHash(options), ""};
    }
    return logOn;
}

Connection::Connection(AsioLoop& loop, Screen& screen, const Options& options)
    : loop_(loop), screen_(screen), options_(options), logOn_(logOnOf(options)), session_(newSession()) {}

std::unique_ptr<Session> Connection::newSession() {
    dcom::client::Settings settings;
    settings.activationPort = options_.port;
    settings.connectLimit = std::min<std::chrono::milliseconds>(options_.limit, settings.connectLimit);
    settings.callLimit = options_.limit;
    settings.callbackPort = options_.callbackPort;
    settings.callbackAddress = options_.callbackAddress;
    settings.allowCallbacksWithoutLogOn = !logOn_.account;
    if (options_.verbose) {
        settings.trace = [this](const std::string& line) { screen_.message(line); };
    }
    return std::make_unique<Session>(loop_, options_.host, logOn_, std::move(settings));
}

void Connection::choose() {
    if (classId_) {
        return;
    }
    if (!options_.server.empty()) {
        const auto given = asClassId(options_.server);
        progId_ = given ? "" : options_.server;
        classId_ = given ? *given : classNamed(*session_, options_.server);
        return;
    }
    const std::vector<FoundServer> found = opcda::client::discover(*session_);
    if (found.empty()) {
        throw Trouble(Trouble::Kind::ClassUnknown, options_.host,
                      fmt::format("{} lists no OPC DA server", options_.host));
    }
    if (found.size() > 1) {
        std::string names;
        for (const FoundServer& each : found) {
            names += "\n  " + (each.progId.empty() ? each.classId.toText() : each.progId);
        }
        throw UsageError(fmt::format("{} has several OPC DA servers; choose one by --server:{}", options_.host, names));
    }
    classId_ = found.front().classId;
    progId_ = found.front().progId;
}

const Uuid& Connection::classId() {
    choose();
    return *classId_;
}

const std::string& Connection::progId() {
    choose();
    return progId_;
}

void Connection::interrupt() {
    session_->interrupt();
    if (alsoInterrupted_) {
        alsoInterrupted_();
    }
}

OpcSession& Connection::opc() {
    if (!opc_) {
        OpcSession::Options wishes;
        wishes.clientName = fmt::format("{}: opcda", machineName());
        if (options_.verbose) {
            wishes.note = [this](const std::string& line) { screen_.message(line); };
        }
        opc_ = std::make_unique<OpcSession>(*session_, classId(), std::move(wishes));
    }
    return *opc_;
}

}  // namespace quelm::opcclient
