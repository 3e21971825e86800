#pragma once

// A group of items in a server, for reading the same items again and again, and for watching them: by callbacks where
// the server and the network between allow them, else by reading.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "opcda/client/EnumeratorStubs.h"
#include "opcda/client/GroupStubs.h"
#include "opcda/client/OpcSession.h"
#include "opcda/client/Sinks.h"

namespace quelm::opcda::client {

class ItemGroup {
 public:
    // Adds a group without a name, and the items to it. updateRate: milliseconds. The session outlives it. Throws as
    // OpcSession does; an item that cannot be added is no failure.
    ItemGroup(const OpcSession& session, std::vector<std::string> itemIds, std::uint32_t updateRate, bool active);
    ItemGroup(const ItemGroup&) = delete;
    ItemGroup& operator=(const ItemGroup&) = delete;

    // In their order: an item's place is its client handle.
    const std::vector<std::string>& itemIds() const { return itemIds_; }
    // How adding went for each.
    const std::vector<HResult>& results() const { return results_; }
    // Of those that were added, in their order.
    const std::vector<std::uint32_t>& serverHandles() const { return handles_; }
    std::uint32_t updateRate() const { return updateRate_; }  // as the server revised it
    // By IOPCItemMgt; other interfaces by ask().
    const Interface& target() const { return items_->target(); }

    // All items in their order, those that were not added with the result of that. maxAge as OpcSession::read; a group
    // without IOPCSyncIO2 asks the device for every age but fromCache. A cache is filled at the group's update rate,
    // and of an active group only.
    std::vector<ItemValue> read(std::uint32_t maxAge) const;

 private:
    // Removes the group from the server at its end, whatever else went wrong by then.
    class Removal {
     public:
        Removal(const IOPCServer& server, std::uint32_t serverHandle) : server_(server), handle_(serverHandle) {}
        ~Removal();
        Removal(const Removal&) = delete;
        Removal& operator=(const Removal&) = delete;

     private:
        const IOPCServer& server_;
        std::uint32_t handle_;
    };

    void add(std::size_t first, std::size_t count, bool active);
    std::vector<ItemValue> readPortion(Handles handles, std::uint32_t maxAge) const;

    std::vector<std::string> itemIds_;
    std::vector<HResult> results_;
    std::vector<std::uint32_t> handles_;
    std::vector<std::size_t> places_;  // of the handles' items
    std::uint32_t updateRate_ = 0;
    std::optional<Removal> removal_;
    // Let go of before the group is removed.
    std::optional<IOPCItemMgt> items_;
    std::optional<IOPCSyncIO> sync_;
    std::optional<IOPCSyncIO2> sync2_;
};

// Watches items until it ends.
class Watch {
 public:
    struct Options {
        std::uint32_t updateRate = 1000;  // milliseconds
        bool pollOnly = false;
        // So long a first callback may take, beside two update rates, before the watch goes on by reading.
        std::chrono::milliseconds patience{5'000};
    };
    // The items that changed: at first all, those that could not be added with the result of that.
    using Handler = std::function<void(std::span<const ItemValue>)>;

    // handler: called from within run() alone, so that it may call the server.
    Watch(const OpcSession& session, std::vector<std::string> itemIds, const Options& options, Handler handler);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // Hands on what comes, for so long. Throws Trouble when the server is gone, and Trouble(Interrupted).
    void run(std::chrono::milliseconds limit);

    // Whether by callbacks; they may turn out not to come.
    bool isSubscribed() const { return sink_ != nullptr; }
    // In a sentence, why it reads instead; empty while it is subscribed.
    const std::string& whyPolling() const { return whyPolling_; }
    const ItemGroup& group() const { return group_; }
    // Values that came faster than run() was called, and were dropped.
    std::uint64_t lost() const { return lost_; }

 private:
    void subscribe();
    void unsubscribe();
    void pollFromNowOn(std::string why);
    void take(const DataEvent& event);
    void runSubscribed(std::chrono::milliseconds limit);
    void runPolling(std::chrono::milliseconds limit);
    void giveFailures();
    void deliver();
    void poll();

    const OpcSession& session_;
    Options options_;
    Handler handler_;
    ItemGroup group_;
    std::unique_ptr<DataSink> sink_;
    std::optional<IConnectionPoint> point_;
    std::uint32_t cookie_ = 0;
    std::string whyPolling_;
    std::deque<std::vector<ItemValue>> events_;
    std::size_t waiting_ = 0;  // values in the events
    std::uint64_t lost_ = 0;
    // Monotonic milliseconds: when the watch began, when it last heard of the server, when it reads next.
    std::uint64_t start_ = 0;
    std::uint64_t lastSign_ = 0;
    std::uint64_t due_ = 0;
    bool wasCalledBack_ = false;
    bool wereFailuresGiven_ = false;
    std::vector<ItemValue> latest_;  // as read last
};

}  // namespace quelm::opcda::client
