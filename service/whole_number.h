// SPDX-License-Identifier: MIT
// How the service's command-line options read a number: digits only, within
// bounds. strtol would take " 5", "+5" and "5s" as 5, and a value the service
// silently read otherwise than its user meant would test something else.
#pragma once

#include <optional>
#include <string>

namespace norva::service {

// A whole number from least to most; nullopt for anything else.
inline std::optional<long long> wholeNumber(const std::string& text, long long least, long long most)
{
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    const long long value = std::stoll(text);
    return value >= least && value <= most ? std::optional<long long>(value) : std::nullopt;
}

} // namespace norva::service
