// The log-on of a call back against our own server's side, and everything that a hostile other end may answer.

#include <gtest/gtest.h>

#include "dcom/ntlm/ClientContext.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/ntlm/Messages.h"

namespace quelm::dcom::ntlm {
namespace {

class OneAccount final : public AccountStore {
 public:
    std::optional<NtHash> find(std::string_view domain, std::string_view user) const override {
        return domain == "PLANT" && user == "callback" ? std::optional(ntHash("stack-7")) : std::nullopt;
    }
};

class ClientContextTest : public testing::Test {
 protected:
    OneAccount accounts_;
    ServerSettings settings_{"HISTORIAN", "PLANT", "", "", false, false};
    ServerContext server_{accounts_, settings_};
    ClientAccount account_{"PLANT", "callback", ntHash("stack-7"), "QUELM1"};
};

TEST_F(ClientContextTest, TheMicShowsAnyChangeOnTheWay) {
    ClientContext client(account_, true);
    auto challenge = server_.challenge(client.negotiate().value()).value();
    challenge[20] ^= 0x04;  // a flag of the offer that nobody needs
    EXPECT_EQ(server_.authenticate(client.authenticate(challenge).value()), RefusalReason::AlteredLogOn);
}

TEST_F(ClientContextTest, WrongSecretIsRefusedByTheOtherEnd) {
    account_.hash = ntHash("stack-8");
    ClientContext client(account_, false);
    const auto challenge = server_.challenge(client.negotiate().value());
    EXPECT_EQ(server_.authenticate(client.authenticate(challenge.value()).value()), RefusalReason::WrongPassword);
}

TEST_F(ClientContextTest, TakesNoOfferThatIsCutWeakOrOutOfTurn) {
    ClientContext client(account_, true);
    const auto challenge = server_.challenge(client.negotiate().value()).value();
    for (std::size_t size = 0; size < challenge.size(); ++size) {
        client.negotiate();
        EXPECT_FALSE(client.authenticate(std::span(challenge).first(size))) << size;
    }
    for (const std::uint32_t flag :
         {flags::sign, flags::seal, flags::ntlm, flags::extendedSessionSecurity, flags::key128, flags::unicode}) {
        auto weak = challenge;
        for (std::size_t i = 0; i < 4; ++i) {
            weak[20 + i] &= static_cast<std::uint8_t>(~(flag >> 8 * i));
        }
        client.negotiate();
        EXPECT_FALSE(client.authenticate(weak)) << std::hex << flag;
    }
    EXPECT_FALSE(client.authenticate(challenge)) << "the offer before was not taken";
    EXPECT_FALSE(client.ready());
    std::vector<std::uint8_t> secret(16, 0x42);
    ClientContext::Signature signature{};
    client.seal(secret, secret, signature);
    EXPECT_EQ(secret, std::vector<std::uint8_t>(16, 0)) << "nothing leaves in the clear";
    EXPECT_FALSE(client.verify(secret, signature));
}

}  // namespace
}  // namespace quelm::dcom::ntlm
