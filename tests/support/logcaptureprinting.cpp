#include <QtTest/QTest>

#include "support/logcapture.h"

char* toString(const LogCapture::Line& line)
{
    return QTest::toString(
        QStringLiteral("%1: %2").arg(LogCapture::levelName(line.level), line.text));
}
