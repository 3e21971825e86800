#include "OPC/Main/DomainLogOns.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

#include "base/Text.h"
#include "dcom/domain/DomainSettings.h"
#include "dcom/domain/Keytab.h"
#ifdef QUELM_KERBEROS
#include "dcom/kerberos/TicketAcceptor.h"
#endif
#ifdef QUELM_WINBIND
#include "dcom/winbind/Winbind.h"
#endif

namespace quelm {

namespace {

// Winbind answers in milliseconds. Should it hang, nobody is kept waiting for it longer than this.
constexpr std::chrono::milliseconds startWait{2'000};
// While something is missing, a controller above all, it is looked for again so often.
constexpr std::chrono::milliseconds lookAgain{60'000};

std::unique_ptr<dcom::Kerberos> openTickets(const std::string& keytab, std::string& fault) {
#ifdef QUELM_KERBEROS
    return dcom::kerberos::acceptTickets(keytab, fault);
#else
    static_cast<void>(keytab);
    fault = "this server was built without Kerberos";
    return nullptr;
#endif
}

std::unique_ptr<dcom::DomainLink> openLink(std::string& fault) {
#ifdef QUELM_WINBIND
    return dcom::winbind::openWinbind(fault);
#else
    fault = "this server was built without winbind";
    return nullptr;
#endif
}

}  // namespace

DomainLogOns::DomainLogOns(const dcom::DcomSettings& settings, AsioLoop& loop, Say trouble, Say news)
    : trouble_(std::move(trouble)), news_(std::move(news)), loop_(loop) {
    if (!settings.keytab.empty()) {
        openKerberos(settings);
    }
    if (settings.winbind) {
        openWinbind();
    }
    // Whoever asks the domain says later what it knows of them.
    if (settings.letsDomainIn() && worker_ == nullptr) {
        for (const std::string& problem : dcom::accessProblems(settings.access)) {
            trouble_(problem);
        }
    }
}

void DomainLogOns::openKerberos(const dcom::DcomSettings& settings) {
    std::string fault;
    kerberos_ = openTickets(settings.keytab, fault);
    if (kerberos_ == nullptr) {
        trouble_(
            fmt::format("[Security] Keytab = {}: log-ons by Kerberos are not possible ({}). Install libgssapi-krb5-2.",
                        settings.keytab, fault));
        return;
    }
    const dcom::Keytab keytab = dcom::readKeytab(settings.keytab);
    principal_ = keytab.hostPrincipal();
    for (const std::string& problem : dcom::keytabProblems(settings.keytab, keytab)) {
        trouble_(problem);
    }
}

void DomainLogOns::openWinbind() {
    std::string fault;
    if (auto link = openLink(fault)) {
        worker_ = std::make_unique<dcom::DomainWorker>(loop_, loop_, std::move(link));
        again_ = loop_.makeTimer([this] { look(); });
    } else {
        trouble_(
            fmt::format("[Security] Winbind = yes: log-ons cannot be passed on to the domain ({}). Install "
                        "libwbclient0 and winbind.",
                        fault));
    }
}

void DomainLogOns::serve(dcom::rpc::ServerSettings& protocol) {
    protocol_ = &protocol;
    protocol.kerberos = kerberos_.get();
    protocol.passThrough = worker_.get();
    if (worker_ != nullptr) {
        look();
        worker_->await(startWait);
    }
}

// What is known of groups that stay counts until the domain says something else.
void DomainLogOns::admit(const dcom::AccessList& access) {
    dcom::AccessList next = access;
    next.rememberSids(protocol_->access);
    protocol_->access = std::move(next);
    if (worker_ != nullptr) {
        look();
    }
}

void DomainLogOns::look() {
    again_->stop();
    worker_->look(protocol_->access.namedGroups(), [this](const dcom::DomainLook& seen) { onSeen(seen); });
}

void DomainLogOns::onSeen(const dcom::DomainLook& look) {
    if (!look.computerName.empty()) {
        auto& names = protocol_->logOn;
        names.computerName = look.computerName;
        names.domainName = look.domainName;
        names.dnsDomainName = look.dnsDomainName;
        names.dnsComputerName =
            look.dnsDomainName.empty() ? "" : foldCase(look.computerName) + '.' + look.dnsDomainName;
    }
    for (const auto& group : look.groups) {
        protocol_->access.setGroupSid(group.name, group.sid);
    }
    std::vector<std::string> problems = dcom::problemsOf(look, protocol_->access);
    if (!problems.empty()) {
        again_->start(lookAgain);
    }
    if (std::exchange(isTold_, true) && problems == told_) {
        return;
    }
    for (const std::string& problem : problems) {
        trouble_(problem);
    }
    if (problems.empty()) {
        news_(fmt::format("Accounts of the domain {} can log on by NTLM; it knows this machine as {}", look.domainName,
                          look.computerName));
    }
    told_ = std::move(problems);
}

}  // namespace quelm
