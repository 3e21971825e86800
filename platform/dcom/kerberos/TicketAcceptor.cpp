#include "dcom/kerberos/TicketAcceptor.h"

#include <krb5/krb5.h>

#include <algorithm>
#include <array>
#include <utility>

#include "dcom/Printable.h"
#include "dcom/domain/Pac.h"
#include "dcom/kerberos/TicketKeys.h"

namespace quelm::dcom::kerberos {

namespace {

using Step = KerberosLogOn::Step;

// What the library's codes mean to the operator.
constexpr std::array<std::pair<krb5_error_code, RefusalReason>, 11> reasons{{
    {KRB5KRB_AP_ERR_TKT_EXPIRED, RefusalReason::TicketExpired},
    {KRB5KRB_AP_ERR_TKT_NYV, RefusalReason::ClockSkew},
    {KRB5KRB_AP_ERR_SKEW, RefusalReason::ClockSkew},
    {KRB5KRB_AP_ERR_NOT_US, RefusalReason::OtherService},
    {KRB5KRB_AP_WRONG_PRINC, RefusalReason::OtherService},
    {KRB5KRB_AP_ERR_NOKEY, RefusalReason::OtherService},
    {KRB5_KT_NOTFOUND, RefusalReason::OtherService},
    {KRB5KRB_AP_ERR_BADKEYVER, RefusalReason::OtherKey},
    {KRB5KRB_AP_ERR_BAD_INTEGRITY, RefusalReason::OtherKey},
    {KRB5KRB_AP_ERR_MODIFIED, RefusalReason::OtherKey},
    {KRB5KRB_AP_ERR_REPEAT, RefusalReason::RepeatedTicket},
}};

class TicketLogOn final : public KerberosLogOn {
 public:
    explicit TicketLogOn(TicketAcceptor& acceptor)
        : acceptor_(acceptor), library_(acceptor.library()), keys_(acceptor.library()) {}

    Step take(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer) override;
    const Person& person() const override { return person_; }
    bool canSeal() const override { return (flags_ & GSS_C_CONF_FLAG) != 0; }
    void coverHeaders() override { keys_.coverHeaders(); }
    bool exchangeSignatures(std::span<const std::uint8_t> text, std::span<const std::uint8_t> clientSignature,
                            std::vector<std::uint8_t>& signature) override {
        return keys_.verifyText(text, clientSignature) && keys_.signText(text, signature);
    }

    std::size_t tokenSize(bool seals) const override { return keys_.tokenSize(seals); }
    void protect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                 std::span<std::uint8_t> token) override {
        if (!keys_.protect(message, stub, seals, token)) {
            std::ranges::fill(stub, std::uint8_t{0});
            std::ranges::fill(token, std::uint8_t{0});
        }
    }
    bool unprotect(std::span<std::uint8_t> message, std::span<std::uint8_t> stub, bool seals,
                   std::span<std::uint8_t> token) override {
        return keys_.unprotect(message, stub, seals, token);
    }

 private:
    Step begin(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer);
    Step advance(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer);
    Step failure(OM_uint32 major, OM_uint32 minor) const;
    Step identify();
    void readName(gss_name_t name);

