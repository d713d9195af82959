#include <QtGlobal>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QTextCodec>
#endif
#include <QtTest/QtTest>
#include <functional>
#include <memory>

#include "base/logger.h"
#include "base/settings.h"
#include "support/logcapture.h"

using namespace Velmora::Worksurface;

namespace {

using LogOperation = void (Logger::*)(const QString&) const;

}  // namespace

Q_DECLARE_METATYPE(LogOperation)

class TestLogger : public QObject
{
    Q_OBJECT

private slots:
    void eachOperationWritesOneLineOfItsLevel_data();
    void eachOperationWritesOneLineOfItsLevel();
    void debugIsSuppressedWhileDebugIsDisabled();
    void otherLevelsAreWrittenWhileDebugIsDisabled_data();
    void otherLevelsAreWrittenWhileDebugIsDisabled();
    void debugFollowsTheSwitchAtTheTimeOfTheCall();
    void nothingIsAddedToTheText_data();
    void nothingIsAddedToTheText();
    void nonAsciiTextRoundTripsThroughTheLocalEncoding();
};

void TestLogger::eachOperationWritesOneLineOfItsLevel_data()
{
    QTest::addColumn<LogOperation>("operation");
    QTest::addColumn<int>("level");
    QTest::newRow("debug") << &Logger::debug << int(QtDebugMsg);
    QTest::newRow("critical") << &Logger::critical << int(QtCriticalMsg);
    QTest::newRow("info") << &Logger::info << int(QtInfoMsg);
    QTest::newRow("warning") << &Logger::warning << int(QtWarningMsg);
}

void TestLogger::eachOperationWritesOneLineOfItsLevel()
{
    QFETCH(LogOperation, operation);
    QFETCH(int, level);
    const Logger logger(std::make_shared<Settings>());

    LogCapture log;
    (logger.*operation)("Section 1: link restarted");
    QCOMPARE(log.lines(),
             QList<LogCapture::Line>({{QtMsgType(level), "Section 1: link restarted"}}));
}

void TestLogger::debugIsSuppressedWhileDebugIsDisabled()
{
    auto settings = std::make_shared<Settings>();
    settings->setDebugEnabled(false);
    const Logger logger(settings);

    LogCapture log;
    logger.debug("Ping sent");
    QCOMPARE(log.lines().size(), 0);
}

void TestLogger::otherLevelsAreWrittenWhileDebugIsDisabled_data()
{
    QTest::addColumn<LogOperation>("operation");
    QTest::addColumn<int>("level");
    QTest::newRow("critical") << &Logger::critical << int(QtCriticalMsg);
    QTest::newRow("info") << &Logger::info << int(QtInfoMsg);
    QTest::newRow("warning") << &Logger::warning << int(QtWarningMsg);
}

void TestLogger::otherLevelsAreWrittenWhileDebugIsDisabled()
{
    QFETCH(LogOperation, operation);
    QFETCH(int, level);
    auto settings = std::make_shared<Settings>();
    settings->setDebugEnabled(false);
    const Logger logger(settings);

    LogCapture log;
    (logger.*operation)("Serial port error");
    QCOMPARE(log.lines(), QList<LogCapture::Line>({{QtMsgType(level), "Serial port error"}}));
}

void TestLogger::debugFollowsTheSwitchAtTheTimeOfTheCall()
{
    auto settings = std::make_shared<Settings>();
    const Logger logger(settings);

    LogCapture log;
    logger.debug("one");
    settings->setDebugEnabled(false);
    logger.debug("two");
    settings->setDebugEnabled(true);
    logger.debug("three");
    QCOMPARE(log.texts(QtDebugMsg), QStringList({"one", "three"}));
}

void TestLogger::nothingIsAddedToTheText_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QString();
    QTest::newRow("blanks around") << QString("  padded  ");
    QTest::newRow("format directives") << QString("100% %s %d %1 %%");
    QTest::newRow("quotes") << QString("Path: \"x\"");
    QTest::newRow("trailing newline") << QString("line\n");
    QTest::newRow("WS UPDATER prefix") << QString("WS UPDATER: Section 2 updated");
}

void TestLogger::nothingIsAddedToTheText()
{
    QFETCH(QString, text);
    const Logger logger(std::make_shared<Settings>());

    LogCapture log;
    logger.debug(text);
    logger.critical(text);
    logger.info(text);
    logger.warning(text);
    QCOMPARE(
        log.lines(),
        QList<LogCapture::Line>(
            {{QtDebugMsg, text}, {QtCriticalMsg, text}, {QtInfoMsg, text}, {QtWarningMsg, text}}));
}

void TestLogger::nonAsciiTextRoundTripsThroughTheLocalEncoding()
{
    // The console's board runs a UTF-8 locale; pin it so that the test does not depend on
    // the locale of the machine it runs on. Qt 6's local 8-bit encoding is always UTF-8.
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QTextCodec* previous = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
#endif
    const QString text = QString::fromUtf8(
        "Fader 3: \xe2\x88\x92"
        "6 dB, Gr\xc3\xbc\xc3\x9f"
        "e \xe6\x97\xa5\xe6\x9c\xac");
    const Logger logger(std::make_shared<Settings>());

    LogCapture log;
    logger.warning(text);
    logger.debug(text);
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QTextCodec::setCodecForLocale(previous);
#endif
    QCOMPARE(log.texts(), QStringList({text, text}));
}

QTEST_GUILESS_MAIN(TestLogger)
#include "tst_logger.moc"
