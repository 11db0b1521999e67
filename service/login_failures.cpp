// SPDX-License-Identifier: MIT
#include "login_failures.h"

#include <algorithm>

namespace norva::service {

namespace {

constexpr std::chrono::minutes window(1);
constexpr int freeFailures = 4;
constexpr std::chrono::seconds cap(10);

} // namespace

std::chrono::seconds LoginFailures::waitBeforeAnswering(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(mutex);
    forgetOld(Clock::now());
    const auto found = failures.find(name);
    const int recent = found == failures.end() ? 0 : int(found->second.size());
    return std::min<std::chrono::seconds>(std::chrono::seconds(std::max(0, recent - freeFailures)), cap);
}

void LoginFailures::failed(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    forgetOld(now);
    failures[name].push_back(now);
}

void LoginFailures::forgetOld(Clock::time_point now)
{
    for (auto it = failures.begin(); it != failures.end();) {
        std::deque<Clock::time_point>& times = it->second;
        while (!times.empty() && now - times.front() > window)
            times.pop_front();
        it = times.empty() ? failures.erase(it) : std::next(it);
    }
}

} // namespace norva::service
