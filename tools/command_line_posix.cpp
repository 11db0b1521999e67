#include "command_line.h"

namespace norva::command {

std::vector<std::string> utf8Arguments(int argc, char** argv)
{
    return std::vector<std::string>(argv + 1, argv + argc);
}

} // namespace norva::command
