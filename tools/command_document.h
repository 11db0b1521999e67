// SPDX-License-Identifier: MIT
// Turning the norva command's words into an argument document, and a result
// document into indented text.
#pragma once

#include "session_file.h"

#include <optional>
#include <string>
#include <vector>

namespace norva::command {

// The argument document of "key=value" words: a value that is JSON on its own
// ("5", "true", "[1,2]", "{\"a\":1}", "null", "\"text\"") is taken as that
// JSON, anything else as text; "data.id=5" makes "id" a key of the object
// "data". nullopt, with a reason, for a word without "=" or a key used both
// as a value and as an object.
std::optional<std::string> documentFromPairs(const std::vector<std::string>& words, std::string* error);

// The document with "ipconfig" and "token" from the session put in front where
// the document lacks them, and the session's user id under `userKey` (the
// operation's key for the calling user, "data.userId" say; empty for none)
// where it lacks that. The caller's text is kept as it is otherwise (but for a
// user id put inside one of its objects), and a text that is no JSON object
// passes unchanged.
std::string withSession(const std::string& document, const Session& session, const std::string& userKey);

// A compact JSON text indented by two blanks a level, every token as it was.
std::string indented(const std::string& compact);

} // namespace norva::command
