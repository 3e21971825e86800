#include "Messages/MessageTypeNames.h"

#include "Messages/IRaiseMsg.h"

namespace quelm {

std::string messageTypeName(std::int32_t lngMsgType) {
    switch (lngMsgType) {
        case msgtype::progress:
            return "Progress";
        case msgtype::information:
            return "Information";
        case msgtype::notice:
            return "Notice";
        case msgtype::error:
            return "Error";
        case msgtype::multiValueError:
            return "Multi-value error";
        default:
            return std::to_string(lngMsgType);
    }
}

}  // namespace quelm
