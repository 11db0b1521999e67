// SPDX-License-Identifier: MIT
// norva batch: many calls from a file of JSON lines, through the library's
// asynchronous face, with their results in input order.
#pragma once

#include "session_file.h"

#include <iosfwd>
#include <optional>

namespace norva::command {

// Reads {"operation":"...","argument":{...}} lines from `input` (blank lines are
// skipped) and prints one result line each, in their order, with up to `jobs`
// calls in flight. `session`, when given, fills in "ipconfig" and "token". On a
// terminal, standard error shows how many are done. Exit status 0 when every
// status is 200 or 206, else 1. `blocking` makes the same calls one after
// another through the blocking functions instead (their own console lines are
// the output), to compare the two.
int runBatch(std::istream& input, int jobs, const std::optional<Session>& session, bool blocking);

} // namespace norva::command
