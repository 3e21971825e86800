#pragma once

// The objects of a client that a server calls back: one for a group's data, one for the server's good-bye. Each takes
// a call apart and hands on what was in it; a handler that is not set is passed over.
//
//     DataSink sink;
//     sink.onDataChange = [](const DataEvent& event) { ... };
//     const auto cookie = point.Advise(session.exportObject(DataSink::iid, sink)).out;

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "dcom/client/Session.h"
#include "opcda/client/Value.h"
#include "opcda/wire/Sinks.h"

namespace quelm::opcda::client {

// OnDataChange and OnReadComplete.
struct DataEvent {
    struct Item {
        std::uint32_t clientHandle = 0;
        Value value;
        std::uint16_t quality = 0;
        std::int64_t fileTime = 0;  // UTC, 100-nanosecond units since 1601-01-01
        HResult error{};
    };

    std::uint32_t transaction = 0;  // 0: of its own accord
    std::uint32_t clientGroup = 0;
    HResult masterQuality{};
    HResult masterError{};
    std::vector<Item> items;  // none: the server is alive
};

struct WriteEvent {
    struct Item {
        std::uint32_t clientHandle = 0;
        HResult error{};
    };

    std::uint32_t transaction = 0;
    std::uint32_t clientGroup = 0;
    HResult masterError{};
    std::vector<Item> items;
};

struct CancelEvent {
    std::uint32_t transaction = 0;
    std::uint32_t clientGroup = 0;
};

// Handlers run while some call of the program waits for its answer, or in Session::run(): they may make no calls
// themselves. What does not decode never reaches them.
class DataSink final : public dcom::client::ICallback {
 public:
    static constexpr Uuid iid = wire::iidOpcDataCallback;

    std::function<void(const DataEvent&)> onDataChange;
    std::function<void(const DataEvent&)> onReadComplete;
    std::function<void(const WriteEvent&)> onWriteComplete;
    std::function<void(const CancelEvent&)> onCancelComplete;

    HResult called(std::uint16_t opnum, dcom::ndr::Reader& parameters) override;
};

class ShutdownSink final : public dcom::client::ICallback {
 public:
    static constexpr Uuid iid = wire::iidOpcShutdown;

    std::function<void(const std::string& reason)> onShutdownRequest;

    HResult called(std::uint16_t opnum, dcom::ndr::Reader& parameters) override;
};

}  // namespace quelm::opcda::client
