// SPDX-License-Identifier: MIT
// Running a measured transfer in a child process of its own, so that each gets
// its own peak resident memory; and the median of repeated runs.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct ChildRun {
    double seconds = 0;
    long peakKiB = 0; // ru_maxrss
    int exitCode = -1;
};

// Runs arguments[0] with the rest, standard output on /dev/null, and waits.
ChildRun runChild(const std::vector<std::string>& arguments);

// The median of repeated runs' figures.
double median(std::vector<double> values);

} // namespace bench
