// The main window on a display that records what is asked of it.

#include "window/MainWindow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "loop/VirtualLoop.h"

namespace quelm {
namespace {

using testing::ElementsAre;

using Journal = std::vector<std::string>;

struct RecordingDisplay : IWindowDisplay {
    RecordingDisplay(Journal& j, const std::vector<std::string>& l) : journal(j), lines(l) {}
    void Show() override { journal.push_back("show"); }
    void Hide() override { journal.push_back("hide"); }
    void LineAdded() override { journal.push_back("line " + lines.back()); }
    void Refresh() override { journal.push_back("refresh"); }
    void ShowInformationBox(std::string_view strTitle, std::string_view) override {
        journal.push_back("box " + std::string(strTitle));
    }

    Journal& journal;
    const std::vector<std::string>& lines;
};

struct MainWindowTest : testing::Test {
    MainWindow make() {
        OpenDisplay open = [this](const std::vector<std::string>& lines, DisplayEvents events) {
            journal.push_back("open");
            display = std::move(events);
            return std::make_unique<RecordingDisplay>(journal, lines);
        };
        return {loop,
                open,
                {.closeRequested = [this] { journal.push_back("close requested"); },
                 .closed = [this] { journal.push_back("closed"); },
                 .noDisplay = [this](std::string_view) { journal.push_back("no display"); },
                 .displayLost = [this](std::string_view) { journal.push_back("display lost"); }}};
    }

    VirtualLoop loop;
    Journal journal;
    DisplayEvents display;
};

TEST_F(MainWindowTest, TheBoxOfAWindowThatIsNotShownClosesIt) {
    MainWindow window = make();
    window.ShowInformationBox("Title", "text");
    EXPECT_TRUE(window.boxOpen());
    display.boxDismissed();
    EXPECT_FALSE(window.boxOpen());
    EXPECT_THAT(journal, ElementsAre("open", "box Title", "close requested"));
    journal.clear();
    window.Show();
    window.ShowInformationBox("Title", "text");
    display.boxDismissed();
    EXPECT_THAT(journal, ElementsAre("show", "box Title"));
}

TEST_F(MainWindowTest, ALostDisplayLeavesThePrintedListAndIsNotWaitedFor) {
    MainWindow window = make();
    window.Show();
    window.lvMessages().Add("first");
    journal.clear();
    testing::internal::CaptureStderr();
    display.lost();
    window.lvMessages().Add("second");
    window.Refresh();
    window.Show();
    window.Hide();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "first\nsecond\n");
    EXPECT_THAT(journal, ElementsAre("display lost"));

    MainWindow waiting = make();
    waiting.ShowInformationBox("Title", "text");
    journal.clear();
    display.lost();
    EXPECT_FALSE(waiting.boxOpen());
    EXPECT_THAT(journal, ElementsAre("close requested"));
}

}  // namespace
}  // namespace quelm
