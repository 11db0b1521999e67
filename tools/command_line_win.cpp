// SPDX-License-Identifier: MIT
#include "command_line.h"

#include <windows.h>

#include <io.h>
#include <shellapi.h>

#include <cstdio>
#include <iostream>

namespace norva::command {

std::vector<std::string> utf8Arguments(int, char**)
{
    std::vector<std::string> words;
    int count = 0;
    LPWSTR* const wide = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; wide && i < count; ++i) {
        const int length = WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, nullptr, 0, nullptr, nullptr);
        std::string word(std::size_t(length > 0 ? length - 1 : 0), '\0');
        if (length > 1)
            WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, word.data(), length, nullptr, nullptr);
        words.push_back(word);
    }
    LocalFree(wide);
    return words;
}

bool inputIsTerminal()
{
    return _isatty(_fileno(stdin));
}

bool outputIsTerminal()
{
    return _isatty(_fileno(stdout));
}

bool errorIsTerminal()
{
    return _isatty(_fileno(stderr));
}

std::optional<std::string> readSecret(const char* prompt)
{
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    DWORD before = 0;
    const bool console = GetConsoleMode(input, &before) != 0;
    if (console)
        SetConsoleMode(input, before & ~DWORD(ENABLE_ECHO_INPUT));
    std::string line;
    const bool read = bool(std::getline(std::cin, line));
    if (console) {
        SetConsoleMode(input, before);
        std::fputc('\n', stderr);
    }
    if (!read)
        return std::nullopt;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

} // namespace norva::command
