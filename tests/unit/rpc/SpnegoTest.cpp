#include "dcom/rpc/Spnego.h"

#include <algorithm>

#include <gmock/gmock.h>

#include "RpcFixture.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const Data ntlmOnly = fromHex("300C 060A2B06010401823702020A");
const Data kerberosFirst = fromHex("3017 06092A864886F712010202 060A2B06010401823702020A");
const Data windows =
    fromHex("302E 06092A864882F712010202 06092A864886F712010202 060A2B06010401823702021E 060A2B06010401823702020A");
const Data kerberosOnly = fromHex("300B 06092A864886F712010202");

Data der(std::uint8_t tag, const Data& content) {
    Builder out;
    out.u8(tag);
    if (content.size() < 0x80) {
        out.u8(content.size());
    } else {
        out.u8(0x82).u8(content.size() >> 8).u8(content.size());
    }
    return out.add(content).data();
}

Data initialToken(const Data& mechanisms, const Data& inner) {
    const Data fields = Builder().add(der(0xA0, mechanisms)).add(der(0xA2, der(0x04, inner))).data();
    return der(0x60, Builder().add(fromHex("06062B0601050502")).add(der(0xA0, der(0x30, fields))).data());
}

Data laterToken(const Data& inner, const Data& signature) {
    Builder fields;
    fields.add(der(0xA2, der(0x04, inner)));
    if (!signature.empty()) {
        fields.add(der(0xA3, der(0x04, signature)));
    }
    return der(0xA1, der(0x30, fields.data()));
}

TEST(Spnego, ReadsWhatClientsSend) {
    const Data inner = fromHex("4E544C4D53535000");
    const struct {
        const char* name;
        Data token;
        const char* seen;  // initial, offers, prefers NTLM, bytes of inner token and signature
    } cases[] = {
        {"NTLM only", initialToken(ntlmOnly, inner), "1 1 1 8 0"},
        {"Kerberos first", initialToken(kerberosFirst, inner), "1 1 0 8 0"},
        {"Kerberos only", initialToken(kerberosOnly, inner), "1 0 0 8 0"},
        {"long inner token", initialToken(ntlmOnly, Data(1000)), "1 1 1 1000 0"},
        {"later", laterToken(inner, Data(16)), "0 0 0 8 16"},
        {"nothing in it", fromHex("A102 3000"), "0 0 0 0 0"},
        {"empty", {}, ""},
        {"other application", fromHex("6012 06062B0601050503 A008 3006 A204 0402AABB"), ""},
        {"length beyond the end", fromHex("A104 3003 A201"), ""},
        {"length of no end", fromHex("A180 3000"), ""},
        {"length of four digits", fromHex("A184 00000002 3000"), ""},
        {"garbage in the list", initialToken(fromHex("3003 0605 2B"), inner), ""},
    };
    for (const auto& entry : cases) {
        const auto token = spnego::parse(entry.token);
        const std::string seen = !token ? ""
                                        : fmt::format("{:d} {:d} {:d} {} {}", token->initial, token->offersNtlm,
                                                      token->prefersNtlm, token->inner.size(), token->signature.size());
        EXPECT_EQ(seen, entry.seen) << entry.name;
    }
}

TEST(Spnego, AnswersInDer) {
    EXPECT_HEX(spnego::response(spnego::State::Incomplete, spnego::ntlmMechanism, fromHex("AABB"), {}),
               "A11B 3019 A003 0A0101 A10C 060A2B06010401823702020A A204 0402AABB");
    EXPECT_HEX(spnego::response(spnego::State::Completed, {}, {}, fromHex("CC")), "A10C 300A A003 0A0100 A303 0401CC");
}

