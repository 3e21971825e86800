#pragma once

// One process of a client, which has objects that this server calls: all of them share one connection, one ping set and
// one fate. Finds the process, keeps the connection up and puts the calls of its objects in a row.

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dcom/orpc/RemoteObjects.h"
#include "dcom/outgoing/Approach.h"
#include "dcom/outgoing/Pace.h"
#include "dcom/outgoing/Pinger.h"

namespace quelm::dcom::outgoing {

class RemoteProcess final : public std::enable_shared_from_this<RemoteProcess>, private Approach::IOwner {
 public:
    // Between rounds of attempts: the first, twice as long each time, the longest.
    static constexpr std::chrono::milliseconds firstPause{1'000};
    static constexpr std::chrono::milliseconds longestPause{30'000};
    // For the answer to a call, in addition to the client's own time: so long for each 64 KiB of it, which a line of
    // half a megabit carries.
    static constexpr std::chrono::milliseconds sendLimit{1'000};
    // References that wait to be given back; those of more objects end by the pings' end.
    static constexpr std::size_t mostReleases = 1000;

    // host, client (host and account) and oxid tell the process from others. ended: nothing is held of the process any
    // more, and the owner lets it go; may be called twice.
    RemoteProcess(Surroundings& surroundings, Pace& pace, std::string host, std::string client, std::uint64_t oxid,
                  std::function<void(RemoteProcess&)> ended);
    ~RemoteProcess() override;
    RemoteProcess(const RemoteProcess&) = delete;
    RemoteProcess& operator=(const RemoteProcess&) = delete;

    // The first object brings the addresses of the process.
    std::unique_ptr<orpc::IRemoteObject> add(orpc::RemoteObjectRequest request);
    // Since when it is known to fail (monotonic milliseconds); none: it works, or is being tried for the first time.
    std::optional<std::uint64_t> failingSince() const { return isSaid_ ? failingSince_ : std::nullopt; }
    // Gives it up, while it is known to fail, because another one needs the place.
    void makeRoom();
    // The owner ends: the objects that are left are told nothing and can be called no more.
    void close();

 private:
    class Object;
    using Objects = std::list<Object*>;
    enum class State : std::uint8_t { Waiting, Resolving, Connecting, Ready };
    enum class Job : std::uint8_t { None, Releasing, Asking, Calling };

    // The way to the process.
    void learn(std::vector<Address> named);
    void onTimer();
    void approach(State state, std::vector<Address> addresses, const Uuid& interfaceId, rpc::AuthLevel level);
    void opened(Channel& channel) override;
    void onResolved(const rpc::CallResult& result);
    void lost(const Trouble& trouble) override;
    void exhausted(const Trouble& worst) override;
    void refuseWay(const Trouble& trouble);
    void retry(const Trouble& trouble, bool isWorthALine);
    void onAnswered();

    // The row of calls.
    void pump();
    void begin(Job job, Object* object);
    void settle();
    bool isLogOnRefused(const rpc::CallResult& result) const;
    const orpc::ObjectCallHeader& nextHeader();
    void release();
    void onReleased(const rpc::CallResult& result);
    void ask(Object& object);
    void onAsked(const rpc::CallResult& result);
    void call(Object& object);
    void onCalled(const rpc::CallResult& result);
    void onFault(Object& object, const rpc::CallResult& result);

    // The objects.
    void onCallWaiting(Object& object);
    void move(Object& object, Objects& to);
    Object& anyObject();
    void remove(Object& object);
    void forget(Object& object);
    void giveBack(const orpc::HeldReferences& references);
    void giveUp(Object& object, const Trouble& trouble);
    void giveUpAll(const Trouble& trouble, std::string_view why);
    void onPing(const Trouble* trouble);
    void say(const Object& object, std::string_view what, const Trouble& trouble, std::string_view after);

    Surroundings& surroundings_;
    std::string host_;
    std::string client_;
    std::uint64_t oxid_;
    std::function<void(RemoteProcess&)> ended_;

    State state_ = State::Waiting;
    std::vector<Address> resolver_;
    Uuid remUnknown_;
    orpc::ObjectCallHeader header_;
    std::unique_ptr<Approach> approach_;
    std::unique_ptr<ITimer> timer_;
    std::chrono::milliseconds pause_ = firstPause;
    std::optional<std::uint64_t> failingSince_;  // monotonic milliseconds; until all is well again
    LogOnTries tries_;
    bool proven_ = false;      // the other end has answered over this connection
    bool hangs_ = false;       // the latest call of an object was not answered in time
    Trouble trouble_;          // of the latest failure
    bool isSaid_ = false;      // that the process cannot be reached
    bool isPingSaid_ = false;  // that it cannot be pinged
    Pinger pinger_;

    std::size_t count_ = 0;  // of the objects, each of which is in one of these
    Objects unasked_;        // for the interface that they are called by
    Objects waiting_;        // with calls, once asked; each takes its turn
    Objects resting_;
    std::vector<orpc::HeldReferences> releases_;

    Job job_ = Job::None;
    Object* jobObject_ = nullptr;     // none: gone meanwhile
    std::function<void()> answered_;  // of its call
    Pace::Caller caller_;
};

}  // namespace quelm::dcom::outgoing
