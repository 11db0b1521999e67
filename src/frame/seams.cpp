#include "frame/seams.h"

namespace norva::seam {

namespace {
FaultHook currentHook = nullptr;
ExchangeStub currentStub = nullptr;
} // namespace

void setFaultHook(FaultHook hook)
{
    currentHook = hook;
}

void reach(FaultPoint point)
{
    if (currentHook)
        currentHook(point);
}

void setExchangeStub(ExchangeStub stub)
{
    currentStub = stub;
}

ExchangeStub exchangeStub()
{
    return currentStub;
}

} // namespace norva::seam
