// Calls back into clients' processes, as whole conversations with their machines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeNetwork.h"
#include "dcom/outgoing/Channel.h"
#include "dcom/outgoing/RemoteProcesses.h"

namespace quelm::dcom::outgoing::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class CallingBack : public testing::Test {
 protected:
    CallingBack() {
        settings.account = {"PLANT", "server", ntlm::ntHash("secret"), "QUELM1"};
        settings.settingsPath = "dcom.conf";
        serveAt({"10.0.0.5:135", "10.0.0.5:5001"});
    }

    void serveAt(const std::vector<std::string>& addresses, End end = End::Serves) {
        for (const std::string& address : addresses) {
            network.ends[address] = end;
        }
    }

    orpc::RemoteObjectRequest request(unsigned number, std::uint64_t oxid = 0xA) {
        orpc::RemoteObjectRequest result;
        result.reference.object = {5, oxid, 0x100 + number, {}};
        result.reference.object.ipid.bytes[3] = static_cast<std::uint8_t>(number);
        result.reference.resolver = {{"10.0.0.5", 0}};
        result.iid = iidCallback;
        result.client = "OPC client 10.0.0.5:50001";
        result.account = "PLANT\\opc";
        result.host = "10.0.0.5";
        result.givenUp = [this, number] { events.push_back(fmt::format("given up {}", number)); };
        return result;
    }
    std::unique_ptr<orpc::IRemoteObject> connect(unsigned number, std::uint64_t oxid = 0xA) {
        return processes->connect(request(number, oxid));
    }
    void call(orpc::IRemoteObject& object, std::uint8_t value) {
        object.call(3, std::make_shared<Bytes>(Bytes{value}),
                    [this, value] { events.push_back(fmt::format("answered {}", value)); });
    }

    void pass(std::int64_t milliseconds) {
        loop.advance(0);
        for (std::int64_t step = 0; milliseconds > 0; milliseconds -= step) {
            step = std::min<std::int64_t>(milliseconds, 500);
            time.advanceMilliseconds(step);
            loop.advance(step);
        }
    }
    Events happened() { return std::exchange(events, {}); }
    // The one object is connected and nothing waits.
    std::unique_ptr<orpc::IRemoteObject> ready() {
        auto object = connect(1);
        pass(0);
        EXPECT_THAT(happened(), SizeIs(4));
        return object;
    }

    ManualTimeSource time{Date{46348.5}};
    ScopedTimeSource inForce{time};
    VirtualLoop loop;
    Events events;
    std::vector<std::string> lines;
    Network network{loop, events};
    CallSettings settings;
    std::optional<RemoteProcesses> processes{
        std::in_place,
        Surroundings{network, loop, settings, [this](const std::string&, const std::string&, const std::string& line) {
                         lines.push_back(line);
                     }}};
};

TEST_F(CallingBack, FindsTheProcessCallsPingsAndLetsGo) {
    auto first = connect(1);
    auto second = connect(2);
    call(*first, 1);
    call(*second, 2);
    call(*first, 3);
    EXPECT_THAT(events, IsEmpty()) << "nothing goes out before the client's own call is answered";
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "resolve a @integrity", "dial 10.0.0.5:5001",
                                        "query 01000000 39c13a70 @integrity", "query 02000000 39c13a70 @integrity",
                                        "call 01000080 3 01 @integrity", "answered 1", "call 02000080 3 02 @integrity",
                                        "answered 2", "call 01000080 3 03 @integrity", "answered 3"));
    EXPECT_EQ(network.open(), 1U);
    call(*second, 4);
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("call 02000080 3 04 @integrity", "answered 4"));

    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 0 #1 +101 +102 @integrity"));
    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 77 @integrity"));
    first.reset();
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("release 01000000*5 01000080*5 @integrity"));
    pass(120'000);
    EXPECT_THAT(happened(), ElementsAre("dial 10.0.0.5:135", "ping 77 #2 -101 @integrity"));
    second.reset();
    pass(0);
    EXPECT_THAT(happened(), ElementsAre("release 02000000*5 02000080*5 @integrity"));
    EXPECT_EQ(processes->processCount(), 0U);
    EXPECT_EQ(network.open(), 0U);
    EXPECT_EQ(loop.pendingTimers(), 0U);
    EXPECT_THAT(lines, IsEmpty());
}

}  // namespace
}  // namespace quelm::dcom::outgoing::test
