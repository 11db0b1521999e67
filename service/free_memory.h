// SPDX-License-Identifier: MIT
// Giving freed heap memory back to the system. After a large request the
// allocator keeps what it freed for later (glibc: 1.3 GiB kept after sixteen
// 15 MiB JSON batches, all of it free); the service runs for months and should
// not stay at its peak. The file is chosen by the build: free_memory_glibc.cpp
// where the C library can trim its heap, free_memory_none.cpp elsewhere.
#pragma once

namespace norva::service {

void returnFreeMemory();

} // namespace norva::service
