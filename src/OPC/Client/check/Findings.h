#pragma once

// What a case of the check finds out: each thing that had to come, held against what came.

#include <fmt/format.h>

#include <exception>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "base/HResult.h"
#include "opcda/client/Stub.h"

namespace quelm::opcclient::check {

enum class Verdict { Passed, Tolerated, Failed, Skipped };

class Findings {
 public:
    // Ends a case early; what was found until then counts.
    class Stop : public std::exception {};
    using Codes = std::initializer_list<HResult>;

    // came: what is said when it does not hold.
    bool expect(bool holds, std::string_view came);
    // A call's result must be one of these.
    bool result(std::string_view call, HResult came, Codes allowed);
    // The result is S_FALSE and the items' codes are these, one set of allowed ones for each item.
    void codes(std::string_view call, HResult came, const opcda::client::Errors& errors,
               std::initializer_list<Codes> allowed);
    // The same without a look at the call's own result.
    void codes(std::string_view call, const opcda::client::Errors& errors, std::initializer_list<Codes> allowed);
    template <class T>
    void equal(std::string_view what, const T& came, const T& expected) {
        expect(came == expected, fmt::format("{} is {}, not {}", what, came, expected));
    }

    // What the rest of the case builds on: ends it with a failure unless it holds.
    void need(bool holds, std::string_view came);
    // It passes, and yet somebody may want to know.
    void tolerate(std::string_view remark);
    // The case says nothing about this server.
    [[noreturn]] void skip(std::string_view reason);
    // Something went wrong beneath the case.
    void fail(std::string_view came);

    Verdict verdict() const { return verdict_; }
    // What came, for people: deviations, remarks or the reason; empty when all was as expected.
    std::string came() const;

 private:
    void add(Verdict verdict, std::string_view text);

    Verdict verdict_ = Verdict::Passed;
    std::vector<std::string> texts_;
};

}  // namespace quelm::opcclient::check
