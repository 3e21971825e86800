// The answers of OPC servers to each call that the client library makes, the callbacks of groups, and a browsing of a
// whole server: whatever they hold, they are read or refused as unreadable, and browsing comes to an end.

#include "FuzzInput.h"
#include "opcclient/Calls.h"
#include "opcclient/Scripted.h"
#include "opcda/client/Browsing.h"
#include "opcda/client/Sinks.h"

namespace quelm::fuzz {
namespace {

namespace opc = opcda::client;
using dcom::client::Trouble;

std::vector<opc::test::Call> allCalls() {
    std::vector<opc::test::Call> calls = opc::test::serverCalls();
    for (const auto& each : {opc::test::groupCalls({1, 2}), opc::test::objectCalls()}) {
        calls.insert(calls.end(), each.begin(), each.end());
    }
    return calls;
}

void answerCall(const opc::test::Call& call, Bytes answer) {
    call.make(opc::test::scripted(call.iid, {{answer.begin(), answer.end()}}));
}

template <class Browser>
void answerBrowsing(Input& input) {
    opc::test::Answers answers;
    while (!input.empty()) {
        const Bytes answer = input.part();
        answers.emplace_back(answer.begin(), answer.end());
    }
    answers.emplace_back();  // unreadable, lest a tree without end is walked for a minute
    opc::browseBy(Browser(opc::test::scripted(Browser::iid, std::move(answers))), {},
                  [](const opc::BrowsedElement& element) { return element.level < 20; });
}

void callSinks(Input& input) {
    opc::DataSink data;
    std::size_t items = 0;
    const auto take = [&items](const auto& event) { items += event.items.size(); };
    data.onDataChange = data.onReadComplete = take;
    data.onWriteComplete = take;
    const std::uint16_t opnum = input.u8();
    ExactCopy copy(input.rest());
    dcom::ndr::Reader in(copy.bytes());
    data.called(opnum, in);
    require(items * 8 <= copy.bytes().size(), "an item takes bytes");
    opc::ShutdownSink shutdown;
    dcom::ndr::Reader again(copy.bytes());
    shutdown.called(opnum, again);
}

}  // namespace

void runInput(Input input) {
    static const std::vector<opc::test::Call> calls = allCalls();
    const std::size_t number = input.u8();
    try {
        if (number < calls.size()) {
            answerCall(calls[number], input.rest());
        } else if (number == 255) {
            callSinks(input);
        } else if (number == 254) {
            answerBrowsing<opc::IOPCBrowse>(input);
        } else {
            answerBrowsing<opc::IOPCBrowseServerAddressSpace>(input);
        }
    } catch (const Trouble& trouble) {
        require(trouble.kind == Trouble::Kind::Garbage, "what cannot be read is said to be that");
    } catch (const opc::OpcError&) {
        // A failure, or a list without an end.
    }
}

}  // namespace quelm::fuzz
