// SPDX-License-Identifier: MIT
// One file descriptor held in reserve. When the process has run out of them,
// the accept loop gives this one up for a moment: it takes the waiting
// connection, answers it 503 and closes it, and so stays alive rather than
// spinning on (or giving up at) "too many open files". One file per platform,
// chosen by the build: spare_descriptor_posix.cpp, spare_descriptor_none.cpp.
#pragma once

namespace norva::service {

class SpareDescriptor
{
public:
    SpareDescriptor(); // takes one
    ~SpareDescriptor();
    SpareDescriptor(const SpareDescriptor&) = delete;
    SpareDescriptor& operator=(const SpareDescriptor&) = delete;

    // Gives it up, so that one more can be opened; take() it back after.
    void release();
    void take();
};

// Whether an accept failed for want of descriptors (the process's or the
// system's), as opposed to a closed acceptor or a connection gone before it
// was taken.
bool outOfDescriptors(int errorValue);

} // namespace norva::service
