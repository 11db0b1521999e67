// SPDX-License-Identifier: MIT
#include "login_failures.h"

#include <algorithm>
#include <functional>

namespace norva::service {

namespace {

constexpr std::chrono::minutes window(1);
constexpr int freeFailures = 4;
constexpr std::chrono::seconds cap(10);
// More failures than this within the window change no answer.
constexpr std::size_t countedFailures = freeFailures + 10;

std::uint64_t keyOf(const std::string& name)
{
    return std::hash<std::string>{}(name);
}

} // namespace

std::chrono::seconds LoginFailures::waitBeforeAnswering(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(mutex);
    forgetOld(Clock::now());
    const auto found = failures.find(keyOf(name));
    const int recent = found == failures.end() ? 0 : int(found->second.size());
    return std::min<std::chrono::seconds>(std::chrono::seconds(std::max(0, recent - freeFailures)), cap);
}

void LoginFailures::failed(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    forgetOld(now);
    const std::uint64_t key = keyOf(name);
    if (failures.size() >= mostNames && failures.find(key) == failures.end()) {
        const auto oldest = std::min_element(failures.begin(), failures.end(), [](const auto& a, const auto& b) {
            return a.second.back() < b.second.back();
        });
        failures.erase(oldest);
    }
    std::deque<Clock::time_point>& times = failures[key];
    times.push_back(now);
    if (times.size() > countedFailures)
        times.pop_front();
}

std::size_t LoginFailures::namesKept()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return failures.size();
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
