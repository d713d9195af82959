#include <QDir>
#include <QFile>
#include <QSet>
#include <QtTest/QtTest>
#include <atomic>
#include <cstdint>
#include <thread>

#include "base/settings.h"
#include "qml/surfacesettings.h"
#include "support/firmwarehome.h"
#include "support/logcapture.h"

using namespace Velmora::Worksurface;

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void startsAsHardwareWithoutModelAndDebugOn();
    void debugEnabledIsTrueBeforeAnythingSetsIt();
    void settersStoreTheirFields();
    void settersKeepValuesOutsideTheEnumerations();
    void fixedCountsDoNotDependOnTheMode_data();
    void fixedCountsDoNotDependOnTheMode();
    void sectionCountAndMasterFollowTheMode_data();
    void sectionCountAndMasterFollowTheMode();
    void settingTypeNeverChangesTheSectionCount();
    void serialPortNameFollowsModeAndSection_data();
    void serialPortNameFollowsModeAndSection();
    void k40UsesSecondAndThirdDevicesAndNothingForSection2();
    void k60SectionIndex5FallsBackToTheFirstDevice();
    void unknownModeGivesNoSectionsNoMasterNoPortsAndNoMessage();
    void valuesWrittenFromQmlAreReadSafelyByTheLinksThread();

    void firmwareInHomeFolderWinsOverTheResource();
    void firmwareFromResourceWhenHomeFolderHasNone();
    void firmwarePathIsEmptyWhenNeitherExistsAndNothingIsLogged();
    void firmwarePathIsAbsoluteForARelativeHomeFolder();

private:
    QString m_savedCurrent;
};

void TestSettings::init()
{
    m_savedCurrent = QDir::currentPath();
}

void TestSettings::cleanup()
{
    QDir::setCurrent(m_savedCurrent);
}

void TestSettings::startsAsHardwareWithoutModelAndDebugOn()
{
    Settings settings;
    QCOMPARE(settings.type(), uint8_t(SurfaceSettings::Hardware));
    QCOMPARE(settings.mode(), uint8_t(SurfaceSettings::Unknown));
    QCOMPARE(settings.debugEnabled(), true);
    QCOMPARE(settings.sectionCount(), uint8_t(0));
}

void TestSettings::debugEnabledIsTrueBeforeAnythingSetsIt()
{
    Settings settings;
    settings.setType(1);
    settings.setMode(2);
    QCOMPARE(settings.debugEnabled(), true);
}

void TestSettings::settersStoreTheirFields()
{
    Settings settings;
    settings.setType(1);
    settings.setMode(2);
    settings.setDebugEnabled(false);
    QCOMPARE(settings.type(), uint8_t(1));
    QCOMPARE(settings.mode(), uint8_t(2));
    QCOMPARE(settings.debugEnabled(), false);

    settings.setDebugEnabled(true);
    QCOMPARE(settings.debugEnabled(), true);
}

void TestSettings::settersKeepValuesOutsideTheEnumerations()
{
    Settings settings;
    settings.setType(200);
    settings.setMode(7);
    QCOMPARE(settings.type(), uint8_t(200));
    QCOMPARE(settings.mode(), uint8_t(7));
}

void TestSettings::fixedCountsDoNotDependOnTheMode_data()
{
    QTest::addColumn<quint8>("mode");
    QTest::newRow("Unknown") << quint8(0);
    QTest::newRow("K40") << quint8(1);
    QTest::newRow("K60") << quint8(2);
    QTest::newRow("3") << quint8(3);
    QTest::newRow("255") << quint8(255);
}

void TestSettings::fixedCountsDoNotDependOnTheMode()
{
    QFETCH(quint8, mode);
    Settings settings;
    settings.setMode(mode);
    QCOMPARE(settings.maxResendCount(), uint8_t(5));
    QCOMPARE(settings.stripCount(), uint8_t(10));
    QCOMPARE(settings.sideRotaryCount(), uint8_t(6));
    QCOMPARE(settings.masterStripCount(), uint8_t(1));
}