class Negotiated : public RpcFixture {
 protected:
    // Sends one message of the negotiation as BIND or ALTER_CONTEXT and gives what came back.
    Reply step(PduType type, const Data& token) {
        auto replies = exchange(pdu(type, 7, 1, bindBody({{0}}), {level, 1, token, 9}));
        return replies.size() == 1 ? replies[0] : Reply{};
    }
    // Unwraps the server's answer, from first to last step, with or without the client's preference for NTLM.
    Reply logOnWith(NtlmLogOn& client, const Data& mechanisms, bool sign, const Data& signedText) {
        Reply reply;
        if (mechanisms == ntlmOnly) {
            reply = step(PduType::Bind, initialToken(mechanisms, client.negotiate()));
        } else {
            // As large as a ticket of a user in many groups makes it.
            const Reply again = step(PduType::Bind, initialToken(mechanisms, Data(40'000, 0x6E)));
            EXPECT_HEX(again.token(),
                       fmt::format("A115 3013 A003 0A010{} A10C 060A2B06010401823702020A", level == 2 ? 1 : 3));
            reply = step(PduType::AlterContext, laterToken(client.negotiate(), {}));
        }
        const Data wrapped = reply.token();
        // The mechanism is named in the first answer only.
        const Data name = fromHex("A10C060A2B06010401823702020A");
        const auto at = std::search(wrapped.begin(), wrapped.end(), name.begin(), name.end());
        EXPECT_EQ(at == wrapped.end(), mechanisms != ntlmOnly);
        const auto inner = spnego::parse(wrapped);
        EXPECT_TRUE(inner);
        const Data last = client.authenticate({inner->inner.begin(), inner->inner.end()});
        const Data signature = sign ? Builder().add(client.firstSignature(signedText)).data() : Data{};
        return step(PduType::AlterContext, laterToken(last, signature));
    }

    unsigned level = 6;
};

TEST_F(Negotiated, LogOnsWithAndWithoutSignature) {
    for (const Data& mechanisms : {ntlmOnly, kerberosFirst, windows}) {
        for (const bool sign : {false, true}) {
            reconnect();
            NtlmLogOn client;
            const Reply done = logOnWith(client, mechanisms, sign, mechanisms);
            ASSERT_EQ(done.type(), PduType::AlterContextResponse);
            EXPECT_EQ(done.header.flags, 7) << "signed headers are agreed on";
            const auto without = exchange(pdu(PduType::AlterContext, 3, 2, bindBody({{1, interfaceB}})));
            ASSERT_EQ(without.size(), 1U);
            EXPECT_EQ(without[0].header.flags, 3);
            const Data token = done.token();
            const auto answer = spnego::parse(token);
            ASSERT_TRUE(answer);
            ASSERT_EQ(answer->signature.size(), sign ? 16U : 0U);
            ntlm::ServerContext::Signature own{};
            if (sign) {
                client.security().signNegotiation(mechanisms, own);
                EXPECT_TRUE(client.security().verifyNegotiation(mechanisms, answer->signature));
            }
            const Data call = protectedRequest({.opnum = 3, .stub = fromHex("01")}, 6, 1, client, 9);
            EXPECT_EQ(openedHex(expectOne(call, PduType::Response), 6, client), "01");
            EXPECT_EQ(handler.calls.size(), 1U);
        }
    }
}

// A client at connect level may have no keys: it is not asked for a signature, and what it sends as one says nothing.
TEST_F(Negotiated, LogOnsWithoutKeys) {
    level = 2;
    settings.logOn.allowNtlmV1Ess = true;
    for (const bool sign : {false, true}) {
        reconnect();
        NtlmLogOn client(Kind::V1);
        EXPECT_HEX(logOnWith(client, kerberosFirst, sign, kerberosFirst).token(), "A107 3005 A003 0A0100");
        expectOne(request({.opnum = 3, .stub = fromHex("01")}, 0), PduType::Response);
    }
}

TEST_F(Negotiated, RefusalsEndTheConnection) {
    const auto expectRefused = [this](const Reply& reply, const char* words) {
        EXPECT_TRUE(reply.type() == PduType::BindNak || reply.faultStatus() == Fault::AccessDenied);
        EXPECT_TRUE(connection->closing());
        EXPECT_THAT(refusals, ElementsAre(HasSubstr(words)));
        reconnect();
    };
    NtlmLogOn wrong(Kind::V2, "opc", "wrong");
    expectRefused(logOnWith(wrong, ntlmOnly, false, {}), "'PLANT\\opc', level privacy: wrong password");
    NtlmLogOn altered;
    expectRefused(logOnWith(altered, kerberosFirst, true, ntlmOnly),
                  "'PLANT\\opc', level privacy: message altered on its way");
    expectRefused(step(PduType::Bind, initialToken(kerberosOnly, {})), "it offers log-ons, but none by NTLM; remedy:");
    expectRefused(step(PduType::Bind, laterToken(altered.negotiate(), {})), "its log-on negotiation has no beginning");
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
