#include "opcda/HResults.h"

#include <algorithm>
#include <array>

namespace quelm::opcda {

namespace {

struct ErrorText {
    HResult result;
    std::string_view text;
};

constexpr std::array texts{
    ErrorText{S_OK, "The operation completed successfully."},
    ErrorText{S_FALSE, "The function was partially successful."},
    ErrorText{E_NOTIMPL, "Not implemented"},
    ErrorText{E_NOINTERFACE, "No such interface supported"},
    ErrorText{E_FAIL, "Unspecified error"},
    ErrorText{E_ACCESSDENIED, "General access denied error"},
    ErrorText{E_OUTOFMEMORY, "Not enough memory to complete this operation."},
    ErrorText{E_INVALIDARG, "The parameter is incorrect."},
    ErrorText{REGDB_E_CLASSNOTREG, "Class not registered"},
    ErrorText{CONNECT_E_NOCONNECTION, "There is no connection for this connection ID"},
    ErrorText{CONNECT_E_ADVISELIMIT, "This object's limit of advisory connections is reached"},
    ErrorText{CONNECT_E_CANNOTCONNECT, "Connection attempt failed"},
    ErrorText{DISP_E_TYPEMISMATCH, "Type mismatch."},
    ErrorText{DISP_E_OVERFLOW, "Out of present range."},
    ErrorText{RPC_E_DISCONNECTED, "The object invoked has disconnected from its clients."},
    ErrorText{OPC_E_INVALIDHANDLE, "The value of the handle is invalid."},
    ErrorText{OPC_E_BADTYPE, "The value cannot be converted between its canonical and the requested data type."},
    ErrorText{OPC_E_PUBLIC, "The operation is not possible on a public group."},
    ErrorText{OPC_E_BADRIGHTS, "The item's access rights do not allow the operation."},
    ErrorText{OPC_E_UNKNOWNITEMID, "The item ID is not known to the server."},
    ErrorText{OPC_E_INVALIDITEMID, "The item ID does not conform to the server's syntax."},
    ErrorText{OPC_E_INVALIDFILTER, "The filter string is not valid."},
    ErrorText{OPC_E_UNKNOWNPATH, "The item's access path is not known to the server."},
    ErrorText{OPC_E_RANGE, "The value is out of range."},
    ErrorText{OPC_E_DUPLICATENAME, "The name is already in use."},
    ErrorText{OPC_S_UNSUPPORTEDRATE, "The requested rate is not supported; the closest available rate is used."},
    ErrorText{OPC_S_CLAMP, "The value was accepted, but the output was clamped."},
    ErrorText{OPC_S_INUSE, "The object is still referenced; it goes when the last reference is released."},
    ErrorText{OPC_E_INVALIDCONFIGFILE, "The format of the server's configuration is not valid."},
    ErrorText{OPC_E_NOTFOUND, "The requested object was not found."},
    ErrorText{OPC_E_INVALID_PID, "The property ID is not valid for the item."},
    ErrorText{OPC_E_DEADBANDNOTSET, "The item has no deadband of its own."},
    ErrorText{OPC_E_DEADBANDNOTSUPPORTED, "The item does not support a deadband."},
    ErrorText{OPC_E_NOBUFFERING, "The server does not buffer values that are collected faster than they are sent."},
    ErrorText{OPC_E_INVALIDCONTINUATIONPOINT, "The continuation point is not valid."},
    ErrorText{OPC_S_DATAQUEUEOVERFLOW, "Not every change was kept: the buffer of an item was full."},
    ErrorText{OPC_E_RATENOTSET, "The item has no sampling rate of its own."},
    ErrorText{OPC_E_NOTSUPPORTED, "The server does not support writing of quality or time stamp."},
};

}  // namespace

std::string_view errorText(HResult result) {
    const auto found =
        std::find_if(texts.begin(), texts.end(), [result](const ErrorText& entry) { return entry.result == result; });
    return found == texts.end() ? std::string_view() : found->text;
}

}  // namespace quelm::opcda
