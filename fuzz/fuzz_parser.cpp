// Feeds arbitrary bytes to the frame parser in chunks whose boundaries also come from the
// input, and stops hard on the first byte that is lost, duplicated, reordered or turned
// into a frame that does not re-encode to exactly the bytes it came from.
//
// Input layout: the first byte says how many of the following bytes are chunk sizes
// (0..15, low four bits); each chunk size byte gives a chunk of 1..64 bytes; the rest is
// the stream. Chunk sizes are used cyclically; with none the stream goes in as one call.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <QByteArray>

#include "support/recordingparser.h"

namespace {

[[noreturn]] void violated(const QString& what)
{
    std::fprintf(stderr, "parser invariant violated: %s\n", qPrintable(what));
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::size_t sizeCount = std::min<std::size_t>(data[0] & 0x0F, size - 1);
    const uint8_t* sizes = data + 1;
    const auto* stream = reinterpret_cast<const char*>(data + 1 + sizeCount);
    const auto streamSize = static_cast<int>(size - 1 - sizeCount);

    RecordingParser parser;
    int offset = 0;
    std::size_t next = 0;
    while (offset < streamSize) {
        int chunk = streamSize - offset;
        if (sizeCount > 0) {
            chunk = std::min(chunk, 1 + (sizes[next % sizeCount] & 0x3F));
            ++next;
        }
        parser.feed(QByteArray(stream + offset, chunk));
        offset += chunk;
        if (!parser.error().isEmpty()) {
            violated(parser.error());
        }
        if (parser.pendingSize() > 25) {
            violated(QStringLiteral("%1 bytes pending").arg(parser.pendingSize()));
        }
    }

    // Every input byte is in one place, in order: the frames and the bad bytes interleave
    // to the consumed part (checked call by call above), and together with the pending
    // rest they add up to the whole input.
    const QByteArray input(stream, streamSize);
    if (parser.input() != input) {
        violated(QStringLiteral("recorded input differs"));
    }
    if (parser.deliveredFrames().size() + parser.badData().size() + parser.pendingSize() !=
        input.size()) {
        violated(QStringLiteral("byte count does not add up"));
    }
    if (parser.pending() != input.right(parser.pendingSize())) {
        violated(QStringLiteral("pending bytes are not the input's tail"));
    }
    return 0;
}
