#pragma once

// What the check found, for people, for programs and for build servers.

#include <string>
#include <vector>

#include "OPC/Client/Answer.h"
#include "OPC/Client/check/Runner.h"

namespace quelm::opcclient::check {

// The lines for a case: one, and two more for what did not come as expected.
std::vector<std::string> linesOf(const Ran& ran);
// "DA 2.05a: 141 of 143 (2 failed, 3 skipped)", a line for each version.
std::vector<std::string> summary(const std::vector<Ran>& cases);

// The whole for programs; to people the lines were shown before, so that the summary is left.
Answer answerOf(const std::vector<Ran>& cases);
// All cases with what they ask and expect, none run.
Answer listOf(const std::vector<Ran>& cases);

// A file of test results as build servers read them. Raises UsageError where it cannot be written.
void writeJunit(const std::string& path, const std::vector<Ran>& cases);

}  // namespace quelm::opcclient::check
