// SPDX-License-Identifier: MIT
#include "fault_injection.h"
#include "whole_number.h"

#include <chrono>
#include <thread>

namespace norva::service {

namespace {

// The most times a fault can be asked for; more is as good as always.
constexpr long long mostCount = 999999;

// Splits "TEXTxCOUNT" at its last "x" when a count follows it; the count is -1
// (every time) when none does.
std::pair<std::string, int> withCount(const std::string& text)
{
    const std::size_t x = text.rfind('x');
    const std::optional<long long> count =
        x == std::string::npos ? std::nullopt : wholeNumber(text.substr(x + 1), 1, mostCount);
    return count ? std::pair(text.substr(0, x), int(*count)) : std::pair(text, -1);
}

} // namespace

bool FaultInjection::add(const std::string& path, int remaining, int status)
{
    if (path.empty() || path[0] != '/')
        return false;
    std::lock_guard<std::mutex> lock(mutex);
    faults[path] = Fault{status, remaining};
    return true;
}

bool FaultInjection::addFailure(const std::string& text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        return false;
    const auto [statusText, count] = withCount(text.substr(equals + 1));
    // A 1xx is no final answer: the client would wait for the one after it.
    const std::optional<long long> status = wholeNumber(statusText, 200, 599);
    return status && add(text.substr(0, equals), count, int(*status));
}

bool FaultInjection::addDrop(const std::string& text)
{
    const auto [path, count] = withCount(text);
    return add(path, count, 0);
}

std::optional<HttpResponse> FaultInjection::intercept(const HttpRequest& request)
{
    if (delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    std::lock_guard<std::mutex> lock(mutex);
    const auto fault = faults.find(request.path);
    if (fault == faults.end() || fault->second.remaining == 0)
        return std::nullopt;
    if (fault->second.remaining > 0)
        --fault->second.remaining;
    if (fault->second.status == 0) {
        HttpResponse drop;
        drop.dropConnection = true;
        return drop;
    }
    return HttpResponse::text(fault->second.status, "fault injected by --fail\n");
}

} // namespace norva::service
