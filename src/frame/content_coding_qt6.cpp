// SPDX-License-Identifier: MIT
#include "frame/content_decoder.h"

#include <brotli/decode.h>
#include <zstd.h>

namespace norva {

namespace {

class BrotliDecoder final : public ContentDecoder
{
public:
    BrotliDecoder() : state(BrotliDecoderCreateInstance(nullptr, nullptr, nullptr)) {}
    ~BrotliDecoder() override { BrotliDecoderDestroyInstance(state); }
    BrotliDecoder(const BrotliDecoder&) = delete;
    BrotliDecoder& operator=(const BrotliDecoder&) = delete;

    bool decode(const char* data, qint64 size, QByteArray& decoded) override
    {
        if (size == 0)
            return true;
        if (!state || done)
            return false;
        size_t availableIn = size_t(size);
        auto nextIn = reinterpret_cast<const uint8_t*>(data);
        for (;;) {
            size_t availableOut = 0;
            const BrotliDecoderResult result =
                BrotliDecoderDecompressStream(state, &availableIn, &nextIn, &availableOut, nullptr, nullptr);
            size_t outSize = 0;
            const uint8_t* out = BrotliDecoderTakeOutput(state, &outSize);
            decoded.append(reinterpret_cast<const char*>(out), int(outSize));
            if (result == BROTLI_DECODER_RESULT_SUCCESS) {
                done = true;
                return availableIn == 0;
            }
            if (result == BROTLI_DECODER_RESULT_ERROR)
                return false;
            if (result == BROTLI_DECODER_RESULT_NEEDS_MORE_INPUT)
                return true;
        }
    }

    bool ended() const override { return done; }

private:
    BrotliDecoderState* const state;
    bool done = false;
};

class ZstdDecoder final : public ContentDecoder
{
public:
    ZstdDecoder() : stream(ZSTD_createDStream()) {}
    ~ZstdDecoder() override { ZSTD_freeDStream(stream); }
    ZstdDecoder(const ZstdDecoder&) = delete;
    ZstdDecoder& operator=(const ZstdDecoder&) = delete;

    bool decode(const char* data, qint64 size, QByteArray& decoded) override
    {
        if (!stream)
            return false;
        ZSTD_inBuffer in{data, size_t(size), 0};
        // On while input is left, or output filled the room (more may be held).
        for (bool full = true; in.pos < in.size || full;) {
            const int before = decoded.size();
            decoded.resize(before + int(ZSTD_DStreamOutSize()));
            ZSTD_outBuffer out{decoded.data() + before, ZSTD_DStreamOutSize(), 0};
            const size_t hint = ZSTD_decompressStream(stream, &out, &in);
            decoded.resize(before + int(out.pos));
            full = out.pos == out.size;
            if (ZSTD_isError(hint))
                return false;
            // 0: a frame ended; further frames may follow in the same body.
            frameEnded = hint == 0;
        }
        return true;
    }

    bool ended() const override { return frameEnded; }

private:
    ZSTD_DStream* const stream;
    bool frameEnded = false;
};

} // namespace

QByteArray acceptedEncodings()
{
    return "zstd, br, gzip, deflate";
}

std::unique_ptr<ContentDecoder> decoderFor(const QByteArray& contentEncoding)
{
    const QByteArray coding = contentEncoding.trimmed().toLower();
    if (coding == "gzip" || coding == "deflate")
        return inflater();
    if (coding == "br")
        return std::make_unique<BrotliDecoder>();
    if (coding == "zstd")
        return std::make_unique<ZstdDecoder>();
    return nullptr;
}

} // namespace norva