void TestSettings::sectionCountAndMasterFollowTheMode_data()
{
    QTest::addColumn<quint8>("mode");
    QTest::addColumn<quint8>("sections");
    QTest::addColumn<quint8>("master");
    QTest::newRow("Unknown") << quint8(0) << quint8(0) << quint8(255);
    QTest::newRow("K40") << quint8(1) << quint8(2) << quint8(1);
    QTest::newRow("K60") << quint8(2) << quint8(3) << quint8(2);
    QTest::newRow("3") << quint8(3) << quint8(0) << quint8(255);
    QTest::newRow("128") << quint8(128) << quint8(0) << quint8(255);
    QTest::newRow("255") << quint8(255) << quint8(0) << quint8(255);
}

void TestSettings::sectionCountAndMasterFollowTheMode()
{
    QFETCH(quint8, mode);
    QFETCH(quint8, sections);
    QFETCH(quint8, master);
    Settings settings;
    settings.setMode(mode);
    QCOMPARE(settings.sectionCount(), sections);
    QCOMPARE(settings.masterSectionIndex(), master);
}

void TestSettings::settingTypeNeverChangesTheSectionCount()
{
    Settings settings;
    for (quint8 mode : {0, 1, 2}) {
        settings.setMode(mode);
        const uint8_t sections = settings.sectionCount();
        const uint8_t master = settings.masterSectionIndex();
        for (quint8 type : {1, 0, 9}) {
            settings.setType(type);
            QCOMPARE(settings.sectionCount(), sections);
            QCOMPARE(settings.masterSectionIndex(), master);
        }
    }
}

void TestSettings::serialPortNameFollowsModeAndSection_data()
{
    QTest::addColumn<quint8>("mode");
    QTest::addColumn<quint8>("section");
    QTest::addColumn<QString>("port");

    const QString none;
    const QString mxc0 = "/dev/ttymxc0";
    const QString mxc1 = "/dev/ttymxc1";
    const QString mxc2 = "/dev/ttymxc2";
    const quint8 sections[] = {0, 1, 2, 3, 4, 5, 255};
    const QString k40[] = {mxc1, mxc2, none, none, none, none, none};
    const QString k60[] = {mxc0, mxc1, mxc2, mxc0, mxc0, mxc0, mxc0};
    for (int i = 0; i < 7; ++i) {
        const quint8 s = sections[i];
        QTest::addRow("Unknown, %d", s) << quint8(0) << s << none;
        QTest::addRow("K40, %d", s) << quint8(1) << s << k40[i];
        QTest::addRow("K60, %d", s) << quint8(2) << s << k60[i];
        QTest::addRow("mode 3, %d", s) << quint8(3) << s << none;
        QTest::addRow("mode 255, %d", s) << quint8(255) << s << none;
    }
}

void TestSettings::serialPortNameFollowsModeAndSection()
{
    QFETCH(quint8, mode);
    QFETCH(quint8, section);
    QFETCH(QString, port);
    Settings settings;
    settings.setMode(mode);
    QCOMPARE(settings.serialPortName(section), port);
}

void TestSettings::k40UsesSecondAndThirdDevicesAndNothingForSection2()
{
    Settings settings;
    settings.setMode(SurfaceSettings::K40);
    QCOMPARE(settings.serialPortName(0), QStringLiteral("/dev/ttymxc1"));
    QCOMPARE(settings.serialPortName(1), QStringLiteral("/dev/ttymxc2"));
    QVERIFY(settings.serialPortName(2).isEmpty());
}

void TestSettings::k60SectionIndex5FallsBackToTheFirstDevice()
{
    Settings settings;
    settings.setMode(SurfaceSettings::K60);
    QCOMPARE(settings.serialPortName(5), QStringLiteral("/dev/ttymxc0"));
}

void TestSettings::unknownModeGivesNoSectionsNoMasterNoPortsAndNoMessage()
{
    LogCapture log;
    Settings settings;
    settings.setMode(SurfaceSettings::Unknown);
    QCOMPARE(settings.sectionCount(), uint8_t(0));
    QCOMPARE(settings.masterSectionIndex(), uint8_t(255));
    for (int section = 0; section < 256; ++section) {
        QVERIFY(settings.serialPortName(uint8_t(section)).isEmpty());
    }
    QCOMPARE(log.lines().size(), 0);
}

