// SPDX-License-Identifier: MIT
#include "command_line.h"

#include <cstdio>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace norva::command {

std::vector<std::string> utf8Arguments(int argc, char** argv)
{
    return std::vector<std::string>(argv + 1, argv + argc);
}

bool inputIsTerminal()
{
    return isatty(STDIN_FILENO);
}

bool outputIsTerminal()
{
    return isatty(STDOUT_FILENO);
}

bool errorIsTerminal()
{
    return isatty(STDERR_FILENO);
}

std::optional<std::string> readSecret(const char* prompt)
{
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    termios before{};
    const bool terminal = tcgetattr(STDIN_FILENO, &before) == 0;
    if (terminal) {
        termios quiet = before;
        quiet.c_lflag &= ~tcflag_t(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    std::string line;
    const bool read = bool(std::getline(std::cin, line));
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        std::fputc('\n', stderr); // the Enter the terminal did not show
    }
    if (!read)
        return std::nullopt;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

} // namespace norva::command
