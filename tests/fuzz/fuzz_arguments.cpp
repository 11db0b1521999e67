// SPDX-License-Identifier: MIT
// Feeds arbitrary text as the argument document of every operation. The
// exchange is stubbed, so the requests are built in full but never sent; the
// stub's answers store no file.
#include "operations.h"

#include "frame/exchange.h"
#include "frame/seams.h"

#include <QCoreApplication>

#include <cstdint>

namespace {

norva::ReceivedReply answer(norva::OutgoingRequest& outgoing)
{
    norva::ReceivedReply reply;
    const QString path = outgoing.request.url().path();
    // Downloads get answers that write nothing: 402 and the mall's 204.
    if (path.endsWith(QLatin1String("/downloadFile"))) {
        reply.httpStatus = path.startsWith(QLatin1String("/mall/")) ? 204 : 402;
        return reply;
    }
    reply.httpStatus = 200;
    reply.body = R"({"code":200,"msg":"fuzz","data":[1]})";
    return reply;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    norva::seam::setExchangeStub(answer);
    fuzzing::silenceStandardOutput();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string argument(reinterpret_cast<const char*>(data), size);
    static const std::vector<fuzzing::Operation> operations = fuzzing::allOperations();
    for (const fuzzing::Operation operation : operations) {
        const std::string result = operation(argument);
        // Every outcome is a result document.
        if (result.empty() || result.front() != '{' || result.find("\"status\":") == std::string::npos)
            __builtin_trap();
    }
    return 0;
}
