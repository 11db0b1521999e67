// SPDX-License-Identifier: MIT
// One measurement of the per-call or upload cost, by the library or by bare Qt,
// against a sink that is already running; built for Linux and for Windows, so
// that scripts/bench --windows compares the two on one machine.
//
//   bench_calls ADDRESS library|bare|library-host|bare-host CALLS   (us per call)
//   bench_calls ADDRESS upload-library|upload-bare FILE             (MB/s)
//   bench_calls ADDRESS async-N|manager-N CALLS      (us per call, N in flight:
//                                                     the asynchronous face, or
//                                                     bare Qt with one manager)
//
// The figure goes to standard error: standard output takes the library's
// console echo, which the caller sends to a file, so that the echo costs its
// write as it does in a host.
#include "call_runs.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_calls ADDRESS MODE CALLS|FILE\n");
        return 2;
    }
    const std::string address = argv[1];
    const std::string mode = argv[2];
    if (mode == "upload-library" || mode == "upload-bare") {
        const std::string path = argv[3];
        const auto start = std::chrono::steady_clock::now();
        const bool ok = mode == "upload-library" ? bench::libraryUpload(address, path) : bench::bareQtUpload(address, path);
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr, "%.1f\n", double(QFileInfo(QString::fromStdString(path)).size()) / 1e6 / seconds);
        return ok ? 0 : 1;
    }
    const int calls = std::atoi(argv[3]);
    const bool inFlight = mode.rfind("async-", 0) == 0 || mode.rfind("manager-", 0) == 0;
    const bool host = mode == "library-host" || mode == "bare-host" || inFlight;
    static int appArgc = 1;
    static char appName[] = "bench_calls";
    static char* appArgv[] = {appName, nullptr};
    std::unique_ptr<QCoreApplication> application;
    if (host)
        application = std::make_unique<QCoreApplication>(appArgc, appArgv);
    const int atOnce = inFlight ? std::atoi(mode.c_str() + mode.find('-') + 1) : 1;
    const double micros = mode.rfind("async-", 0) == 0     ? bench::asyncMicrosPerCall(address, calls, atOnce)
                          : mode.rfind("manager-", 0) == 0 ? bench::reusedManagerMicrosPerCall(address, calls, atOnce)
                          : mode.rfind("library", 0) == 0  ? bench::libraryMicrosPerCall(address, calls)
                                                           : bench::bareQtMicrosPerCall(address, calls, !host);
    std::fprintf(stderr, "%.0f\n", micros);
    return 0;
}
