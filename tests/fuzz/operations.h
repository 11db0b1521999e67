// SPDX-License-Identifier: MIT
// Every operation, for the fuzz targets.
#pragma once

#include "norva_api_qt.h"
#include "operation_list.h"

#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

namespace fuzzing {

// Standard output goes nowhere while fuzzing: every call echoes its result.
inline void silenceStandardOutput()
{
    struct Discard : std::streambuf {
        int overflow(int c) override { return c; }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    };
    static Discard discard;
    std::cout.rdbuf(&discard);
}

using Operation = std::string (*)(std::string);

inline std::string memberLogin(std::string argument)
{
    NORVA::NORVA_API_QT::NORVA_HTTP_API api;
    return api.norva_sdk_login(std::move(argument));
}

inline std::string memberDownload(std::string argument)
{
    NORVA::NORVA_API_QT::NORVA_HTTP_API api;
    return api.norva_sdk_download_binary_file(std::move(argument));
}

// The command's list of every free operation, and the object's two members.
inline std::vector<Operation> allOperations()
{
    std::vector<Operation> all;
    for (auto entry = norva::command::operationsBegin(); entry != norva::command::operationsEnd(); ++entry)
        all.push_back(entry->function);
    all.push_back(memberLogin);
    all.push_back(memberDownload);
    return all;
}

} // namespace fuzzing
