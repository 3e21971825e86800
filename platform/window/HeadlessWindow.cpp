#include "window/HeadlessWindow.h"

#include <cstdio>
#include <utility>

namespace quelm {
namespace {

void print(std::FILE* stream, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

}  // namespace

HeadlessWindow::HeadlessWindow(IMessageLoop& loop, std::function<void()> onClose)
    : timer_(loop), onClose_(std::move(onClose)) {}

void HeadlessWindow::Show() {
    list_.printing = true;
    list_.printRest();
}

void HeadlessWindow::ShowInformationBox(std::string_view strTitle, std::string_view strText) {
    std::string text(strTitle);
    text += "\n\n";
    for (const char c : strText) {
        if (c != '\r') {
            text += c;
        }
    }
    print(stdout, text);
}

void HeadlessWindow::Close() {
    if (onClose_) {
        std::exchange(onClose_, nullptr)();
    }
}

void HeadlessWindow::MessageList::Add(std::string_view strText) {
    lines.emplace_back(strText);
    if (printing) {
        printRest();
    }
}

void HeadlessWindow::MessageList::printRest() {
    for (; printed < lines.size(); ++printed) {
        print(stderr, lines[printed]);
    }
}

}  // namespace quelm
