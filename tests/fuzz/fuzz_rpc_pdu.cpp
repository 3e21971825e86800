// The byte stream of an RPC client, from the first byte on or behind a proper bind and log-on. Whatever it holds and
// wherever the network cuts it, the same calls are carried out, the same replies are sent, and no call gets through
// below the minimum level.

#include "FuzzInput.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/rpc/ServerConnection.h"
#include "rpc/RpcClient.h"

namespace quelm::fuzz {
namespace {

namespace rpc = dcom::rpc;
namespace ntlm = dcom::ntlm;
using namespace rpc::test;
using Kind = NtlmLogOn::Kind;

constexpr std::uint16_t lateOpnum = 7;  // answered once everything else has been done

// Replies with what it got, once or many times over, and writes down what it was asked.
class Handler final : public rpc::CallHandler {
 public:
    explicit Handler(rpc::AuthLevel minimum) : minimum_(minimum) {}

    bool supports(const Uuid& interfaceId, std::uint16_t, std::uint16_t) override {
        return interfaceId == interfaceA || interfaceId == interfaceOpen;
    }
    bool isOpenToAll(const Uuid& interfaceId) override { return interfaceId == interfaceOpen; }
    dcom::Fault call(const rpc::Call& call, dcom::ndr::Writer& reply) override {
        require(supports(call.interfaceId, 0, 0), "a call goes to an interface that exists");
        if (call.interfaceId != interfaceOpen) {
            require(call.level >= minimum_, "no call below the minimum level");
            require(!call.account.empty(), "no call without an account");
        }
        calls.push_back(static_cast<std::uint8_t>(call.opnum));
        calls.push_back(static_cast<std::uint8_t>(call.level));
        calls.insert(calls.end(), call.stub.begin(), call.stub.end());
        if (call.opnum == lateOpnum) {
            tickets.push_back(call.defer());
            return dcom::Fault::Deferred;
        }
        const unsigned copies = call.opnum == 4 ? 40 : 1;
        for (unsigned i = 0; i < copies; ++i) {
            reply.bytes(call.stub);
        }
        return call.opnum == 3 ? dcom::Fault::OpnumRange : dcom::Fault::None;
    }
    void connectionClosed(const rpc::Peer&, bool) override {}

    // Answers the calls that wait for it; whether there were any.
    bool answerLate() {
        auto late = std::exchange(tickets, {});
        for (rpc::CallTicket& ticket : late) {
            ticket.complete(dcom::Fault::None, Data(3000, 0x5A));
        }
        return !late.empty();
    }

    Data calls;
    std::vector<rpc::CallTicket> tickets;

 private:
    rpc::AuthLevel minimum_;
};

class Session {
 public:
    explicit Session(rpc::AuthLevel minimum)
        : settings_{accounts_, {}, minimum, 20'000, 30'000, {}, nullptr, {}}, handler_(minimum) {
        accounts_.add("*", "opc", ntlm::ntHash("secret"));
        settings_.logOn.computerName = "SERVER";
        settings_.logOn.domainName = "PLANT";
        settings_.challenge = {1, 2, 3, 4, 5, 6, 7, 8};
        settings_.onRefused = [](const rpc::Refusal& refusal) { requireOneLine(refusal.line()); };
    }

    // Feeds everything, however little is taken at a time, and takes the output away.
    void feed(Bytes data) {
        ExactCopy copy(data);
        Bytes left = copy.bytes();
        while (!connection_.closing()) {
            const std::size_t taken = connection_.feed(left);
            left = left.subspan(taken);
            drain();
            if (left.empty()) {
                break;
            }
            require(taken > 0 || connection_.closing(), "input is taken once the output is gone");
        }
    }

    // The challenge's token when the log-on went through so far.
    Data feedForToken(const Data& pdu) {
        const std::size_t before = output_.size();
        feed(pdu);
        const auto replies = splitReplies(std::span(output_).subspan(before));
        return replies.size() == 1 && replies[0].header.authLength > 48 ? replies[0].token() : Data{};
    }

    // All that became of it.
    Data finish() const {
        for (const auto& reply : splitReplies(output_)) {
            require(!reply.raw.empty(), "the output is a row of whole PDUs");
        }
        return Builder().add(handler_.calls).add(output_).u8(connection_.closing()).data();
    }

