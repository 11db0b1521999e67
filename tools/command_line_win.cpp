#include "command_line.h"

#include <windows.h>

#include <shellapi.h>

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

} // namespace norva::command
