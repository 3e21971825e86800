// Log-ons with tickets as the RPC layer carries them: the messages of both kinds of wrapping, tokens of another size
// than NTLM's, and who is let in. The mechanism is one that a test can follow.

#include <gmock/gmock.h>

#include "RpcFixture.h"
#include "dcom/rpc/Spnego.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const Data request = fromHex("6E02 3000");

// Its tokens are 28 and 76 bytes of one value, which says whether headers are covered; what is sealed is inverted.
class PlainLogOn final : public KerberosLogOn {
 public:
    explicit PlainLogOn(const Person& person) : person_(person) {}
    Step take(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer) override {
        if (!begun_) {
            begun_ = true;
            answer = fromHex("6F00");
            return token.size() == request.size() ? Step{} : Step{RefusalReason::MalformedTicket};
        }
        return toHex(token) == "6F01" ? Step{RefusalReason::None, {}, true} : Step{RefusalReason::TicketExpired};
    }
    const Person& person() const override { return person_; }
    bool canSeal() const override { return true; }
    void coverHeaders() override { mark_ = 0xC1; }
    bool exchangeSignatures(std::span<const std::uint8_t>, std::span<const std::uint8_t> clientSignature,
                            std::vector<std::uint8_t>& signature) override {
        signature = fromHex("DD");
        return toHex(clientSignature) == "CC";
    }
    std::size_t tokenSize(bool seals) const override { return seals ? 76 : 28; }
    void protect(std::span<std::uint8_t>, std::span<std::uint8_t> stub, bool seals,
                 std::span<std::uint8_t> token) override {
        turn(stub, seals);
        std::ranges::fill(token, mark_);
    }
    bool unprotect(std::span<std::uint8_t>, std::span<std::uint8_t> stub, bool seals,
                   std::span<std::uint8_t> token) override {
        turn(stub, seals);
        return std::ranges::all_of(token, [this](std::uint8_t byte) { return byte == mark_; });
    }

 private:
    static void turn(std::span<std::uint8_t> stub, bool seals) {
        for (std::uint8_t& byte : stub) {
            byte ^= seals ? 0xFF : 0;
        }
    }
    Person person_;
    bool begun_ = false;
    std::uint8_t mark_ = 0xC0;
};

class PlainKerberos final : public Kerberos {
 public:
    std::unique_ptr<KerberosLogOn> begin() override { return std::make_unique<PlainLogOn>(person); }
    Person person{"PLANT", "alice", "plant.example", {"S-1-5-21-1-1103", "S-1-5-21-1-1107"}};
};

class TicketLogOns : public RpcFixture {
 protected:
    TicketLogOns() {
        settings.kerberos = &kerberos;
        settings.access.addGroup("S-1-5-21-1-1107");
    }
    Reply step(PduType type, unsigned flags, const Data& token, unsigned service, unsigned level) {
        auto replies = exchange(
            pdu(type, flags, 1, type == PduType::Auth3 ? Data(4) : bindBody({{0}}), {level, 1, token, service}));
        return replies.size() == 1 ? replies[0] : Reply{};
    }
    // A call whose padding, token and mark are the client's; the reply's sizes and stub.
    std::string call(unsigned service, unsigned level, std::size_t tokenSize, std::uint8_t mark) {
        Data stub = fromHex("01020304 BBBBBBBB");
        for (std::uint8_t& byte : stub) {
            byte ^= level == 6 ? 0xFF : 0;
        }
        Data message = pdu(PduType::Request, 3, 2, requestBody({.opnum = 3, .stub = stub}),
                           {level, 1, Data(tokenSize, mark), service});
        message[message.size() - tokenSize - 6] = 4;  // bytes of padding
        const auto replies = exchange(message);
        if (replies.size() != 1 || replies[0].type() != PduType::Response) {
            return "refused";
        }
        const Reply& reply = replies[0];
        Data answer(reply.raw.begin() + callHeaderSize, reply.raw.begin() + callHeaderSize + 4);
        for (std::uint8_t& byte : answer) {
            byte ^= level == 6 ? 0xFF : 0;
        }
        return fmt::format("{} {} {:x}", toHex(answer), reply.header.authLength, reply.token().back());
    }
    PlainKerberos kerberos;
};

