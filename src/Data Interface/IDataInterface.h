#pragma once

// The data interface of one site: its parameter definitions and settings, needed only while items are created.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace quelm {

class IPIDDefinitions {
 public:
    virtual ~IPIDDefinitions() = default;
    virtual bool IsDefined(std::int32_t lngPID) const = 0;
    // The interval type of a defined PID; raises RuntimeError 5 for an undefined one. "" when none is configured.
    virtual const std::string& IntervalType(std::int32_t lngPID, bool blnUse) const = 0;
    // The same of what people call it.
    virtual const std::string& Name(std::int32_t lngPID) const = 0;
};

class IDataInterface {
 public:
    virtual ~IDataInterface() = default;
    // The Message event: message type and text, for the operator.
    using MessageHandler = std::function<void(std::int32_t lngMsgType, std::string_view strDescription)>;
    virtual void OnMessage(MessageHandler handler) = 0;
    // Reads the DAHS's definitions; False (after a Message with the reason) when that fails.
    virtual bool Load(std::int32_t lngDAHSID, bool blnDefinitions, bool blnReserved) = 0;
    virtual void TearDown() = 0;
    virtual const IPIDDefinitions& PIDDefinitions() const = 0;
    // 1 Sunday to 7 Saturday; 0 = not configured.
    virtual std::int32_t FirstDayOfWeek() const = 0;
};

}  // namespace quelm
