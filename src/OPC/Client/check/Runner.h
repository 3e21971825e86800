#pragma once

// Runs the cases, one after the other, and keeps what each of them found. A case that goes wrong, hangs or loses the
// connection fails alone.

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "OPC/Client/check/Case.h"
#include "OPC/Client/check/Known.h"
#include "OPC/Client/check/Stage.h"

namespace quelm::opcclient::check {

struct Ran {
    const Area* area = nullptr;
    const Case* what = nullptr;
    Verdict verdict = Verdict::Passed;
    std::string came;
    std::string known;  // why it is let pass, for a failure that is known
    std::uint64_t milliseconds = 0;

    bool counts() const { return verdict != Verdict::Skipped; }
    bool passes() const { return verdict != Verdict::Failed || !known.empty(); }
};

struct Choice {
    std::set<int> cases;  // empty: all
    bool writes = false;
    Known known;
};

// In the order of their numbers.
std::vector<Ran> chosen(const Choice& choice);

// Fills in what the cases find. onDone: behind each of them. Throws Trouble: interrupted by the user, or the server is
// gone for good; what has run until then is kept, and the others stand as skipped.
void run(Stage& stage, const Choice& choice, std::vector<Ran>& cases, const std::function<void(const Ran&)>& onDone);

}  // namespace quelm::opcclient::check
