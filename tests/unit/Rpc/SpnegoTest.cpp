#include "DCOM/rpc/Spnego.h"

#include <gmock/gmock.h>

#include "RpcFixture.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const Data ntlmOnly = hex("300C 060A2B06010401823702020A");
const Data kerberosFirst = hex("3017 06092A864886F712010202 060A2B06010401823702020A");
const Data kerberosOnly = hex("300B 06092A864886F712010202");

Data der(std::uint8_t tag, const Data& content) {
    Builder out;
    out.u8(tag);
    if (content.size() < 0x80) {
        out.u8(static_cast<unsigned>(content.size()));
    } else {
        out.u8(0x82).u8(static_cast<unsigned>(content.size() >> 8)).u8(content.size() & 0xFF);
    }
    return out.add(content).data();
}

Data initialToken(const Data& mechanisms, const Data& inner) {
    const Data fields = Builder().add(der(0xA0, mechanisms)).add(der(0xA2, der(0x04, inner))).data();
    return der(0x60, Builder().add(hex("06062B0601050502")).add(der(0xA0, der(0x30, fields))).data());
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
    const Data inner = hex("4E544C4D53535000");
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
        {"nothing in it", hex("A102 3000"), "0 0 0 0 0"},
        {"empty", {}, ""},
        {"other application", hex("600A 06062B0601050503 A000"), ""},
        {"length beyond the end", hex("A104 3003 A201"), ""},
        {"length of no end", hex("A180 3000"), ""},
        {"length of four digits", hex("A184 00000002 3000"), ""},
        {"garbage in the list", initialToken(hex("3003 0605 2B"), inner), ""},
    };
    for (const auto& entry : cases) {
        const auto token = spnego::parse(entry.token);
        EXPECT_EQ(token ? fmt::format("{:d} {:d} {:d} {} {}", token->initial, token->offersNtlm, token->prefersNtlm,
                                      token->inner.size(), token->signature.size())
                        : "",
                  entry.seen)
            << entry.name;
    }
}

TEST(Spnego, AnswersInDer) {
    EXPECT_EQ(toHex(spnego::response(spnego::State::Incomplete, true, hex("AABB"), {})),
              toHex(hex("A11B 3019 A003 0A0101 A10C 060A2B06010401823702020A A204 0402AABB")));
    EXPECT_EQ(toHex(spnego::response(spnego::State::Completed, false, {}, hex("CC"))),
              toHex(hex("A10C 300A A003 0A0100 A303 0401CC")));
}

class Negotiated : public RpcFixture {
 protected:
    // Sends one message of the negotiation as BIND or ALTER_CONTEXT and gives what came back.
    Reply step(PduType type, const Data& token) {
        auto replies = exchange(pdu(type, 3, 1, bindBody({{0}}), {6, 1, token, 9}));
        return replies.size() == 1 ? replies[0] : Reply{};
    }
    // Unwraps the server's answer, from first to last step, with or without the client's preference for NTLM.
    Reply logOnWith(NtlmLogOn& client, const Data& mechanisms, bool sign, const Data& signedText) {
        Reply reply;
        if (mechanisms == ntlmOnly) {
            reply = step(PduType::Bind, initialToken(mechanisms, client.negotiate()));
        } else {
            const Reply again = step(PduType::Bind, initialToken(mechanisms, hex("6E8201")));
            EXPECT_EQ(toHex(again.token()), toHex(hex("A115 3013 A003 0A0103 A10C 060A2B06010401823702020A")));
            reply = step(PduType::AlterContext, laterToken(client.negotiate(), {}));
        }
        const Data wrapped = reply.token();
        const auto inner = spnego::parse(wrapped);
        EXPECT_TRUE(inner);
        const Data last = client.authenticate({inner->inner.begin(), inner->inner.end()});
        return step(PduType::AlterContext, laterToken(last, sign ? client.firstSignature(signedText) : Data{}));
    }
};

TEST_F(Negotiated, LogOnsWithAndWithoutSignature) {
    for (const Data& mechanisms : {ntlmOnly, kerberosFirst}) {
        for (const bool sign : {false, true}) {
            reconnect();
            NtlmLogOn client(Kind::V2, "opc", "secret");
            const Reply done = logOnWith(client, mechanisms, sign, mechanisms);
            ASSERT_EQ(done.type(), PduType::AlterContextResponse);
            const Data token = done.token();
            const auto answer = spnego::parse(token);
            ASSERT_TRUE(answer);
            ASSERT_EQ(answer->signature.size(), sign ? 16U : 0U);
            ntlm::ServerContext::Signature own{};
            if (sign) {
                ASSERT_TRUE(client.protection().exchangeSignatures(mechanisms, answer->signature, own));
            }
            const Reply reply =
                expectOne(protectedRequest({.opnum = 3, .stub = hex("01")}, 6, 1, client, 9), PduType::Response);
            EXPECT_EQ(openedHex(reply, 6, client), "01");
        }
    }
    EXPECT_EQ(handler.calls.size(), 4U);
    EXPECT_THAT(refusals, IsEmpty());
}

TEST_F(Negotiated, RefusalsEndTheConnection) {
    NtlmLogOn wrong(Kind::V2, "opc", "wrong");
    EXPECT_EQ(logOnWith(wrong, ntlmOnly, false, {}).faultStatus(), faultAccessDenied);
    EXPECT_TRUE(connection->closing());

    reconnect();
    NtlmLogOn altered(Kind::V2, "opc", "secret");
    EXPECT_EQ(logOnWith(altered, kerberosFirst, true, ntlmOnly).faultStatus(), faultAccessDenied);
    EXPECT_TRUE(connection->closing());

    reconnect();
    EXPECT_EQ(step(PduType::Bind, initialToken(kerberosOnly, {})).type(), PduType::BindNak);
    EXPECT_TRUE(connection->closing());

    reconnect();
    EXPECT_EQ(step(PduType::Bind, laterToken(altered.negotiate(), {})).type(), PduType::BindNak);
    EXPECT_THAT(refusals,
                ElementsAre(testing::HasSubstr("account 'PLANT\\opc', level privacy: wrong password"),
                            testing::HasSubstr("account 'PLANT\\opc', level privacy: message altered on its way"),
                            testing::HasSubstr("it offers log-ons, but none by NTLM; remedy: let the client log on by"),
                            testing::HasSubstr("its log-on negotiation has no beginning")));
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
