#include "frame/seams.h"

namespace norva::seam {

namespace {
FaultHook currentHook = nullptr;
int currentIdleLimitMs = 120 * 1000;
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

int idleLimitMs()
{
    return currentIdleLimitMs;
}

void setIdleLimitMs(int milliseconds)
{
    currentIdleLimitMs = milliseconds;
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
