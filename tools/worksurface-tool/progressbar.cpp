#include "progressbar.h"

#include <QtGlobal>

QString ProgressBar::line(int section, int percent, qint64 bytes, qint64 total, qint64 elapsedMs)
{
    const int clamped = qBound(0, percent, 100);
    const int filled = clamped * kWidth / 100;
    const QString bar = QString(filled, '#') + QString(kWidth - filled, '-');
    QString rate = QStringLiteral("-- KiB/s");
    QString left = QStringLiteral("-:--");
    if (elapsedMs > 0 && bytes > 0) {
        const double bytesPerSecond = static_cast<double>(bytes) * 1000.0 / elapsedMs;
        rate = QStringLiteral("%1 KiB/s").arg(bytesPerSecond / 1024.0, 0, 'f', 1);
        const qint64 seconds = static_cast<qint64>(
            static_cast<double>(qMax<qint64>(total - bytes, 0)) / bytesPerSecond + 0.5);
        left = QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QChar('0'));
    }
    return QStringLiteral("section %1  [%2] %3 %  %4/%5 bytes  %6  %7 left")
        .arg(section)
        .arg(bar)
        .arg(clamped, 3)
        .arg(bytes)
        .arg(total)
        .arg(rate, left);
}
