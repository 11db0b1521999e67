#include "fault_injection.h"

#include <chrono>
#include <cstdlib>
#include <thread>

namespace norva::service {

namespace {

// "123" as a whole positive number; 0 when it is anything else.
int positive(const std::string& text)
{
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && value > 0 && value < 1000000 ? int(value) : 0;
}

// Splits "TEXTxCOUNT" at its last "x" when a count follows it.
std::pair<std::string, std::string> withCount(const std::string& text)
{
    const std::size_t x = text.rfind('x');
    if (x != std::string::npos && positive(text.substr(x + 1)))
        return {text.substr(0, x), text.substr(x + 1)};
    return {text, std::string()};
}

} // namespace

bool FaultInjection::add(const std::string& path, const std::string& count, int status)
{
    if (path.empty() || path[0] != '/')
        return false;
    std::lock_guard<std::mutex> lock(mutex);
    faults[path] = Fault{status, count.empty() ? -1 : positive(count)};
    return true;
}

bool FaultInjection::addFailure(const std::string& text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        return false;
    const auto [statusText, count] = withCount(text.substr(equals + 1));
    const int status = positive(statusText);
    // A 1xx is no final answer: the client would wait for the one after it.
    return status >= 200 && status <= 599 && add(text.substr(0, equals), count, status);
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
