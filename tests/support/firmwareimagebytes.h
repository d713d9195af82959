#pragma once

#include <QByteArray>
#include <QtGlobal>

// A firmware image of pseudo-random bytes, the same for the same seed: what the updater
// sends and the bootloader stores is then checked byte for byte.
QByteArray imageBytes(int size, quint32 seed);

// What the bootloader stores of an image: whole 64-byte blocks, the last padded with 0xFF.
QByteArray padded(const QByteArray& image);
