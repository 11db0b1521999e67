// SPDX-License-Identifier: MIT
// A progress bar with rate and time left, redrawn in place on a terminal.
#pragma once

#include "norva_api_qt_progress.h"

#include <QElapsedTimer>

#include <cstdio>

namespace norva::command {

class ProgressLine
{
public:
    explicit ProgressLine(std::FILE* terminal);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Draws the request's figures while it is being sent, then the reply's.
    void show(const NORVA::NORVA_API_QT::CallProgress& progress);
    // Wipes the line, so that what follows starts on a clean one.
    void clear();

private:
    std::FILE* const terminal;
    QElapsedTimer clock;
    bool shown = false;
};

} // namespace norva::command
