// SPDX-License-Identifier: MIT
#include "frame/content_decoder.h"

#include <zlib.h>

namespace norva {

namespace {

class Inflater final : public ContentDecoder
{
public:
    Inflater() { open(MAX_WBITS + 32); } // a gzip or zlib header, whichever comes
    ~Inflater() override { inflateEnd(&stream); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    bool decode(const char* data, qint64 size, QByteArray& decoded) override
    {
        if (size == 0)
            return true;
        if (!opened || done)
            return false;
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
        stream.avail_in = uInt(size);
        // On while input is left, or output filled the room (more may be held).
        for (bool full = true; (stream.avail_in > 0 || full) && !done;) {
            const int before = decoded.size();
            decoded.resize(before + int(outputStep));
            stream.next_out = reinterpret_cast<Bytef*>(decoded.data() + before);
            stream.avail_out = uInt(outputStep);
            const int status = inflate(&stream, Z_NO_FLUSH);
            decoded.resize(before + int(outputStep - stream.avail_out));
            full = stream.avail_out == 0;
            if (status == Z_DATA_ERROR && !triedRaw && !inflatedAny) {
                // No wrapper: start again on the same bytes as raw deflate.
                triedRaw = true;
                inflateEnd(&stream);
                open(-MAX_WBITS);
                if (!opened)
                    return false;
                stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
                stream.avail_in = uInt(size);
                continue;
            }
            if (status == Z_STREAM_END)
                done = true;
            else if (status == Z_BUF_ERROR)
                break; // nothing more to do with what came
            else if (status != Z_OK)
                return false;
            inflatedAny = true;
        }
        return stream.avail_in == 0;
    }

    bool ended() const override { return done; }

private:
    static constexpr qint64 outputStep = 64 * 1024;

    void open(int windowBits)
    {
        stream = z_stream{};
        opened = inflateInit2(&stream, windowBits) == Z_OK;
    }

    z_stream stream{};
    bool opened = false;
    bool done = false;
    bool triedRaw = false;
    bool inflatedAny = false;
};

} // namespace

std::unique_ptr<ContentDecoder> inflater()
{
    return std::make_unique<Inflater>();
}

} // namespace norva
