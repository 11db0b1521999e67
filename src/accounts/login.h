// SPDX-License-Identifier: MIT
// The login operation, shared by the free function and the object's member.
#pragma once

#include "frame/operation.h"

namespace norva::accounts {

const Operation& loginOperation();

} // namespace norva::accounts
