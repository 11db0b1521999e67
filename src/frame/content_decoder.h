// SPDX-License-Identifier: MIT
// Undoing a reply's Content-Encoding, for the exchange that reads a download on
// a socket of its own. It asks for what Qt's manager asks for (which differs
// between Qt lines: content_coding_qt5.cpp, content_coding_qt6.cpp) and so must
// decode all of it, as the manager would.
#pragma once

#include <QByteArray>

#include <memory>

namespace norva {

class ContentDecoder
{
public:
    virtual ~ContentDecoder() = default;
    // Appends what `size` coded bytes decode to; false when they are no valid
    // coding (or come after its end).
    virtual bool decode(const char* data, qint64 size, QByteArray& decoded) = 0;
    // Whether the coded stream ended: a body that stops before is cut short.
    virtual bool ended() const = 0;
};

// The Accept-Encoding text this Qt line's manager sends.
QByteArray acceptedEncodings();

// The decoder for a reply's Content-Encoding; null where the manager passes the
// body on as it came: none, "identity", or a coding it did not ask for.
std::unique_ptr<ContentDecoder> decoderFor(const QByteArray& contentEncoding);

// zlib's inflate for "gzip" and "deflate"; a "deflate" body without zlib's
// wrapper is taken too, as some services send it so and Qt accepts it.
std::unique_ptr<ContentDecoder> inflater();

} // namespace norva
