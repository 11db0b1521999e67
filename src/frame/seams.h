// SPDX-License-Identifier: MIT
// Internal seams for tests. Not part of the public header, and never set in
// normal use.
#pragma once

namespace norva {
struct OutgoingRequest;
struct ReceivedReply;
} // namespace norva

namespace norva::seam {

// When set, exchanges do not touch the network: the stub answers each request.
// Lets fuzzers drive every operation's request building and reply judging.
using ExchangeStub = ReceivedReply (*)(OutgoingRequest&);
void setExchangeStub(ExchangeStub stub);
ExchangeStub exchangeStub();

} // namespace norva::seam
