// SPDX-License-Identifier: Apache-2.0
// What the reports share: findings in their order, the verdict's sentence,
// text made safe for JSON and HTML. Internal to the log checker.
#pragma once

#include <stdio.h>

#include <string>
#include <string_view>
#include <vector>

#include "logcheck.h"

namespace logcheck {

// All findings, grouped by rule: rules in the order of their most severe
// finding, findings by kind, certain first, then where they are.
std::vector<const Finding*> grouped(const Checker& checker);
const char* ruleName(const Finding& finding);  // "(no rule)" for none
// What to do about the finding's rule, in one line.
const char* whatToDo(const Finding& finding);
std::string pointer(uint64_t object);
// The verdict in one sentence: "clean: ...", "N findings ...", "nothing
// checked: ...".
std::string verdictSentence(const Checker& checker, const InputStats& input);
// The checks the log could not support and what it lost, each in a sentence.
std::vector<std::string> notCheckedReasons(const Checker& checker, const InputStats& input);
// The length of a valid UTF-8 sequence at text[at]; 0 where it is not one.
size_t utf8Length(std::string_view text, size_t at);
void jsonString(FILE* out, std::string_view text);

}  // namespace logcheck
