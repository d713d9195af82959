#include "support/firmwareimagebytes.h"

namespace {

constexpr int kBlock = 64;

}  // namespace

// xorshift32: cheap, and nothing like the frames' own structure.
QByteArray imageBytes(int size, quint32 seed)
{
    quint32 state = seed;
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<char>(state >> 24);
    }
    return bytes;
}

QByteArray padded(const QByteArray& image)
{
    const int blocks = (image.size() + kBlock - 1) / kBlock;
    return image + QByteArray(blocks * kBlock - image.size(), char(0xFF));
}