 private:
    void drain() {
        do {
            if (handler_.answerLate()) {
                require(!connection_.deferred(), "an answered call waits no longer");
            }
            const auto output = connection_.output();
            output_.insert(output_.end(), output.begin(), output.end());
            connection_.sent(output.size());
            if (connection_.waiting()) {
                connection_.process();
            }
            require(!connection_.deferred() || handler_.tickets.size() == 1, "a call that waits has its ticket");
        } while (!connection_.output().empty() || connection_.deferred());
    }

    ntlm::AccountTable accounts_;
    rpc::ServerSettings settings_;
    Handler handler_;
    rpc::ServerConnection connection_{settings_, handler_, rpc::Peer{1, "192.0.2.7:51234", "192.0.2.1", 135}};
    Data output_;
};

struct LogOn {
    unsigned level;
    Kind kind;
    std::uint32_t securityId;
};

bool logOn(Session& session, NtlmLogOn& client, const LogOn& how, rpc::PduType type) {
    const std::vector<Offer> offers{{0, interfaceA}, {1, interfaceOpen}};
    const Data challenge =
        session.feedForToken(pdu(type, 3, 1, bindBody(offers, 2000), {how.level, how.securityId, client.negotiate()}));
    if (challenge.empty()) {
        return false;
    }
    session.feed(pdu(rpc::PduType::Auth3, 3, 1, Data(4), {how.level, how.securityId, client.authenticate(challenge)}));
    return true;
}

// Raw bytes as they stand.
Data runStream(rpc::AuthLevel minimum, Bytes stream, unsigned cut) {
    Session session(minimum);
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t size = cut == 0 ? stream.size() : std::min<std::size_t>(stream.size() - at, 1 + at % cut);
        session.feed(stream.subspan(at, size));
        at += size;
    }
    return session.finish();
}

// Behind a bind and log-on: PDUs with a right header, rightly protected calls, log-ons, raw bytes.
void runSession(rpc::AuthLevel minimum, const LogOn& how, Input& input) {
    Session session(minimum);
    NtlmLogOn client(how.kind, "opc", "secret");
    if (!logOn(session, client, how, rpc::PduType::Bind)) {
        return;
    }
    for (int steps = 0; steps < 50 && !input.empty(); ++steps) {
        const unsigned kind = input.u8() % 5;
        const unsigned flags = input.u8();
        const std::uint8_t choice = input.u8();
        const Bytes part = input.part();
        CallParts call{.callId = 2, .opnum = static_cast<std::uint16_t>(choice & 15), .flags = flags};
        call.contextId = choice >> 4;
        call.stub.assign(part.begin(), part.end());
        if ((flags & rpc::flagObject) != 0) {
            call.object = interfaceA;
        }
        switch (kind) {
            case 0:
                session.feed(part);
                break;
            case 1:
                if ((choice & 0x7E) == 18 && how.kind == Kind::V2) {  // a cancel or an orphan, signed
                    session.feed(protectedCancel(static_cast<rpc::PduType>(choice & 0x7F), 2, how.level, how.securityId,
                                                 client));
                    break;
                }
                session.feed(pdu(static_cast<rpc::PduType>(choice), flags, 2, Data(part.begin(), part.end()),
                                 {flags >> 4U & 7U, how.securityId, Data(16)}));
                break;
            case 2:
                if (how.kind == Kind::V2) {
                    session.feed(protectedRequest(call, how.level, how.securityId, client));
                    break;
                }
                [[fallthrough]];
            case 3:
                session.feed(request(call, how.kind == Kind::V1 ? how.level : 0, how.securityId));
                break;
            default: {
                NtlmLogOn other(Kind::V2, (choice & 1) != 0 ? "opc" : "nobody", "secret");
                const std::uint32_t id = (choice & 2) != 0 ? how.securityId : 8;
                logOn(session, other, {5U + (choice >> 2U & 1U), Kind::V2, id}, rpc::PduType::AlterContext);
                break;
            }
        }
    }
    session.finish();
}

}  // namespace

void runInput(Input input) {
    const std::uint8_t mode = input.u8();
    const auto minimum = (mode & 1) != 0 ? rpc::AuthLevel::Connect : rpc::AuthLevel::Integrity;
    const std::uint8_t variant = input.u8();
    if ((mode & 2) == 0) {
        const Bytes stream = input.rest();
        require(runStream(minimum, stream, 0) == runStream(minimum, stream, 1 + variant),
                "the cuts of the stream make no difference");
        return;
    }
    constexpr LogOn ways[] = {{5, Kind::V2, 0}, {6, Kind::V2, 0}, {6, Kind::V2, 79231}, {2, Kind::V1, 0}};
    runSession(minimum, ways[variant % std::size(ways)], input);
}

}  // namespace quelm::fuzz
