#include "OPC/Tools/MessageList.h"

#include <gtest/gtest.h>

namespace quelm::tools {
namespace {

TEST(MessageList, KeepsWhatIsNewAndProgressOnRequest) {
    MessageList messages;
    const auto raiseAll = [&] {
        messages.RaiseMsg(msgtype::progress, "IOS5 CurrentIO [OPC-0183]");
        for (const char* silence : {"IOS5; Elapsed=46", "IOS5; Elapsed=105", "IOS6; Elapsed=105"}) {
            messages.RaiseMsg(msgtype::notice, silence);
        }
        for (const char* channel : {"401", "401", "411"}) {
            messages.RaiseMsg(msgtype::error, std::string("OPC-0162: found 2 for channel ") + channel);
        }
    };
    const std::vector<std::string> kept{"IOS5; Elapsed=46", "IOS6; Elapsed=105", "OPC-0162: found 2 for channel 401",
                                        "OPC-0162: found 2 for channel 411"};
    messages.begin(false);
    raiseAll();
    ASSERT_EQ(messages.entries().size(), kept.size());
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_EQ(messages.entries()[i].text, kept[i]);
    }
    messages.begin(true);
    raiseAll();
    EXPECT_EQ(messages.entries().size(), kept.size() + 1);
}

TEST(MessageList, CountsErrorsAndDatabaseFailuresAlsoWhenTheyRepeat) {
    MessageList messages;
    const auto countsAfter = [&](std::int32_t type, std::string_view text) {
        messages.RaiseMsg(type, text);
        return std::pair(messages.counts().errors, messages.counts().databaseFailures);
    };
    using Counts = std::pair<std::size_t, std::size_t>;
    EXPECT_EQ(countsAfter(msgtype::error, "OPC-0149: Can't write"), Counts(1, 0));
    EXPECT_EQ(countsAfter(msgtype::error, "OPC-0149: Can't write"), Counts(2, 0));
    EXPECT_EQ(countsAfter(msgtype::multiValueError, "OPC-0159: Can't"), Counts(3, 0));
    EXPECT_EQ(countsAfter(msgtype::notice, "OPC-0194: Found 0"), Counts(3, 0));
    EXPECT_EQ(countsAfter(msgtype::error, "OPC-0205: 1, disk full"), Counts(4, 1));
    messages.begin(false);
    EXPECT_EQ(countsAfter(msgtype::error, "OPC-0205: 1, disk full"), Counts(5, 2));
}

}  // namespace
}  // namespace quelm::tools
