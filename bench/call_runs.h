// SPDX-License-Identifier: MIT
// The measured runs that need nothing but Qt and the library, so that the same
// code measures on Linux and, built for Windows, under Wine.
#pragma once

#include <string>

namespace bench {

// Microseconds per call of the library, alternating login and share query
// against `address`. Its console echo goes wherever standard output goes.
double libraryMicrosPerCall(const std::string& address, int calls);

// The library's design in bare Qt: a new manager (and, with
// `freshApplication`, a new application) for every call and a local event loop.
// `plugins` lets a new application search Qt's plugin folders, as it does
// unless told not to.
double bareQtMicrosPerCall(const std::string& address, int calls, bool freshApplication, bool plugins = false);

// Microseconds per call of `calls` share queries with `inFlight` at once from
// one thread with a running event loop (needs an application): through the
// library's asynchronous face (one Client), and in bare Qt with one reused
// manager.
double asyncMicrosPerCall(const std::string& address, int calls, int inFlight);

// What the per-server rows time: a POST operation (the share query), a GET
// operation (all planner models), and an upload of the small file at
// `uploadPath`.
enum class Kind { PostQuery, GetQuery, SmallUpload };
const char* kindName(Kind kind);
// Microseconds per call of `kind`: through the asynchronous face with
// `inFlight` at once (needs an application), and through the blocking
// function, one at a time.
double asyncMicrosPerCall(const std::string& address, int calls, int inFlight, Kind kind, const std::string& uploadPath);
double blockingMicrosPerCall(const std::string& address, int calls, Kind kind, const std::string& uploadPath);
double reusedManagerMicrosPerCall(const std::string& address, int calls, int inFlight);

// One upload of the file at `path`: by the library, and the same form in bare
// Qt (a file part and a data part, one manager). True when the sink said 200.
bool libraryUpload(const std::string& address, const std::string& path);
bool bareQtUpload(const std::string& address, const std::string& path);

} // namespace bench
