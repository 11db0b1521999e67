// SPDX-License-Identifier: MIT
// Slows down the guessing of one user's password, without slowing the logins
// of anybody else. What it remembers is bounded whatever the logins send: a
// name is kept as a hash of it, a name's failures beyond those that can still
// count are dropped, and past a fixed number of names the one whose last
// failure is oldest goes first.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace norva::service {

class LoginFailures
{
public:
    // How long a login for `name` waits before it is answered: nothing until
    // the fifth failure within a minute, then a second more for each failure
    // since, up to ten seconds.
    std::chrono::seconds waitBeforeAnswering(const std::string& name);
    void failed(const std::string& name);

    // How many names it remembers now (never more than `mostNames`).
    std::size_t namesKept();
    static constexpr std::size_t mostNames = 4096;

private:
    using Clock = std::chrono::steady_clock;
    // Forgets failures older than a minute (and names with none left).
    void forgetOld(Clock::time_point now);

    std::mutex mutex;
    std::unordered_map<std::uint64_t, std::deque<Clock::time_point>> failures; // by the name's hash
};

} // namespace norva::service
