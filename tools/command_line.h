// The norva command's words as UTF-8, whatever the system passes to main().
#pragma once

#include <string>
#include <vector>

namespace norva::command {

// argv[1..] as UTF-8. On Windows main() gets them in the code page, which may
// not spell every character, so they are read again from the wide command line.
std::vector<std::string> utf8Arguments(int argc, char** argv);

} // namespace norva::command
