// SPDX-License-Identifier: MIT
#include "spare_descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace norva::service {

namespace {

int spare = -1;

} // namespace

SpareDescriptor::SpareDescriptor()
{
    take();
}

SpareDescriptor::~SpareDescriptor()
{
    release();
}

void SpareDescriptor::release()
{
    if (spare >= 0)
        ::close(spare);
    spare = -1;
}

void SpareDescriptor::take()
{
    if (spare < 0)
        spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool outOfDescriptors(int errorValue)
{
    return errorValue == EMFILE || errorValue == ENFILE || errorValue == ENOBUFS || errorValue == ENOMEM;
}

} // namespace norva::service
