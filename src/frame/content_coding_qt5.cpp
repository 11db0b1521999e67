// SPDX-License-Identifier: MIT
#include "frame/content_decoder.h"

namespace norva {

QByteArray acceptedEncodings()
{
    return "gzip, deflate";
}

std::unique_ptr<ContentDecoder> decoderFor(const QByteArray& contentEncoding)
{
    const QByteArray coding = contentEncoding.trimmed().toLower();
    if (coding == "gzip" || coding == "deflate")
        return inflater();
    return nullptr;
}

} // namespace norva
