// Log-ons by NTLM that the domain has to judge: what the client sends meanwhile waits, keys and names are the domain's,
// and whoever is kept out is told why. The domain is one that a test can follow.

#include <gmock/gmock.h>

#include "RpcFixture.h"
#include "base/TimeSource.h"

namespace quelm::dcom::rpc::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// Knows anna and one password, and answers when the test says so.
class PlainDomain final : public PassThrough {
 public:
    std::shared_ptr<void> ask(NtlmQuestion question, Done done) override {
        questions.push_back(question.host + " " + question.domain + "\\" + question.user + " " + question.workstation);
        if (isFull) {
            return nullptr;
        }
        asked = std::make_shared<int>();
        hold = asked;
        answer = [done = std::move(done), reply = judge(question)] { done(reply); };
        return std::exchange(asked, nullptr);
    }

    NtlmAnswer judge(const NtlmQuestion& question) const {
        NtlmAnswer reply;
        reply.reason = reason;
        reply.detail = detail;
        reply.person = person;
        const auto proof = std::span(question.ntResponse).first(16);
        const ntlm::Key key = ntlm::responseKeyV2(ntlm::ntHash("of the domain"), utf8ToUtf16(question.user),
                                                  utf8ToUtf16(question.domain));
        if (reason == RefusalReason::None &&
            !std::ranges::equal(ntlm::proofV2(key, question.challenge, std::span(question.ntResponse).subspan(16)),
                                proof)) {
            reply.reason = RefusalReason::DomainPassword;
        }
        reply.sessionKey = ntlm::sessionBaseKeyV2(key, proof);
        return reply;
    }

    Person person{"PLANT", "Anna", "plant.example", {"S-1-5-21-1-1103", "S-1-5-21-1-1107"}};
    RefusalReason reason = RefusalReason::None;
    std::string detail;
    bool isFull = false;
    std::vector<std::string> questions;
    std::shared_ptr<int> asked;
    std::weak_ptr<int> hold;
    std::function<void()> answer;
};

class DomainLogOns : public RpcFixture {
 protected:
    DomainLogOns() {
        settings.passThrough = &domain;
        settings.access.addGroup("S-1-5-21-1-1107");
        settings.minimumLevel = AuthLevel::Integrity;
    }

    void listen() {
        connection->onAnswered([this] { ++wakes; });
    }
    // The log-on's last message and a call, in one go as clients send them.
    std::vector<Reply> logOnAndCall(NtlmLogOn& client, unsigned level) {
        logOn(client, level, 1);
        return exchange(protectedRequest({.opnum = 3, .stub = fromHex("01020304")}, level, 1, client));
    }
    std::vector<Reply> answer() {
        domain.answer();
        connection->process();
        auto replies = splitReplies(connection->output());
        connection->sent(connection->output().size());
        return replies;
    }

    ManualTimeSource time{Date{46348.5}};
    ScopedTimeSource inForce{time};
    PlainDomain domain;
    int wakes = 0;
};

TEST_F(DomainLogOns, AnyNameOfTheAccountIsOnePersonAtEachLevelOnceTheDomainHasSpoken) {
    for (const char* user : {"anna", "ANNA", "anna@plant.example"}) {
        for (const unsigned level : {5U, 6U}) {
            reconnect();
            listen();
            NtlmLogOn client(Kind::V2, user, "of the domain");
            EXPECT_THAT(logOnAndCall(client, level), IsEmpty());
            EXPECT_TRUE(connection->deferred() && !connection->loggedOn());
            EXPECT_THAT(handler.calls, IsEmpty());
            const auto replies = answer();
            ASSERT_THAT(replies, SizeIs(1));
            EXPECT_EQ(openedHex(replies[0], level, client), "01020304");
            EXPECT_THAT(handler.calls, ElementsAre(HasSubstr("'PLANT\\Anna' 01020304")));
            EXPECT_EQ(connection->account(), "PLANT\\Anna");
            EXPECT_FALSE(connection->deferred());
        }
    }
    EXPECT_EQ(wakes, 6);
    EXPECT_THAT(domain.questions, SizeIs(6));
    EXPECT_EQ(domain.questions[4], "192.0.2.7 PLANT\\anna@plant.example STATION");
}

TEST_F(DomainLogOns, RefusalsSayWhyAndOnlyGuessesCountAsSuch) {
    struct Case {
        const char* user;
        const char* password;
        RefusalReason reason;
        const char* detail;
        std::vector<std::string> sids;
        const char* words;
        bool isGuess;
    };
    const std::vector<std::string> member = domain.person.sids;
    for (const Case& each : {
             Case{"anna", "guess", RefusalReason::None, "", member,
                  "'PLANT\\anna', level integrity: the domain calls its "
                  "password wrong; remedy: give the client program",
                  true},
             Case{"anna",
                  "of the domain",
                  RefusalReason::None,
                  "",
                  {"S-1-5-21-1-1103"},
                  "'PLANT\\Anna', level integrity: the account is none of those",
                  false},
             Case{"bob", "x", RefusalReason::DomainUnknown, "", {}, "neither this server nor its domain knows", true},
             Case{"opc", "secret", RefusalReason::DomainUnknown, "", {}, "wrong domain", true},
             Case{"anna",
                  "x",
                  RefusalReason::DomainRefused,
                  "it is locked",
                  {},
                  "refuses the account (it is locked)",
                  true},
             Case{"anna",
                  "x",
                  RefusalReason::DomainAway,
                  "no controller",
                  {},
                  "cannot be asked (no controller); remedy: see "
                  "to winbind",
                  false},
             Case{"anna", "x", RefusalReason::NoWinbindRight, "", {}, "does not let this server ask", false},
         }) {
        settings.guesses = std::make_shared<GuessGuard>();
        accounts = {};
        accounts.add("OTHER", "opc", ntlm::ntHash("secret"));
        domain.reason = each.reason;
        domain.detail = each.detail;
        domain.person.sids = each.sids;
        for (int i = 0; i < 3; ++i) {
            reconnect();
            NtlmLogOn client(Kind::V2, each.user, each.password);
            EXPECT_THAT(logOnAndCall(client, 5), IsEmpty());
            EXPECT_EQ(answer().back().faultStatus(), Fault::AccessDenied) << each.words;
            EXPECT_THAT(refusals, ElementsAre(HasSubstr(each.words)));
        }
        EXPECT_EQ(settings.guesses->delay("192.0.2.7", each.user).count() != 0, each.isGuess) << each.words;
    }
}

TEST_F(DomainLogOns, NobodyAsksForWhatNeedsNoAnswer) {
    NtlmLogOn local;
    EXPECT_THAT(logOnAndCall(local, 5), SizeIs(1));
    settings.logOn.allowNtlmV1Ess = true;
    reconnect();
    NtlmLogOn old(Kind::V1, "anna");
    logOn(old, 2, 1);
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("NTLMv1 is never passed on to the domain")));
    EXPECT_THAT(domain.questions, IsEmpty());

    reconnect();
    domain.isFull = true;
    NtlmLogOn late(Kind::V2, "anna", "of the domain");
    EXPECT_EQ(logOnAndCall(late, 5).back().faultStatus(), Fault::AccessDenied);
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("cannot be asked (too many log-ons wait for it already)")));

    reconnect();
    domain.isFull = false;
    logOnAndCall(late, 5);
    EXPECT_FALSE(domain.hold.expired());
    reconnect();  // the client has gone
    EXPECT_TRUE(domain.hold.expired());
}

}  // namespace
}  // namespace quelm::dcom::rpc::test
