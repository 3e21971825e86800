#include "OPC/Client/check/Findings.h"

#include <algorithm>

#include "opcda/client/Words.h"

namespace quelm::opcclient::check {

namespace {

// Enough to see what is wrong; a server that does everything wrong would fill pages.
constexpr std::size_t mostTexts = 8;

std::string namesOf(Findings::Codes codes) {
    std::string names;
    for (const HResult code : codes) {
        names += (names.empty() ? "" : " or ") + opcda::client::resultName(code);
    }
    return names;
}

bool isOneOf(HResult code, Findings::Codes codes) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

}  // namespace

void Findings::add(Verdict verdict, std::string_view text) {
    // A deviation outweighs a remark.
    if (verdict_ != Verdict::Failed) {
        if (verdict == Verdict::Failed) {
            texts_.clear();
        }
        verdict_ = verdict;
    } else if (verdict != Verdict::Failed) {
        return;
    }
    if (texts_.size() < mostTexts) {
        texts_.emplace_back(text);
    } else if (texts_.size() == mostTexts) {
        texts_.emplace_back("and more");
    }
}

bool Findings::expect(bool holds, std::string_view came) {
    if (!holds) {
        add(Verdict::Failed, came);
    }
    return holds;
}

bool Findings::result(std::string_view call, HResult came, Codes allowed) {
    return expect(isOneOf(came, allowed),
                  fmt::format("{}: {}, not {}", call, opcda::client::resultName(came), namesOf(allowed)));
}

void Findings::codes(std::string_view call, HResult came, const opcda::client::Errors& errors,
                     std::initializer_list<Codes> allowed) {
    result(call, came, {S_FALSE});
    codes(call, errors, allowed);
}

void Findings::codes(std::string_view call, const opcda::client::Errors& errors, std::initializer_list<Codes> allowed) {
    if (!expect(errors && errors->size() == allowed.size(), fmt::format("{}: no code for each item", call))) {
        return;
    }
    std::size_t item = 0;
    for (const Codes& each : allowed) {
        result(fmt::format("{}, item {}", call, item + 1), (*errors)[item], each);
        ++item;
    }
}

void Findings::need(bool holds, std::string_view came) {
    if (!expect(holds, came)) {
        throw Stop();
    }
}

void Findings::tolerate(std::string_view remark) {
    add(Verdict::Tolerated, remark);
}

void Findings::skip(std::string_view reason) {
    if (verdict_ == Verdict::Passed) {
        add(Verdict::Skipped, reason);
    }
    throw Stop();
}

void Findings::fail(std::string_view came) {
    add(Verdict::Failed, came);
}

std::string Findings::came() const {
    std::string all;
    for (const std::string& text : texts_) {
        all += (all.empty() ? "" : "; ") + text;
    }
    return all;
}

}  // namespace quelm::opcclient::check
