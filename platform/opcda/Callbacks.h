#pragma once

// What clients are told without asking: changed values, answers to their asynchronous calls, and that the server stops.
// The groups gather it, sinks take it to the clients.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "opcda/Coercion.h"
#include "opcda/HResults.h"

namespace quelm::opcda {

// How the values of a callback go out.
enum class ValueForm : std::uint8_t {
    marshalled,  // each as a parameter of a call
    inMemory,    // as a program finds them in one block of memory
};

// Where the values of one callback are written down while they are converted, in the form in which they go out.
class IValueWriter {
 public:
    virtual ~IValueWriter() = default;
    // Forgets what was written.
    virtual void begin(ValueForm form) = 0;
    virtual void add(const OpcValue& value) = 0;
    // Bytes that were written.
    virtual std::size_t size() const = 0;
};

// The items of one callback, column by column; their values are in the value writer. Shared by all groups, so that a
// steady load allocates nothing.
struct CallbackItems {
    std::uint32_t transaction = 0;  // the client's number; 0: by subscription
    std::uint32_t clientGroup = 0;  // the group's client handle
    HResult masterQuality = S_OK;   // S_FALSE: not all qualities are good
    HResult masterError = S_OK;     // S_FALSE: an item has an error
    std::vector<std::uint32_t> clientHandles;
    std::vector<std::uint16_t> qualities;
    std::vector<std::int64_t> fileTimes;  // UTC, FILETIME
    std::vector<HResult> errors;
};

// What a client of data access 1.0 advises a sink of its own for, as a block of memory each time: values, values with
// their time stamps, or what became of its writes.
enum class Stream : std::uint8_t { values, timedValues, writes };

// To whom a transaction's callback goes, and the number that it carries.
struct Recipient {
    // Each sink that was advised for everything; the number is the client's.
    Recipient(std::uint32_t transaction)  // NOLINT(google-explicit-constructor): that is what most clients give
        : number(transaction) {}
    // The one sink of a stream's connection; the number is the cancel ID.
    static Recipient stream(std::uint32_t connection) {
        Recipient its(0);
        its.connection = connection;
        its.isStream = true;
        return its;
    }

    std::uint32_t number;
    std::uint32_t connection = 0;
    bool isStream = false;
};

// A client's IOPCDataCallback, or its IAdviseSink for a stream, advised to one group. Called on the network's thread
// and never from within a call of the client. It may be let go of (Group::unadvise) from within one of these. Its end
// takes back what waits.
class IDataSink {
 public:
    virtual ~IDataSink() = default;
    // Callbacks that the client has not answered yet. Values that changed wait until there are none; the others are
    // taken at once, as there are never more of them than transactions that the group lets its client begin.
    virtual std::size_t unanswered() const = 0;
    virtual void onDataChange(const CallbackItems& items) = 0;
    virtual void onReadComplete(const CallbackItems& items) = 0;
    virtual void onWriteComplete(std::uint32_t transaction, std::uint32_t clientGroup, HResult masterError,
                                 std::span<const std::uint32_t> clientHandles, std::span<const HResult> errors) = 0;
    virtual void onCancelComplete(std::uint32_t transaction, std::uint32_t clientGroup) = 0;
};

// A client's IOPCShutdown, advised to its server object.
class IShutdownSink {
 public:
    virtual ~IShutdownSink() = default;
    virtual void onShutdownRequest(std::string_view reason) = 0;
};

}  // namespace quelm::opcda
