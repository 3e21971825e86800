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
    // What the calling system itself reports to clients, which ask the server for the text all the same.
    ErrorText{HResult{0x8000000A}, "The data is not available yet."},
    ErrorText{HResult{0x8000FFFF}, "Unexpected failure"},
    ErrorText{HResult{0x80004003}, "Invalid pointer"},
    ErrorText{HResult{0x80004004}, "Operation aborted"},
    ErrorText{HResult{0x80010001}, "The call was rejected by the callee."},
    ErrorText{HResult{0x80010002}, "The call was cancelled by the message filter."},
    ErrorText{HResult{0x80010005}, "No call may be made from within this one."},
    ErrorText{HResult{0x80010105}, "The server broke down inside the call."},
    ErrorText{HResult{0x80010106}, "The thread's concurrency mode cannot be changed once it is set."},
    ErrorText{HResult{0x80010107}, "The interface has no such method."},
    ErrorText{HResult{0x8001010E}, "The interface was marshalled for another thread."},
    ErrorText{HResult{0x80010110}, "The versions of client and server do not agree."},
    ErrorText{HResult{0x80010114}, "The requested object does not exist."},
    ErrorText{HResult{0x8001011B}, "Access is denied."},
    ErrorText{HResult{0x8001011F}, "The operation did not end within its time limit."},
    ErrorText{HResult{0x80020003}, "Member not found."},
    ErrorText{HResult{0x80020004}, "Parameter not found."},
    ErrorText{HResult{0x80020008}, "Bad variable type."},
    ErrorText{HResult{0x80020009}, "An exception occurred."},
    ErrorText{HResult{0x8002000B}, "Invalid index."},
    ErrorText{HResult{0x80040003}, "Advising is not supported."},
    ErrorText{OLE_E_NOCONNECTION, "There is no connection for this connection ID"},
    ErrorText{DV_E_FORMATETC, "The format is not supported."},
    ErrorText{DV_E_TYMED, "The medium is not supported."},
    ErrorText{CLASS_E_NOAGGREGATION, "The class does not support aggregation."},
    ErrorText{HResult{0x80040111}, "The class cannot supply the requested class"},
    ErrorText{HResult{0x80040155}, "Interface not registered"},
    ErrorText{HResult{0x800401F0}, "COM has not been initialised."},
    ErrorText{CO_E_CLASSSTRING, "Invalid class string"},
    ErrorText{HResult{0x800401F5}, "The application of the class was not found."},
    ErrorText{HResult{0x800401FD}, "The object is not connected to its server."},
    ErrorText{HResult{0x80070002}, "The file was not found."},
    ErrorText{HResult{0x80070006}, "The handle is invalid."},
    ErrorText{HResult{0x80070032}, "The request is not supported."},
    ErrorText{HResult{0x80070102}, "The wait ended at its time limit."},
    ErrorText{HResult{0x8007045B}, "The system is shutting down."},
    ErrorText{HResult{0x8007052E}, "The user name or the password is wrong."},
    ErrorText{HResult{0x80070533}, "The account is disabled."},
    ErrorText{HResult{0x800705B4}, "The operation ended at its time limit."},
    ErrorText{HResult{0x800706B5}, "The RPC interface is unknown."},
    ErrorText{HResult{0x800706BA}, "The RPC server is unavailable."},
    ErrorText{HResult{0x800706BB}, "The RPC server is too busy to complete this operation."},
    ErrorText{HResult{0x800706BE}, "The remote procedure call failed."},
    ErrorText{HResult{0x800706BF}, "The remote procedure call failed and was not carried out."},
    ErrorText{HResult{0x800706C0}, "A protocol error of the remote procedure call occurred."},
    ErrorText{HResult{0x800706D1}, "The number of the remote procedure is out of range."},
    ErrorText{HResult{0x800706D3}, "The authentication service is unknown."},
    ErrorText{HResult{0x800706F7}, "The stub received bad data."},
    ErrorText{HResult{0x8007071A}, "The remote procedure call was cancelled."},
    ErrorText{HResult{0x80070721}, "A security package specific error occurred."},
    ErrorText{HResult{0x80070776}, "The object exporter was not found."},
    ErrorText{HResult{0x80070777}, "The object was not found."},
    ErrorText{HResult{0x80080005}, "The server could not be started."},
    ErrorText{CO_E_SERVER_STOPPING, "The object server is stopping."},
};

}  // namespace

std::string_view errorText(HResult result) {
    const auto found =
        std::find_if(texts.begin(), texts.end(), [result](const ErrorText& entry) { return entry.result == result; });
    return found == texts.end() ? std::string_view() : found->text;
}

}  // namespace quelm::opcda
