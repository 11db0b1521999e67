// SPDX-License-Identifier: MIT
#include "progress_line.h"

#include <cstring>
#include <string>

namespace norva::command {

namespace {

constexpr int barWidth = 28;

std::string mebibytes(qint64 bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", double(bytes) / (1 << 20));
    return text;
}

} // namespace

ProgressLine::ProgressLine(std::FILE* terminal) : terminal(terminal)
{
    clock.start();
}

ProgressLine::~ProgressLine()
{
    clear();
}

void ProgressLine::show(const NORVA::NORVA_API_QT::CallProgress& progress)
{
    // An upload shows what it sends, anything else what it receives.
    const bool sending = std::strstr(progress.operation, "upload") != nullptr;
    const qint64 done = sending ? progress.bytesSent : progress.bytesReceived;
    const qint64 total = sending ? progress.bytesToSend : progress.bytesToReceive;
    const double seconds = qMax<qint64>(clock.elapsed(), 1) / 1000.0;
    const double rate = done / seconds; // bytes a second since the call began

    std::string line = sending ? "up   " : "down ";
    if (total > 0) {
        const int filled = int(barWidth * done / total);
        line += '[' + std::string(std::size_t(filled), '=') + std::string(std::size_t(barWidth - filled), ' ') + ']';
        char figures[96];
        const long left = rate > 0 ? long((total - done) / rate) : 0;
        std::snprintf(figures, sizeof figures, " %3d%% %s of %s  %.1f MB/s  %ld:%02ld left", int(100 * done / total),
                      mebibytes(done).c_str(), mebibytes(total).c_str(), rate / 1e6, left / 60, left % 60);
        line += figures;
    } else {
        char figures[64];
        std::snprintf(figures, sizeof figures, "%s  %.1f MB/s", mebibytes(done).c_str(), rate / 1e6);
        line += figures;
    }
    std::fprintf(terminal, "\r%s\033[K", line.c_str());
    std::fflush(terminal);
    shown = true;
}

void ProgressLine::clear()
{
    if (!shown)
        return;
    std::fputs("\r\033[K", terminal);
    std::fflush(terminal);
    shown = false;
}

} // namespace norva::command
