// SPDX-License-Identifier: MIT
// The norva command's words as UTF-8, whatever the system passes to main().
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace norva::command {

// argv[1..] as UTF-8. On Windows main() gets them in the code page, which may
// not spell every character, so they are read again from the wide command line.
std::vector<std::string> utf8Arguments(int argc, char** argv);

// Whether standard input (output, error) is a terminal.
bool inputIsTerminal();
bool outputIsTerminal();
bool errorIsTerminal();

// Asks for a secret on the terminal: `prompt` on standard error, then one line
// read from standard input without echo. nullopt when none could be read.
std::optional<std::string> readSecret(const char* prompt);

} // namespace norva::command
