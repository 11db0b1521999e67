// SPDX-License-Identifier: MIT
// Slows down the guessing of one user's password, without slowing the logins
// of anybody else.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace norva::service {

class LoginFailures
{
public:
    // How long a login for `name` waits before it is answered: nothing until
    // the fifth failure within a minute, then a second more for each failure
    // since, up to ten seconds.
    std::chrono::seconds waitBeforeAnswering(const std::string& name);
    void failed(const std::string& name);

private:
    using Clock = std::chrono::steady_clock;
    // Forgets failures older than a minute (and names with none left).
    void forgetOld(Clock::time_point now);

    std::mutex mutex;
    std::map<std::string, std::deque<Clock::time_point>> failures;
};

} // namespace norva::service
