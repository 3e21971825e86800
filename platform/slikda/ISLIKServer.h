#pragma once

// The OPC DA server control as the server host sees it: a collection of items with their cache, start, shutdown
// notice, in-use indication, and three events. What happens between it and the clients is behind it.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Date.h"
#include "base/Variant.h"

namespace quelm {

// One OPC item. Name and data type are fixed when it is added.
class ISLIKTag {
 public:
    virtual ~ISLIKTag() = default;
    virtual const std::string& Name() const = 0;
    // VARTYPE code of the initial value: the item's canonical data type (0: Empty, no type of its own).
    virtual std::int16_t DataType() const = 0;
    virtual const Variant& Value() const = 0;
    virtual std::int16_t Quality() const = 0;
    virtual Date Timestamp() const = 0;
    // Value, quality word and local time stamp in one step. Raises RuntimeError 13 for a value that an OPC item
    // cannot carry (an object). No allocation for values that are not text.
    virtual void SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) = 0;
    // What clients are told of the item besides, under a property's number (101 and up) and name: a text or a 32-bit
    // whole number; "" and 0 say nothing. All items have a property of one type. Raises RuntimeError 13 for any other
    // value, 5 once clients are let in.
    virtual void SetProperty(std::int32_t lngPropertyID, std::string_view strName, const Variant& varValue) = 0;
};

class ISLIKTags {
 public:
    virtual ~ISLIKTags() = default;
    // lngAccessRights: 1 = readable, 2 = writable. Names are unique without regard to case; raises RuntimeError 457
    // for a name in use, 5 for an empty name and once clients are let in. The item lives as long as the control.
    virtual ISLIKTag& Add(std::string_view strName, std::int32_t lngAccessRights, const Variant& varValue,
                          std::int16_t intQuality, Date dtmTimestamp) = 0;
    // Raises RuntimeError 5 when there is no item of that name.
    virtual ISLIKTag& Item(std::string_view strName) = 0;
    virtual std::size_t Count() const = 0;
};

// One item of a client's device read: filled in by the OnRead handler.
class ISLIKRequestedItem {
 public:
    virtual ~ISLIKRequestedItem() = default;
    virtual const std::string& Name() const = 0;
    virtual void SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) = 0;
};

// The control's events. Handlers trap their own failures.
class ISLIKServerEvents {
 public:
    virtual ~ISLIKServerEvents() = default;
    virtual void SLIKServer1_OnClientDisconnect(std::int32_t lngRemainingClients) = 0;
    // lngError: in 0, out 0 or a COM failure code for the whole read.
    virtual void SLIKServer1_OnRead(std::int32_t lngCount, const std::vector<ISLIKRequestedItem*>& objItems,
                                    std::int32_t& lngError) = 0;
    virtual void SLIKServer1_OnWrite(std::int32_t lngCount, std::int32_t& lngError) = 0;
};

class ISLIKServer {
 public:
    virtual ~ISLIKServer() = default;
    virtual void SetEvents(ISLIKServerEvents* objEvents) = 0;
    // Registration with the operating system; raises RuntimeError with a clear text when that fails.
    virtual void RegisterServer() = 0;
    virtual void UnregisterServer() = 0;
    // Lets clients in. Raises RuntimeError when that is not possible (port taken, not permitted).
    virtual void StartServer() = 0;
    virtual std::string AppID() const = 0;
    virtual std::string AppName() const = 0;
    virtual ISLIKTags& SLIKTags() = 0;
    // Asks connected clients to disconnect; they may or may not. Where there is none, none is let in any more.
    virtual void RequestDisconnect(std::string_view strReason) = 0;
    // Whether nothing that the items are fed from can be reached. Clients see it as the server's state, together with
    // what the same handler sets.
    virtual void SetSourcesLost(bool blnLost) = 0;
    // At least one client holds a server object. False right after RequestDisconnect stays so: nobody comes any more.
    virtual bool InUse() const = 0;
};

}  // namespace quelm
