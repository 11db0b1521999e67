// SPDX-License-Identifier: MIT
// Faults a host's own tests can ask the service for, to try their error paths:
// a slow answer, an HTTP status for a path, a connection closed without an
// answer, tokens that no longer count.
#pragma once

#include "http_server.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace norva::service {

class FaultInjection
{
public:
    // --delay-ms N: wait N ms before every answer.
    void setDelayMs(int milliseconds) { delayMs = milliseconds; }
    // --fail PATH=STATUS[xCOUNT]: answer PATH with that HTTP status, 200 to
    // 599 (the first COUNT times, else always). False when the text is not of
    // that form.
    bool addFailure(const std::string& text);
    // --drop PATH[xCOUNT]: close the connection of a request for PATH without
    // an answer (the first COUNT times, else always).
    bool addDrop(const std::string& text);

    // Waits the delay, then gives the fault's answer for this request, if any;
    // nullopt lets the service answer as usual.
    std::optional<HttpResponse> intercept(const HttpRequest& request);

private:
    struct Fault {
        int status = 0; // 0: drop the connection
        int remaining = -1; // -1: every time
    };
    bool add(const std::string& path, int remaining, int status);

    int delayMs = 0;
    std::mutex mutex;
    std::map<std::string, Fault> faults;
};

} // namespace norva::service
