#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

// The flash command's progress bar on a terminal: one line redrawn in place with percent,
// bytes of total, rate and time left, e.g.
//   section 0  [############--------]  60 %  1536/2560 bytes  12.0 KiB/s  0:01 left
class ProgressBar
{
public:
    static constexpr int kWidth = 20;

    // The line for a state of the transfer (without carriage return or line end).
    static QString line(int section, int percent, qint64 bytes, qint64 total, qint64 elapsedMs);
};
