// SPDX-License-Identifier: MIT
#include "frame/seams.h"

namespace norva::seam {

namespace {
ExchangeStub currentStub = nullptr;
} // namespace

void setExchangeStub(ExchangeStub stub)
{
    currentStub = stub;
}

ExchangeStub exchangeStub()
{
    return currentStub;
}

} // namespace norva::seam
