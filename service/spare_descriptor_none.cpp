// SPDX-License-Identifier: MIT
// Where the service does not run (Windows builds only the tests' scripted
// service on this layer): nothing is held in reserve.
#include "spare_descriptor.h"

namespace norva::service {

SpareDescriptor::SpareDescriptor() = default;
SpareDescriptor::~SpareDescriptor() = default;
void SpareDescriptor::release() {}
void SpareDescriptor::take() {}

bool outOfDescriptors(int)
{
    return false;
}

} // namespace norva::service