    TicketAcceptor& acceptor_;
    const GssLibrary& library_;
    TicketKeys keys_;
    OM_uint32 flags_ = 0;
    Person person_;
};

Step TicketLogOn::take(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer) {
    return *keys_.context() == GSS_C_NO_CONTEXT ? begin(token, answer) : advance(token, answer);
}

Step TicketLogOn::begin(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer) {
    const auto request = bareApRequest(token);
    const auto digest = digestOf(request);
    if (!digest) {
        return {RefusalReason::MalformedTicket};
    }
    if (acceptor_.taken().knows(*digest)) {
        return {RefusalReason::RepeatedTicket};
    }
    Step step = advance(request, answer);
    if (step.reason == RefusalReason::None) {
        acceptor_.taken().add(*digest);
    }
    return step;
}

Step TicketLogOn::advance(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer) {
    std::string fault;
    const gss_cred_id_t credential = acceptor_.credential(fault);
    if (credential == GSS_C_NO_CREDENTIAL) {
        return {RefusalReason::NoKeytab, fault};
    }
    gss_buffer_desc in{token.size(), const_cast<std::uint8_t*>(token.data())};
    GssBuffer out(library_);
    OM_uint32 minor = 0;
    const OM_uint32 major = library_.accept(&minor, keys_.context(), credential, &in, GSS_C_NO_CHANNEL_BINDINGS,
                                            nullptr, nullptr, out.get(), &flags_, nullptr, nullptr);
    if (GSS_ERROR(major)) {
        return failure(major, minor);
    }
    answer.assign(out.bytes().begin(), out.bytes().end());
    return (major & GSS_S_CONTINUE_NEEDED) != 0 ? Step{} : identify();
}

Step TicketLogOn::failure(OM_uint32 major, OM_uint32 minor) const {
    const auto code = static_cast<krb5_error_code>(minor);
    const auto* const known = std::ranges::find(reasons, code, &std::pair<krb5_error_code, RefusalReason>::first);
    if (known != reasons.end()) {
        return {known->second};
    }
    if (GSS_ROUTINE_ERROR(major) == GSS_S_DEFECTIVE_TOKEN && minor == 0) {
        return {RefusalReason::MalformedTicket};
    }
    return {RefusalReason::TicketRefused, printable(library_.words(major, minor))};
}

Step TicketLogOn::identify() {
    constexpr OM_uint32 needed = GSS_C_DCE_STYLE | GSS_C_MUTUAL_FLAG | GSS_C_INTEG_FLAG;
    if ((flags_ & needed) != needed) {
        return {RefusalReason::MalformedTicket};
    }
    if (!keys_.ready()) {
        return {RefusalReason::OldEncryption};
    }
    OM_uint32 minor = 0;
    gss_name_t name = GSS_C_NO_NAME;
    const OM_uint32 major =
        library_.inquireContext(&minor, *keys_.context(), &name, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (GSS_ERROR(major)) {
        return failure(major, minor);
    }
    readName(name);
    library_.releaseName(&minor, &name);
    return {RefusalReason::None, {}, true};
}

// Names and groups by the controller's word, where it gives it; else the name alone.
void TicketLogOn::readName(gss_name_t name) {
    OM_uint32 minor = 0;
    GssBuffer shown(library_);
    library_.displayName(&minor, name, shown.get(), nullptr);
    const std::string principal = shown.text();
    const std::size_t at = principal.rfind('@');
    const std::string realm = at == std::string::npos ? std::string() : principal.substr(at + 1);

    std::string attribute = "urn:mspac:logon-info";
    gss_buffer_desc wanted{attribute.size(), attribute.data()};
    GssBuffer value(library_);
    GssBuffer text(library_);
    int isAuthentic = 0;
    int isComplete = 0;
    int more = -1;
    const OM_uint32 major =
        library_.nameAttribute(&minor, name, &wanted, &isAuthentic, &isComplete, value.get(), text.get(), &more);
    std::optional<Person> person;
    if (!GSS_ERROR(major) && isAuthentic != 0) {
        person = readLogonInfo(value.bytes());
    }
    person_ = person ? std::move(*person) : Person{realm, principal.substr(0, at), {}, {}};
    person_.realm = realm;
}

}  // namespace

TicketAcceptor::TicketAcceptor(const GssLibrary& library, std::string keytab)
    : library_(library), keytab_(std::move(keytab)) {}

TicketAcceptor::~TicketAcceptor() {
    OM_uint32 minor = 0;
    library_.releaseCredential(&minor, &credential_);
}

// Without a name, so that every entry of the keytab counts: clients ask for tickets by several names of this machine,
// and for the activation port by a service's name that has no entry of its own.
gss_cred_id_t TicketAcceptor::credential(std::string& fault) {
    if (credential_ == GSS_C_NO_CREDENTIAL) {
        // The library's memory of what was taken is a file that it syncs; the one here does without.
        std::array<gss_key_value_element_desc, 2> elements{{{"keytab", keytab_.c_str()}, {"rcache", "none:"}}};
        const gss_key_value_set_desc store{elements.size(), elements.data()};
        gss_OID_set_desc mechanisms{1, kerberosMechanism()};
        OM_uint32 minor = 0;
        const OM_uint32 major = library_.acquireCredential(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms,
                                                           GSS_C_ACCEPT, &store, &credential_, nullptr, nullptr);
        if (GSS_ERROR(major)) {
            fault = printable(library_.words(major, minor));
        }
    }
    return credential_;
}

std::unique_ptr<KerberosLogOn> TicketAcceptor::begin() {
    return std::make_unique<TicketLogOn>(*this);
}

std::unique_ptr<Kerberos> acceptTickets(const std::string& keytab, std::string& fault) {
    const GssLibrary* const library = GssLibrary::load(fault);
    return library != nullptr ? std::make_unique<TicketAcceptor>(*library, keytab) : nullptr;
}

}  // namespace quelm::dcom::kerberos
