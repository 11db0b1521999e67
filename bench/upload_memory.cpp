// SPDX-License-Identifier: MIT
// Uploads one large file with norva_sdk_upload_file and prints the peak resident
// memory of the uploading process: the file is streamed from disk, so the peak
// must not grow with the file.
//
//   bench_upload_memory [MiB]     (default 1024)
#include "loopback_sink.h"

#include "norva_api_qt.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>

int main(int argc, char** argv)
{
    const long mebibytes = argc > 1 ? std::atol(argv[1]) : 1024;
    const std::uint64_t size = std::uint64_t(mebibytes) << 20;

    char path[] = "/tmp/norva-bench-upload-XXXXXX";
    const int fd = ::mkstemp(path);
    std::string block(1 << 20, 'u');
    for (long i = 0; i < mebibytes; ++i) {
        if (::write(fd, block.data(), block.size()) != ssize_t(block.size())) {
            std::perror("write");
            return 1;
        }
    }
    ::close(fd);
    block = std::string();

    bench::LoopbackSink sink;
    const std::string argument = R"({"ipconfig":")" + sink.address() + R"(","token":"t","file_uploadpath":")" + path
                                 + R"(","data":{"fileInfo":{"zkcompanycode":"bench"}}})";
    const long before = bench::peakResidentKiB();
    const auto start = std::chrono::steady_clock::now();
    std::string result;
    {
        std::ostringstream quiet; // keep the result line out of the figures
        std::streambuf* const out = std::cout.rdbuf(quiet.rdbuf());
        result = NORVA::NORVA_API_QT::norva_sdk_upload_file(argument);
        std::cout.rdbuf(out);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const long peak = bench::peakResidentKiB();
    ::unlink(path);

    std::printf("server: %s\n", bench::LoopbackSink::description());
    std::printf("upload of %ld MiB: %.2f s, %.0f MB/s\n", mebibytes, seconds, double(size) / 1e6 / seconds);
    std::printf("peak resident memory: %.1f MiB (before the call: %.1f MiB); target under 64 MiB: %s\n", peak / 1024.0,
                before / 1024.0, peak < 64 * 1024 ? "met" : "MISSED");
    std::printf("result: %s\n", result.c_str());
    return result.find("\"status\":200") != std::string::npos && peak < 64 * 1024 ? 0 : 1;
}
