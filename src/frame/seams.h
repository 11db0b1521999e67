// Internal seams for tests. Not part of the public header, and never set in
// normal use.
#pragma once

namespace norva {
struct OutgoingRequest;
struct ReceivedReply;
} // namespace norva

namespace norva::seam {

// Points of a call at which a test may throw, to reach the catch clauses.
enum class FaultPoint {
    ArgumentsParsed,    // before any request is built; no temporary application yet
    ApplicationStarted, // right after a temporary application would be built
};

using FaultHook = void (*)(FaultPoint);

// Called at each fault point when set. Tests set it and reset it to nullptr.
void setFaultHook(FaultHook hook);
void reach(FaultPoint point);

// When set, exchanges do not touch the network: the stub answers each request.
// Lets fuzzers drive every operation's request building and reply judging.
using ExchangeStub = ReceivedReply (*)(OutgoingRequest&);
void setExchangeStub(ExchangeStub stub);
ExchangeStub exchangeStub();

} // namespace norva::seam
