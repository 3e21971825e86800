#include "dcom/winbind/Winbind.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "dcom/Printable.h"
#include "dcom/winbind/Status.h"
#include "dcom/winbind/WbcLibrary.h"

namespace quelm::dcom::winbind {

namespace {

using Clock = std::chrono::steady_clock;

// A call that fails within it was turned away on this machine; one that takes longer waited for a controller.
constexpr std::chrono::milliseconds atOnce{1'000};
constexpr std::uint32_t groupEnabled = 0x04;
constexpr std::uint32_t groupForDenialOnly = 0x10;
constexpr const char* notRunning = "winbind is not running";
constexpr const char* hangs = "winbind waits in vain for a controller";

std::string textOf(const char* text) {
    return text != nullptr ? text : "";
}

// What the library gives away, which wants it back.
template <class Type>
class Given {
 public:
    explicit Given(const WbcLibrary& library) : library_(library) {}
    Given(const Given&) = delete;
    Given& operator=(const Given&) = delete;
    ~Given() { library_.freeMemory(value_); }
    Type** place() { return &value_; }
    Type* operator->() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }

 private:
    const WbcLibrary& library_;
    Type* value_ = nullptr;
};

class Winbind final : public DomainLink {
 public:
    explicit Winbind(const WbcLibrary& library) : library_(library), context_(library.create()) {}
    Winbind(const Winbind&) = delete;
    Winbind& operator=(const Winbind&) = delete;
    ~Winbind() override { library_.free(context_); }

    NtlmAnswer logOn(const NtlmQuestion& question) noexcept override;
    DomainLook look(const std::vector<std::string>& groups) noexcept override;

 private:
    // Of this machine's domain; nothing: there is no winbind.
    std::optional<std::string> dnsDomain();
    NtlmAnswer tryLogOn(const NtlmQuestion& question);
    NtlmAnswer welcome(const wbcAuthUserInfo& info);
    NtlmAnswer turnedAway(wbcErr error, Clock::time_point begun);
    std::string faultOfTrust();
    void findGroups(const std::vector<std::string>& names, DomainLook& result);
    std::string sidOf(const std::string& name);

