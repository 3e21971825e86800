#include "dcom/client/Session.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "dcom/client/CallbackHost.h"
#include "dcom/client/Core.h"
#include "dcom/client/Explain.h"
#include "dcom/client/Names.h"
#include "dcom/client/Process.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/orpc/RemoteActivation.h"

namespace quelm::dcom::client {

namespace {

// The younger protocols first; very old machines take none but the oldest.
constexpr std::uint16_t versions[] = {orpc::comMinorVersion, 1};

// The younger and the older form of asking for an object.
struct Form {
    Uuid interfaceId;
    std::uint16_t opnum;
    std::uint32_t flags;
    void (*write)(ndr::Writer&, const orpc::ObjectCallHeader&, const Uuid&, std::span<const Uuid>);
    std::optional<orpc::ActivatedObject> (*parse)(std::span<const std::uint8_t>);
};
const Form forms[] = {
    {orpc::iidRemoteScmActivator, orpc::opnumOf(orpc::ScmActivatorCall::CreateInstance), 1, orpc::writeCreateInstance,
     orpc::parseCreateInstance},
    {orpc::iidActivation, orpc::opnumOf(orpc::ActivationCall::RemoteActivation), 0, orpc::writeRemoteActivation,
     orpc::parseRemoteActivation},
};

bool isFormUnknown(const Line::Result& result) {
    return result.fault == Fault::UnknownInterface || result.fault == Fault::OpnumRange;
}

}  // namespace

ntlm::ClientAccount account(std::string_view domain, std::string_view user, std::string_view password) {
    return {std::string(domain), std::string(user), ntlm::ntHash(password), computerName()};
}

class Session::Impl {
 public:
    Impl(AsioLoop& loop, std::string host, LogOn logOn, Settings settings)
        : core(loop, std::move(host), std::move(logOn), std::move(settings)) {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl();

    orpc::ActivatedObject ask(const Uuid& classId, std::span<const Uuid> iids);
    void giveBack(std::chrono::milliseconds limit);

    Core core;
    std::unique_ptr<CallbackHost> callbacks;

 private:
    std::optional<orpc::ActivatedObject> askIn(const Form& form, const Uuid& classId, std::span<const Uuid> iids,
                                               bool isLast);
    orpc::ActivatedObject read(const Form& form, const Line::Result& result, const Uuid& classId,
                               const std::string& at) const;
};

Session::Impl::~Impl() {
    constexpr std::chrono::milliseconds longest{1'000};
    core.waiting.forgetInterruption();
    core.settings.connectLimit = std::min(core.settings.connectLimit, longest);
    try {
        if (!core.waiting.isWaiting()) {
            giveBack(longest);
        }
    } catch (const std::exception& error) {
        core.trace(std::string("references could not be given back: ") + error.what());
    }
    for (const auto& [oxid, process] : core.processes) {
        process->close();
    }
}

void Session::Impl::giveBack(std::chrono::milliseconds limit) {
    // Meanwhile others may come.
    const auto processes = core.processes;
    for (const auto& [oxid, process] : processes) {
        process->giveBack(limit);
    }
}

orpc::ActivatedObject Session::Impl::ask(const Uuid& classId, std::span<const Uuid> iids) {
    if (auto answer = askIn(forms[0], classId, iids, false)) {
        return std::move(*answer);
    }
    core.trace("the machine does not know the younger form of activation");
    return std::move(*askIn(forms[1], classId, iids, true));
}

// Nothing where the machine does not know this form; the last one must be known.
std::optional<orpc::ActivatedObject> Session::Impl::askIn(const Form& form, const Uuid& classId,
                                                          std::span<const Uuid> iids, bool isLast) {
    Line line(core, Purpose::Activation, core.activationAddresses(), form.interfaceId, core.levelFor(0), true);
    Line::Result result;
    for (const std::uint16_t version : versions) {
        auto stub = std::make_shared<std::vector<std::uint8_t>>();
        ndr::Writer out(*stub);
        orpc::ObjectCallHeader header = core.nextHeader(version);
        header.flags = form.flags;
        form.write(out, header, classId, iids);
        try {
            result = line.call({form.interfaceId, form.opnum, {}}, stub, core.settings.callLimit);
        } catch (const Trouble&) {
            if (!isLast && line.failure() == rpc::ClientFailure::BindRefused) {
                return std::nullopt;
            }
            throw;
        }
        if (result.fault != Fault::VersionMismatch) {
            break;
        }
    }
    core.serverAddress = line.address().host;
    if (!isLast && isFormUnknown(result)) {
        return std::nullopt;
    }
    return read(form, result, classId, line.address().text());
}

orpc::ActivatedObject Session::Impl::read(const Form& form, const Line::Result& result, const Uuid& classId,
                                          const std::string& at) const {
    const std::string what = "the activation of class " + classId.toText();
    if (result.fault != Fault::None) {
        throw explainFault(result.fault, at, what);
    }
    auto answer = form.parse(result.stub);
    if (!answer) {
        throw garbage(at, "an answer to " + what + " that cannot be read");
    }
    const auto code = static_cast<std::uint32_t>(answer->result);
    if (answer->result == REGDB_E_CLASSNOTREG) {
        throw Trouble(Trouble::Kind::ClassUnknown, at,
                      fmt::format("{} has no class {}; check the name of the server, and that it is registered there",
                                  at, classId.toText()),
                      code);
    }
    if (answer->result == E_ACCESSDENIED) {
        throw Trouble(Trouble::Kind::AccessDenied, at,
                      fmt::format("{} does not let {} start or reach class {}; give the account the right to do so "
                                  "there (on Windows: dcomcnfg, launch and activation)",
                                  at, core.logOn.account ? core.logOn.account->user : "a caller without a log-on",
                                  classId.toText()),
                      code);
    }
    return std::move(*answer);
}

Session::Session(AsioLoop& loop, std::string host, LogOn logOn, Settings settings)
    : impl_(std::make_unique<Impl>(loop, std::move(host), std::move(logOn), std::move(settings))) {}

Session::~Session() = default;

Activated Session::activate(const Uuid& classId, std::span<const Uuid> iids) {
    if (iids.empty()) {
        throw std::invalid_argument("an activation without interfaces");
    }
    Core& core = impl_->core;
    const orpc::ActivatedObject made = impl_->ask(classId, iids);
    Activated activated{made.result, {}};
    if (failed(made.result)) {
        activated.interfaces.assign(iids.size(), {made.result, std::nullopt});
        return activated;
    }
    if (made.interfaces.size() != iids.size()) {
        throw garbage(core.serverAddress, "an activation's answer for other interfaces than were asked for");
    }
    std::vector<orpc::StringBinding> resolver{{core.serverAddress, core.settings.activationPort}};
    for (const auto& entry : made.interfaces) {
        if (entry.reference) {
            resolver.insert(resolver.end(), entry.reference->resolver.begin(), entry.reference->resolver.end());
            break;
        }
    }
    if (core.ownOxid != 0 && made.oxid == core.ownOxid) {
        throw garbage(core.serverAddress, "this program's own number as that of its process");
    }
    const auto process = core.process(made.oxid, resolver);
    process->learn(made.process);
    for (std::size_t i = 0; i < iids.size(); ++i) {
        const auto& entry = made.interfaces[i];
        std::optional<Interface> interface;
        if (entry.reference) {
            interface = entry.reference->object.oxid == made.oxid ? process->handle(iids[i], entry.reference->object)
                                                                  : core.adopt(*entry.reference);
        }
        activated.interfaces.emplace_back(entry.result, std::move(interface));
    }
    return activated;
}

std::vector<std::uint8_t> Session::exportObject(const Uuid& iid, ICallback& callback, const Uuid& marshalledAs) {
    if (impl_->callbacks == nullptr) {
        impl_->callbacks = std::make_unique<CallbackHost>(impl_->core);
    }
    return impl_->callbacks->add(iid, callback, marshalledAs);
}

void Session::withdraw(ICallback& callback) {
    if (impl_->callbacks != nullptr) {
        impl_->callbacks->remove(callback);
    }
}

void Session::run(std::chrono::milliseconds limit) {
    runUntil([] { return false; }, limit);
}

bool Session::runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    impl_->giveBack(impl_->core.settings.callLimit);
    return impl_->core.waiting.until(condition, limit);
}

void Session::interrupt() {
    impl_->core.waiting.interrupt();
}

void Session::abandon() {
    impl_->callbacks.reset();
    for (const auto& [oxid, process] : impl_->core.processes) {
        process->close();
    }
    impl_->core.processes.clear();
}

std::string Session::callbackAddress() const {
    return impl_->callbacks == nullptr ? std::string() : impl_->callbacks->address();
}

std::string Session::serverAddress() const {
    return impl_->core.serverAddress;
}

bool Session::wasCalledBack() const {
    return impl_->callbacks != nullptr && impl_->callbacks->wasCalled();
}

}  // namespace quelm::dcom::client
