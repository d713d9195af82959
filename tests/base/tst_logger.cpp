#include <QtGlobal>
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QTextCodec>
#endif
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest/QtTest>
#include <functional>
#include <memory>

#include "base/logcategories.h"
#include "base/logger.h"
#include "base/settings.h"
#include "support/logcapture.h"

using namespace Velmora::Worksurface;

namespace {

using LogOperation = void (Logger::*)(const QString&) const;

struct Area
{
    const char* name;
    const QLoggingCategory& (*category)();
};

// Every area of the plugin, in the order the lines of these tests are written.
const Area kAreas[] = {
    {"tarvix.worksurface.link", lcLink},         {"tarvix.worksurface.updater", lcUpdater},
    {"tarvix.worksurface.surface", lcSurface},   {"tarvix.worksurface.bindings", lcBindings},
    {"tarvix.worksurface.software", lcSoftware}, {"tarvix.worksurface.service", lcService},
};

// One line of each level in every area: "<area> <level>".
void writeEveryLevelInEveryArea(const std::shared_ptr<Settings>& settings)
{
    for (const Area& area : kAreas) {
        const Logger logger(settings, area.category());
        const QString name = QString::fromLatin1(area.name);
        logger.debug(name + " debug");
        logger.info(name + " info");
        logger.warning(name + " warning");
        logger.critical(name + " critical");
    }
}

QStringList describeEveryLevelInEveryArea(const QString& exceptArea, const QString& exceptLevel)
{
    QStringList result;
    for (const Area& area : kAreas) {
        const QString name = QString::fromLatin1(area.name);
        for (const char* level : {"debug", "info", "warning", "critical"}) {
            const QString levelName = QString::fromLatin1(level);
            if (name == exceptArea && (exceptLevel.isEmpty() || exceptLevel == levelName)) {
                continue;
            }
            result << QStringLiteral("%1 %2: %1 %2").arg(name, levelName);
        }
    }
    return result;
}

// The rules an application sets last for as long as the process; each test that sets
// some takes them away again, so that the next test starts from Qt's defaults.
class FilterRules
{
public:
    explicit FilterRules(const QString& rules) { QLoggingCategory::setFilterRules(rules); }
    ~FilterRules() { QLoggingCategory::setFilterRules(QString()); }
    FilterRules(const FilterRules&) = delete;
    FilterRules& operator=(const FilterRules&) = delete;
};

// Set in the environment of the child process the routing test starts: the program then
// writes one line of each level in every area through Qt's own message handler and exits,
// instead of running the tests. "debug-off": with the debug switch off.
constexpr const char* kChildVariable = "TARVIX_LOGGER_TEST_CHILD";

int writeEveryAreaAsAChild()
{
    auto settings = std::make_shared<Settings>();
    settings->setDebugEnabled(qgetenv(kChildVariable) != "debug-off");
    for (const Area& area : kAreas) {
        const Logger logger(settings, area.category());
        const QString name = QString::fromLatin1(area.name);
        logger.debug(name + " debug");
        logger.info(name + " info");
        logger.warning(name + " warning");
    }
    return 0;
}

// The lines the child writes: "<area> <level>" for each level and area that passes, as
// Qt's default message pattern prints them ("<category>: <text>"), or with the pattern
// "%{category} %{type}: %{message}".
QStringList childLines(const std::function<bool(const QString&, const QString&)>& passes,
                       bool namedPattern)
{
    QStringList result;
    for (const Area& area : kAreas) {
        const QString name = QString::fromLatin1(area.name);
        for (const char* level : {"debug", "info", "warning"}) {
            const QString levelName = QString::fromLatin1(level);
            if (!passes(name, levelName)) {
                continue;
            }
            result << (namedPattern ? QStringLiteral("%1 %2: %1 %2") : QStringLiteral("%1: %1 %2"))
                          .arg(name, levelName);
        }
    }
    return result;
}

QStringList g_handledCategories;

void recordCategory(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(type);
    Q_UNUSED(message);
    g_handledCategories << QString::fromLatin1(context.category ? context.category : "(none)");
}

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
    void aLoggerWithoutAnAreaWritesInTheServiceCategory();
    void inCategoryKeepsTheDebugSwitch();
    void ruleTurningOneCategoryOffRemovesExactlyItsLines_data();
    void ruleTurningOneCategoryOffRemovesExactlyItsLines();
    void ruleTurningOneLevelOfOneCategoryOffRemovesOnlyThoseLines();
    void debugDisabledSilencesDebugLinesInEveryCategory();
    void applicationMessageHandlerSeesEachLinesCategoryName();
    void rulesInTheEnvironmentDecideWhichLinesAChildProcessPrints_data();
    void rulesInTheEnvironmentDecideWhichLinesAChildProcessPrints();
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

void TestLogger::aLoggerWithoutAnAreaWritesInTheServiceCategory()
{
    const Logger logger(std::make_shared<Settings>());

    LogCapture log;
    logger.info("Surface connected");
    QCOMPARE(log.categories(), QStringList({"tarvix.worksurface.service"}));
}

void TestLogger::inCategoryKeepsTheDebugSwitch()
{
    auto settings = std::make_shared<Settings>();
    const Logger service(settings);
    const std::shared_ptr<Logger> updater = service.inCategory(lcUpdater());
    QCOMPARE(updater->category().categoryName(), "tarvix.worksurface.updater");

    LogCapture log;
    updater->debug("one");
    settings->setDebugEnabled(false);
    updater->debug("two");
    service.info("three");
    QCOMPARE(log.described(), QStringList({"tarvix.worksurface.updater debug: one",
                                           "tarvix.worksurface.service info: three"}));
}

void TestLogger::ruleTurningOneCategoryOffRemovesExactlyItsLines_data()
{
    QTest::addColumn<QString>("area");
    for (const Area& area : kAreas) {
        QTest::newRow(area.name) << QString::fromLatin1(area.name);
    }
}

void TestLogger::ruleTurningOneCategoryOffRemovesExactlyItsLines()
{
    QFETCH(QString, area);
    const FilterRules rules(area + "=false");

    LogCapture log;
    writeEveryLevelInEveryArea(std::make_shared<Settings>());
    QCOMPARE(log.described(), describeEveryLevelInEveryArea(area, QString()));
}

void TestLogger::ruleTurningOneLevelOfOneCategoryOffRemovesOnlyThoseLines()
{
    // The bench's way to quiet the updater's progress while the link's chatter stays.
    const FilterRules rules("tarvix.worksurface.updater.debug=false");

    LogCapture log;
    writeEveryLevelInEveryArea(std::make_shared<Settings>());
    QCOMPARE(log.described(), describeEveryLevelInEveryArea("tarvix.worksurface.updater", "debug"));
}

void TestLogger::debugDisabledSilencesDebugLinesInEveryCategory()
{
    // A rule that asks for debug lines does not override the plugin's own switch.
    const FilterRules rules("tarvix.worksurface.*.debug=true");
    auto settings = std::make_shared<Settings>();
    settings->setDebugEnabled(false);

    LogCapture log;
    writeEveryLevelInEveryArea(settings);
    QStringList expected;
    for (const Area& area : kAreas) {
        const QString name = QString::fromLatin1(area.name);
        for (const char* level : {"info", "warning", "critical"}) {
            expected << QStringLiteral("%1 %2: %1 %2").arg(name, QString::fromLatin1(level));
        }
    }
    QCOMPARE(log.described(), expected);
}

void TestLogger::applicationMessageHandlerSeesEachLinesCategoryName()
{
    g_handledCategories.clear();
    const QtMessageHandler previous = qInstallMessageHandler(recordCategory);
    const auto settings = std::make_shared<Settings>();
    for (const Area& area : kAreas) {
        const Logger logger(settings, area.category());
        logger.debug("d");
        logger.warning("w");
    }
    qInstallMessageHandler(previous);

    QStringList expected;
    for (const Area& area : kAreas) {
        expected << QString::fromLatin1(area.name) << QString::fromLatin1(area.name);
    }
    QCOMPARE(g_handledCategories, expected);
}

void TestLogger::rulesInTheEnvironmentDecideWhichLinesAChildProcessPrints_data()
{
    QTest::addColumn<QByteArray>("rules");
    QTest::addColumn<QByteArray>("pattern");
    QTest::addColumn<QByteArray>("mode");
    QTest::addColumn<QStringList>("expected");
    const auto all = [](const QString&, const QString&) { return true; };
    const auto linkOnly = [](const QString& area, const QString&) {
        return area == QLatin1String("tarvix.worksurface.link");
    };
    const auto noUpdaterDebug = [](const QString& area, const QString& level) {
        return area != QLatin1String("tarvix.worksurface.updater") ||
               level != QLatin1String("debug");
    };
    const auto noDebug = [](const QString&, const QString& level) {
        return level != QLatin1String("debug");
    };
    const QByteArray on("debug-on");
    QTest::newRow("no rules") << QByteArray() << QByteArray() << on << childLines(all, false);
    // The rules of docs/logging.md, as a console's start script sets them.
    QTest::newRow("everything") << QByteArray("tarvix.worksurface.*=true") << QByteArray() << on
                                << childLines(all, false);
    QTest::newRow("only the link")
        << QByteArray("tarvix.worksurface.*=false\ntarvix.worksurface.link=true") << QByteArray()
        << on << childLines(linkOnly, false);
    QTest::newRow("rules separated by a semicolon")
        << QByteArray("tarvix.worksurface.*=false;tarvix.worksurface.link=true") << QByteArray()
        << on << childLines(linkOnly, false);
    QTest::newRow("updater without its debug lines")
        << QByteArray("tarvix.worksurface.updater.debug=false") << QByteArray() << on
        << childLines(noUpdaterDebug, false);
    QTest::newRow("in the field") << QByteArray("tarvix.worksurface.*.debug=false")
                                  << QByteArray("%{category} %{type}: %{message}") << on
                                  << childLines(noDebug, true);
    // A rule that asks for debug lines does not override the plugin's own switch.
    QTest::newRow("debug switch off")
        << QByteArray("tarvix.worksurface.*.debug=true") << QByteArray() << QByteArray("debug-off")
        << childLines(noDebug, false);
}

void TestLogger::rulesInTheEnvironmentDecideWhichLinesAChildProcessPrints()
{
#ifdef TARVIX_EMULATED_RUN
    QSKIP("Child processes do not run under user-mode emulation");
#endif
    QFETCH(QByteArray, rules);
    QFETCH(QByteArray, pattern);
    QFETCH(QByteArray, mode);
    QFETCH(QStringList, expected);
    // No qtlogging.ini of the user's or the machine's takes part.
    QTemporaryDir config;
    QVERIFY(config.isValid());

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"QT_LOGGING_RULES", "QT_LOGGING_CONF", "QT_MESSAGE_PATTERN"}) {
        environment.remove(QString::fromLatin1(name));
    }
    if (!rules.isEmpty()) {
        environment.insert(QStringLiteral("QT_LOGGING_RULES"), QString::fromLatin1(rules));
    }
    if (!pattern.isEmpty()) {
        environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QString::fromLatin1(pattern));
    }
    // Qt's handler writes to standard error, not to a system log, although it is a pipe.
    environment.insert(QStringLiteral("QT_FORCE_STDERR_LOGGING"), QStringLiteral("1"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), config.path());
    environment.insert(QStringLiteral("XDG_CONFIG_DIRS"), config.path());
    environment.insert(QString::fromLatin1(kChildVariable), QString::fromLatin1(mode));

    QProcess child;
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    QVERIFY2(child.waitForFinished(30000), qPrintable(child.errorString()));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), 0);
    QCOMPARE(child.readAllStandardOutput(), QByteArray());
    const QStringList printed =
        QString::fromLocal8Bit(child.readAllStandardError()).split(QLatin1Char('\n'));
    QCOMPARE(printed, expected + QStringList{QString()});
}

// The test program doubles as the child process of the routing test.
int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsSet(kChildVariable)) {
        return writeEveryAreaAsAChild();
    }
    TestLogger test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_logger.moc"