Data offer(const char* mechanism) {
    Builder inner;
    inner.hex("A019 3017 A00D 300B").hex(mechanism).hex("A206 0404").add(request);
    return Builder().hex("60").u8(8 + inner.data().size()).hex("06062B0601050502").add(inner.data()).data();
}

TEST_F(TicketLogOns, NegotiatedAndBareAtBothLevels) {
    struct Way {
        unsigned level;
        unsigned flags;
        std::size_t tokenSize;
        const char* called;
    };
    for (const Way& way : {Way{6, 3, 76, "01020304 76 c0"}, Way{6, 7, 60, "01020304 76 c1"},
                           Way{5, 3, 28, "01020304 28 c0"}, Way{5, 7, 28, "01020304 28 c1"}}) {
        std::string called(way.called);
        const auto mark = static_cast<std::uint8_t>(way.flags == 7 ? 0xC1 : 0xC0);
        for (const char* mechanism : {"06092A864882F712010202", "06092A864886F712010202"}) {
            reconnect();
            const Reply first = step(PduType::Bind, way.flags, offer(mechanism), 9, way.level);
            EXPECT_HEX(first.token(),
                       Builder().hex("A11A 3018 A003 0A0101 A10B").hex(mechanism).hex("A204 0402 6F00").data());
            const Reply done =
                step(PduType::AlterContext, 3, fromHex("A10D 300B A204 0402 6F01 A303 0401 CC"), 9, way.level);
            EXPECT_HEX(done.token(), "A10C 300A A003 0A0100 A303 0401 DD");
            EXPECT_EQ(call(9, way.level, way.tokenSize, mark), called);
            EXPECT_THAT(handler.calls, ElementsAre(HasSubstr("'PLANT\\alice' 01020304")));
        }
        reconnect();
        EXPECT_HEX(step(PduType::Bind, way.flags, request, 16, way.level).token(), "6F00");
        EXPECT_EQ(step(PduType::Auth3, 3, fromHex("6F01"), 16, way.level).type(), PduType::Request) << "no answer";
        // Repeated in a change of interface, it changes nothing.
        EXPECT_EQ(step(PduType::AlterContext, 3, fromHex("6F01"), 16, way.level).type(), PduType::AlterContextResponse);
        EXPECT_EQ(call(16, way.level, way.tokenSize, mark), called);
        EXPECT_EQ(call(16, way.level, way.tokenSize, 0xEE), "refused");
    }
}

TEST_F(TicketLogOns, RefusalsSayWhoAndWhy) {
    struct Case {
        const char* what;
        std::string user;
        const char* sid;
        const char* last;
        const char* words;
    };
    for (const Case& each :
         {Case{"of no group", "bob", "S-1-5-21-1-1108", "6F01",
               "account 'PLANT\\bob', level integrity: the account is none of those, and a member of none of the "
               "groups, that may come in (S-1-5-21-1-1107); remedy: "},
          Case{"expired", "alice", "S-1-5-21-1-1107", "6F02", "its Kerberos ticket has expired; remedy: "}}) {
        kerberos.person.user = each.user;
        kerberos.person.sids = {each.sid};
        reconnect();
        step(PduType::Bind, 3, request, 16, 5);
        step(PduType::Auth3, 3, fromHex(each.last), 16, 5);
        EXPECT_THAT(refusals, ElementsAre(HasSubstr(each.words))) << each.what;
        EXPECT_EQ(call(16, 5, 28, 0xC0), "refused");
        EXPECT_TRUE(handler.calls.empty());
    }
    reconnect();
    EXPECT_EQ(step(PduType::Bind, 3, fromHex("6E00"), 16, 5).type(), PduType::BindNak);
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("its Kerberos message is malformed")));
    settings.kerberos = nullptr;
    reconnect();
    EXPECT_EQ(step(PduType::Bind, 3, request, 16, 5).type(), PduType::BindNak);
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("authentication service 16 is not supported")));
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