    const WbcLibrary& library_;
    wbcContext* context_;
};

NtlmAnswer away(RefusalReason reason, std::string detail) {
    NtlmAnswer answer;
    answer.reason = reason;
    answer.detail = std::move(detail);
    return answer;
}

NtlmAnswer Winbind::logOn(const NtlmQuestion& question) noexcept {
    try {
        return tryLogOn(question);
    } catch (const std::exception& error) {
        return away(RefusalReason::DomainAway, error.what());
    }
}

NtlmAnswer Winbind::tryLogOn(const NtlmQuestion& question) {
    if (context_ == nullptr) {
        return away(RefusalReason::DomainAway, "memory is short");
    }
    // The library takes them as its own to change.
    std::vector<std::uint8_t> nt = question.ntResponse;
    std::vector<std::uint8_t> lm = question.lmResponse;
    wbcAuthUserParams asked{};
    asked.account_name = question.user.c_str();
    asked.domain_name = question.domain.c_str();
    asked.workstation_name = question.workstation.c_str();
    asked.parameter_control = WBC_MSV1_0_ALLOW_WORKSTATION_TRUST_ACCOUNT | WBC_MSV1_0_ALLOW_SERVER_TRUST_ACCOUNT;
    asked.level = wbcAuthUserParams::WBC_AUTH_USER_LEVEL_RESPONSE;
    auto& response = asked.password.response;
    std::copy(question.challenge.begin(), question.challenge.end(), std::begin(response.challenge));
    response.nt_data = nt.data();
    response.nt_length = static_cast<std::uint32_t>(nt.size());
    response.lm_data = lm.data();
    response.lm_length = static_cast<std::uint32_t>(lm.size());

    const auto begun = Clock::now();
    Given<wbcAuthUserInfo> info(library_);
    Given<wbcAuthErrorInfo> trouble(library_);
    const wbcErr error = library_.authenticate(context_, &asked, info.place(), trouble.place());
    if (WBC_ERROR_IS_OK(error) && info) {
        return welcome(*info.operator->());
    }
    if (error == WBC_ERR_AUTH_ERROR && trouble) {
        const Status status = statusOf(trouble->nt_status, trouble->nt_string);
        return away(status.reason, status.detail);
    }
    return turnedAway(error, begun);
}

// Names and groups by the controller's word.
NtlmAnswer Winbind::welcome(const wbcAuthUserInfo& info) {
    NtlmAnswer answer;
    std::memcpy(answer.sessionKey.data(), info.user_session_key, answer.sessionKey.size());
    const bool hasKey = std::ranges::any_of(answer.sessionKey, [](std::uint8_t byte) { return byte != 0; });
    // A guest is anybody, and from a memory of earlier log-ons there is no key.
    if ((info.user_flags & (WBC_AUTH_USER_INFO_GUEST | WBC_AUTH_USER_INFO_CACHED_ACCOUNT)) != 0 || !hasKey) {
        return away(RefusalReason::DomainRefused, "it is taken for a guest, or without a key for this session");
    }
    answer.person = {textOf(info.domain_name), textOf(info.account_name), textOf(info.dns_domain_name), {}};
    if (answer.person.realm.empty()) {
        answer.person.realm = dnsDomain().value_or("");
    }
    constexpr std::uint32_t himselfAndHisPrimaryGroup = 2;
    for (std::uint32_t i = 0; i < info.num_sids; ++i) {
        const std::uint32_t attributes = info.sids[i].attributes;
        const bool counts = (attributes & groupEnabled) != 0 && (attributes & groupForDenialOnly) == 0;
        if (i < himselfAndHisPrimaryGroup || counts) {
            std::array<char, WBC_SID_STRING_BUFLEN + 1> sid{};
            library_.sidToText(&info.sids[i].sid, sid.data(), sid.size());
            answer.person.sids.emplace_back(sid.data());
        }
    }
    return answer;
}

NtlmAnswer Winbind::turnedAway(wbcErr error, Clock::time_point begun) {
    if (error != WBC_ERR_WINBIND_NOT_AVAILABLE) {
        return away(RefusalReason::DomainAway, printable(textOf(library_.words(error))));
    }
    if (Clock::now() - begun >= atOnce) {
        return away(RefusalReason::DomainAway, hangs);
    }
    // The pipe of those that may ask about log-ons is another one than everybody's.
    return dnsDomain() ? away(RefusalReason::NoWinbindRight, "") : away(RefusalReason::DomainAway, notRunning);
}

std::optional<std::string> Winbind::dnsDomain() {
    Given<struct wbcInterfaceDetails> details(library_);
    if (!WBC_ERROR_IS_OK(library_.details(context_, details.place())) || !details) {
        return std::nullopt;
    }
    return textOf(details->dns_domain);
}

// ---- Before anybody logs on ----------------------------------------------------------------------------------

DomainLook Winbind::look(const std::vector<std::string>& groups) noexcept {
    DomainLook result;
    try {
        Given<struct wbcInterfaceDetails> details(library_);
        if (context_ == nullptr || !WBC_ERROR_IS_OK(library_.details(context_, details.place())) || !details) {
            result.fault = fmt::format("{}; remedy: join this machine to the domain and start it", notRunning);
            return result;
        }
        result.computerName = textOf(details->netbios_name);
        result.domainName = textOf(details->netbios_domain);
        result.dnsDomainName = textOf(details->dns_domain);
        result.fault = faultOfTrust();
        findGroups(groups, result);
    } catch (const std::exception& error) {
        result.fault = error.what();
    }
    return result;
}

// Asks the one thing that needs the same right and the same way as log-ons.
std::string Winbind::faultOfTrust() {
    const auto begun = Clock::now();
    Given<wbcAuthErrorInfo> trouble(library_);
    const wbcErr error = library_.checkTrust(context_, nullptr, trouble.place());
    if (WBC_ERROR_IS_OK(error)) {
        return {};
    }
    const NtlmAnswer answer =
        error == WBC_ERR_AUTH_ERROR && trouble
            ? away(RefusalReason::DomainAway, statusOf(trouble->nt_status, trouble->nt_string).detail)
            : turnedAway(error, begun);
    return fmt::format("{}; remedy: {}", fmt::format(fmt::runtime(refusalText(answer.reason)), answer.detail),
                       fmt::format(fmt::runtime(refusalRemedy(answer.reason)), "dcom.conf"));
}

// While no controller answers, groups that winbind has not met are the same to it as those that are not there.
void Winbind::findGroups(const std::vector<std::string>& names, DomainLook& result) {
    for (const std::string& name : names) {
        const auto begun = Clock::now();
        if (std::string sid = sidOf(name); !sid.empty()) {
            result.groups.push_back({name, std::move(sid)});
        } else if (Clock::now() - begun >= atOnce) {
            return;
        }
    }
}

std::string Winbind::sidOf(const std::string& name) {
    const std::size_t backslash = name.find('\\');
    const std::size_t at = name.find('@');
    const bool isBehind = backslash == std::string::npos;
    const std::string domain = isBehind ? name.substr(at + 1) : name.substr(0, backslash);
    const std::string group = isBehind ? name.substr(0, at) : name.substr(backslash + 1);
    wbcDomainSid sid{};
    wbcSidType type = WBC_SID_NAME_USE_NONE;
    const wbcErr error = library_.lookUpName(context_, domain.c_str(), group.c_str(), &sid, &type);
    const bool isGroup = type == WBC_SID_NAME_DOM_GRP || type == WBC_SID_NAME_ALIAS || type == WBC_SID_NAME_WKN_GRP;
    if (!WBC_ERROR_IS_OK(error) || !isGroup) {
        return {};
    }
    std::array<char, WBC_SID_STRING_BUFLEN + 1> text{};
    library_.sidToText(&sid, text.data(), text.size());
    return text.data();
}

}  // namespace

std::unique_ptr<DomainLink> openWinbind(std::string& fault) {
    const WbcLibrary* const library = WbcLibrary::load(fault);
    return library != nullptr ? std::make_unique<Winbind>(*library) : nullptr;
}

}  // namespace quelm::dcom::winbind