// With the links on their own thread, the logger, the updater, a reopening port and a trace
// read the type, the model and the debug switch there while QML may write them. Both sides
// start together and overlap for certain; ThreadSanitizer (make tsan) reports any field
// that is not safe to share.
void TestSettings::valuesWrittenFromQmlAreReadSafelyByTheLinksThread()
{
    constexpr int kRounds = 2000;
    Settings settings;
    std::atomic<int> ready{0};
    std::atomic<int> reads{0};
    // The port names section 0 has in each model, read before the threads start.
    QSet<QString> portNames;
    for (uint8_t mode = 0; mode <= 2; ++mode) {
        settings.setMode(mode);
        portNames.insert(settings.serialPortName(0));
    }
    QSet<QString> portNamesRead;
    // Kept so that the debug switch's reads are not optimised away; its value is either.
    std::atomic<int> debugSeen{0};
    std::thread links([&]() {
        ready.fetch_add(1);
        while (ready.load() < 2) {
            std::this_thread::yield();
        }
        for (int i = 0; i < kRounds; ++i) {
            const uint8_t type = settings.type();
            const uint8_t mode = settings.mode();
            const uint8_t sections = settings.sectionCount();
            // The debug switch and the port name are read as the logger and a reopen do.
            debugSeen.fetch_or(settings.debugEnabled() ? 2 : 1, std::memory_order_relaxed);
            portNamesRead.insert(settings.serialPortName(0));
            if (type <= 1 && mode <= 2 && (sections == 0 || sections == 2 || sections == 3)) {
                reads.fetch_add(1);
            }
        }
    });
    ready.fetch_add(1);
    while (ready.load() < 2) {
        std::this_thread::yield();
    }
    for (int i = 0; i < kRounds; ++i) {
        settings.setType(uint8_t(i % 2));
        settings.setMode(uint8_t(i % 3));
        settings.setDebugEnabled(i % 2 == 0);
    }
    links.join();
    QCOMPARE(reads.load(), kRounds);
    // Every name read is one a model gives, never a mix of two.
    QVERIFY(portNamesRead.subtract(portNames).isEmpty());
    QCOMPARE(settings.type(), uint8_t((kRounds - 1) % 2));
    QCOMPARE(settings.mode(), uint8_t((kRounds - 1) % 3));
    QCOMPARE(settings.debugEnabled(), false);
}

void TestSettings::firmwareInHomeFolderWinsOverTheResource()
{
    FirmwareHome home;
    QVERIFY(home.isValid());
    QVERIFY(writeFile(home.imagePath(), "home firmware image"));
    QVERIFY(QFile::exists(":/firmware/worksurface.bin"));

    Settings settings;
    QCOMPARE(settings.firmwarePath(), home.imagePath());
}

void TestSettings::firmwareFromResourceWhenHomeFolderHasNone()
{
    FirmwareHome home;
    QVERIFY(home.isValid());

    Settings settings;
    const QString path = settings.firmwarePath();
    QCOMPARE(path, QStringLiteral(":/firmware/worksurface.bin"));
    QFile image(path);
    QVERIFY(image.open(QIODevice::ReadOnly));
    QCOMPARE(image.readAll(), QByteArray("resource firmware image\n"));
}

void TestSettings::firmwarePathIsEmptyWhenNeitherExistsAndNothingIsLogged()
{
    FirmwareHome home;
    QVERIFY(home.isValid());
    WithoutResourceImage noResource;
    QVERIFY(!QFile::exists(":/firmware/worksurface.bin"));

    LogCapture log;
    Settings settings;
    const QString path = settings.firmwarePath();
    QVERIFY(path.isEmpty());
    QCOMPARE(log.lines().size(), 0);
}

void TestSettings::firmwarePathIsAbsoluteForARelativeHomeFolder()
{
    FirmwareHome base;
    QVERIFY(base.isValid());
    QVERIFY(writeFile(base.path() + "/user/.firmware/worksurface.bin", "home firmware image"));
    QVERIFY(QDir::setCurrent(base.path()));
    base.setHome("user");

    Settings settings;
    const QString path = settings.firmwarePath();
    QVERIFY(QFileInfo(path).isAbsolute());
    QCOMPARE(path, QDir(base.path()).absoluteFilePath("user/.firmware/worksurface.bin"));
}

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
