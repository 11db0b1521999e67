#include "frame/seams.h"

namespace norva::seam {

namespace {
FaultHook currentHook = nullptr;
int currentIdleLimitMs = 120 * 1000;
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

} // namespace norva::seam
