#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest/QtTest>
#include <cstdint>

#include "base/settings.h"
#include "qml/surfacesettings.h"
#include "support/logcapture.h"

using namespace Velmora::Worksurface;

namespace {

bool writeFile(const QString& path, const QByteArray& contents)
{
    if (!QDir().mkpath(QFileInfo(path).path())) {
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    return file.write(contents) == contents.size();
}

}  // namespace

// The resource file this test is built with maps a small image to
// ":/firmware/worksurface.bin". Unregistering it stands for an application shipped without
// a built-in image; registering it again puts the test's own image back.
static void unregisterResourceImage()
{
    Q_CLEANUP_RESOURCE(tst_settings);
}

static void registerResourceImage()
{
    Q_INIT_RESOURCE(tst_settings);
}

namespace {

class WithoutResourceImage
{
public:
    WithoutResourceImage() { unregisterResourceImage(); }
    ~WithoutResourceImage() { registerResourceImage(); }
};

}  // namespace

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

    void firmwareInHomeFolderWinsOverTheResource();
    void firmwareFromResourceWhenHomeFolderHasNone();
    void firmwarePathIsEmptyWhenNeitherExistsAndNothingIsLogged();
    void firmwarePathIsAbsoluteForARelativeHomeFolder();

private:
    QByteArray m_savedHome;
    QString m_savedCurrent;
};

void TestSettings::init()
{
    m_savedHome = qgetenv("HOME");
    m_savedCurrent = QDir::currentPath();
}

void TestSettings::cleanup()
{
    qputenv("HOME", m_savedHome);
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

void TestSettings::firmwareInHomeFolderWinsOverTheResource()
{
    QTemporaryDir home;
    QVERIFY(home.isValid());
    const QString homeImage = home.path() + "/.firmware/worksurface.bin";
    QVERIFY(writeFile(homeImage, "home firmware image"));
    QVERIFY(QFile::exists(":/firmware/worksurface.bin"));
    qputenv("HOME", QFile::encodeName(home.path()));

    Settings settings;
    QCOMPARE(settings.firmwarePath(), homeImage);
}

void TestSettings::firmwareFromResourceWhenHomeFolderHasNone()
{
    QTemporaryDir home;
    QVERIFY(home.isValid());
    qputenv("HOME", QFile::encodeName(home.path()));

    Settings settings;
    const QString path = settings.firmwarePath();
    QCOMPARE(path, QStringLiteral(":/firmware/worksurface.bin"));
    QFile image(path);
    QVERIFY(image.open(QIODevice::ReadOnly));
    QCOMPARE(image.readAll(), QByteArray("resource firmware image\n"));
}

void TestSettings::firmwarePathIsEmptyWhenNeitherExistsAndNothingIsLogged()
{
    QTemporaryDir home;
    QVERIFY(home.isValid());
    qputenv("HOME", QFile::encodeName(home.path()));
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
    QTemporaryDir base;
    QVERIFY(base.isValid());
    QVERIFY(writeFile(base.path() + "/user/.firmware/worksurface.bin", "home firmware image"));
    QVERIFY(QDir::setCurrent(base.path()));
    qputenv("HOME", "user");

    Settings settings;
    const QString path = settings.firmwarePath();
    QVERIFY(QFileInfo(path).isAbsolute());
    QCOMPARE(path, QDir(base.path()).absoluteFilePath("user/.firmware/worksurface.bin"));
}

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
