#include <QDir>
#include <QFile>
#include <QMetaEnum>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QtTest/QtTest>
#include <cstdint>
#include <memory>

#include "base/settings.h"
#include "qml/surfacesettings.h"
#include "support/firmwarehome.h"
#include "support/logcapture.h"
#include "support/metaobjectlisting.h"

using namespace Velmora::Worksurface;

namespace {

// Records the names of SurfaceSettings' change signals in the order they arrive, across
// all of them, so a test can compare the whole sequence.
class SignalRecorder
{
public:
    explicit SignalRecorder(SurfaceSettings* settings)
    {
        const auto record = [this](const char* name) { return [this, name] { m_names << name; }; };
        QObject::connect(settings, &SurfaceSettings::typeChanged, record("typeChanged"));
        QObject::connect(settings, &SurfaceSettings::modeChanged, record("modeChanged"));
        QObject::connect(settings, &SurfaceSettings::masterSectionIndexChanged,
                         record("masterSectionIndexChanged"));
        QObject::connect(settings, &SurfaceSettings::sectionCountChanged,
                         record("sectionCountChanged"));
        QObject::connect(settings, &SurfaceSettings::debugEnabledChanged,
                         record("debugEnabledChanged"));
    }

    QStringList names() const { return m_names; }
    void clear() { m_names.clear(); }

private:
    QStringList m_names;
};

const QStringList kModeSignals = {"modeChanged", "masterSectionIndexChanged",
                                  "sectionCountChanged"};

// A "mode" column with a row for each console mode, Unknown included.
void addEveryModeRow()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("Unknown") << 0;
    QTest::newRow("K40") << 1;
    QTest::newRow("K60") << 2;
}

// Shared settings already set to `mode`, as the surface service holds them.
std::shared_ptr<Settings> settingsInMode(int mode)
{
    auto shared = std::make_shared<Settings>();
    shared->setMode(uint8_t(mode));
    return shared;
}

}  // namespace

class TestSurfaceSettings : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectDeclaresSignalsInvokableAndPropertiesInOrder();
    void enumerationsHaveTheirValues();
    void debugEnabledIsTrueBeforeAnythingSetsIt();
    void startsAsHardwareWithoutModel();

    void settingModeToANewValueEmitsModeMasterAndSectionCountInOrder_data();
    void settingModeToANewValueEmitsModeMasterAndSectionCountInOrder();
    void settingModeToItsCurrentValueEmitsNothing_data();
    void settingModeToItsCurrentValueEmitsNothing();
    void modeIsComparedOnTheStoredEightBits();
    void modeOutsideTheEnumerationIsStoredAndGivesNoSections();
    void settingModeThroughThePropertyEmitsInOrder();

    void settingTypeNeverChangesTheSectionCount_data();
    void settingTypeNeverChangesTheSectionCount();
    void settingTypeToItsCurrentValueEmitsNothing();
    void settingDebugEnabledEmitsOnlyOnChange();

    void readsAndWritesGoToTheSharedSettings();
    void forwardingReadsAnswerWhatTheSettingsAnswer_data();
    void forwardingReadsAnswerWhatTheSettingsAnswer();

    void enumerateUpdatePathsLogsBothPlacesWhenNeitherExists();
    void enumerateUpdatePathsLogsBothPlacesWhenBothExist();
    void enumerateUpdatePathsQuotesThePathLikeTheLoggingStream();
    void enumerateUpdatePathsIsWrittenEvenWithDebugOff();
    void enumerateUpdatePathsIsInvokableFromQml();

    void reconnectIntervalIsAnInheritedNotifyingIntPropertyStartingAtZero();
    void reconnectIntervalNotifiesOnlyOnChangeAndGoesToTheSharedSettings();
    void negativeReconnectIntervalIsTakenAsZero();
};

void TestSurfaceSettings::metaObjectDeclaresSignalsInvokableAndPropertiesInOrder()
{
    const QMetaObject& meta = SurfaceSettings::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        methods << QString::fromLatin1(method.methodSignature()) + "/" +
                       QString::number(method.methodType());
    }
    QCOMPARE(methods, QStringList({
                          "typeChanged()/1",
                          "modeChanged()/1",
                          "masterSectionIndexChanged()/1",
                          "sectionCountChanged()/1",
                          "debugEnabledChanged()/1",
                          "enumerateUpdatePaths()/0",
                      }));

    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        QVERIFY(property.isReadable());
        QVERIFY(property.isWritable());
        QVERIFY(property.hasNotifySignal());
        properties << QString("%1:%2:%3")
                          .arg(QString::fromLatin1(property.name()),
                               propertyTypeName(meta, property),
                               QString::fromLatin1(property.notifySignal().methodSignature()));
    }
    QCOMPARE(properties, QStringList({
                             "type:SurfaceType:typeChanged()",
                             "mode:SurfaceMode:modeChanged()",
                             "debugEnabled:bool:debugEnabledChanged()",
                         }));

    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 2);
    QCOMPARE(meta.enumerator(meta.enumeratorOffset()).name(), "SurfaceType");
    QCOMPARE(meta.enumerator(meta.enumeratorOffset() + 1).name(), "SurfaceMode");
}

void TestSurfaceSettings::enumerationsHaveTheirValues()
{
    const QMetaEnum type = QMetaEnum::fromType<SurfaceSettings::SurfaceType>();
    QCOMPARE(type.keyCount(), 2);
    QCOMPARE(type.keyToValue("Hardware"), 0);
    QCOMPARE(type.keyToValue("Software"), 1);

    const QMetaEnum mode = QMetaEnum::fromType<SurfaceSettings::SurfaceMode>();
    QCOMPARE(mode.keyCount(), 3);
    QCOMPARE(mode.keyToValue("Unknown"), 0);
    QCOMPARE(mode.keyToValue("K40"), 1);
    QCOMPARE(mode.keyToValue("K60"), 2);
}

void TestSurfaceSettings::debugEnabledIsTrueBeforeAnythingSetsIt()
{
    SurfaceSettings settings(std::make_shared<Settings>());
    QCOMPARE(settings.debugEnabled(), true);
    QCOMPARE(settings.property("debugEnabled"), QVariant(true));
}

void TestSurfaceSettings::startsAsHardwareWithoutModel()
{
    SurfaceSettings settings(std::make_shared<Settings>());
    QCOMPARE(settings.type(), SurfaceSettings::Hardware);
    QCOMPARE(settings.mode(), SurfaceSettings::Unknown);
    QCOMPARE(settings.sectionCount(), uint8_t(0));
    QCOMPARE(settings.masterSectionIndex(), uint8_t(255));
}

void TestSurfaceSettings::settingModeToANewValueEmitsModeMasterAndSectionCountInOrder_data()
{
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("to");
    QTest::addColumn<int>("sections");
    QTest::addColumn<int>("master");
    QTest::newRow("Unknown to K40") << 0 << 1 << 2 << 1;
    QTest::newRow("Unknown to K60") << 0 << 2 << 3 << 2;
    QTest::newRow("K40 to K60") << 1 << 2 << 3 << 2;
    QTest::newRow("K60 to K40") << 2 << 1 << 2 << 1;
    QTest::newRow("K60 to Unknown") << 2 << 0 << 0 << 255;
}

void TestSurfaceSettings::settingModeToANewValueEmitsModeMasterAndSectionCountInOrder()
{
    QFETCH(int, from);
    QFETCH(int, to);
    QFETCH(int, sections);
    QFETCH(int, master);
    const auto shared = settingsInMode(from);
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    settings.setMode(SurfaceSettings::SurfaceMode(to));
    QCOMPARE(recorder.names(), kModeSignals);
    QCOMPARE(settings.mode(), SurfaceSettings::SurfaceMode(to));
    QCOMPARE(int(settings.sectionCount()), sections);
    QCOMPARE(int(settings.masterSectionIndex()), master);
}

void TestSurfaceSettings::settingModeToItsCurrentValueEmitsNothing_data()
{
    addEveryModeRow();
}

void TestSurfaceSettings::settingModeToItsCurrentValueEmitsNothing()
{
    QFETCH(int, mode);
    const auto shared = settingsInMode(mode);
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    settings.setMode(SurfaceSettings::SurfaceMode(mode));
    QCOMPARE(recorder.names(), QStringList());
    QCOMPARE(shared->mode(), uint8_t(mode));
}

void TestSurfaceSettings::modeIsComparedOnTheStoredEightBits()
{
    const auto shared = settingsInMode(SurfaceSettings::K60);
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    // 258 keeps 2 (K60) in its low byte: nothing changes, nothing is emitted.
    settings.setMode(SurfaceSettings::SurfaceMode(258));
    QCOMPARE(recorder.names(), QStringList());
    QCOMPARE(shared->mode(), uint8_t(SurfaceSettings::K60));

    // 257 stores 1 (K40).
    settings.setMode(SurfaceSettings::SurfaceMode(257));
    QCOMPARE(recorder.names(), kModeSignals);
    QCOMPARE(settings.mode(), SurfaceSettings::K40);
    QCOMPARE(settings.sectionCount(), uint8_t(2));
}

void TestSurfaceSettings::modeOutsideTheEnumerationIsStoredAndGivesNoSections()
{
    const auto shared = settingsInMode(SurfaceSettings::K40);
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    settings.setMode(SurfaceSettings::SurfaceMode(3));
    QCOMPARE(recorder.names(), kModeSignals);
    QCOMPARE(int(settings.mode()), 3);
    QCOMPARE(settings.sectionCount(), uint8_t(0));
    QCOMPARE(settings.masterSectionIndex(), uint8_t(255));
}

void TestSurfaceSettings::settingModeThroughThePropertyEmitsInOrder()
{
    SurfaceSettings settings(std::make_shared<Settings>());
    SignalRecorder recorder(&settings);

    QVERIFY(settings.setProperty("mode", QVariant::fromValue(SurfaceSettings::K60)));
    QCOMPARE(recorder.names(), kModeSignals);
    QCOMPARE(settings.property("mode").value<SurfaceSettings::SurfaceMode>(), SurfaceSettings::K60);
    QCOMPARE(settings.sectionCount(), uint8_t(3));

    recorder.clear();
    QVERIFY(settings.setProperty("mode", QVariant::fromValue(SurfaceSettings::K60)));
    QCOMPARE(recorder.names(), QStringList());
}

void TestSurfaceSettings::settingTypeNeverChangesTheSectionCount_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("sections");
    QTest::newRow("Unknown") << 0 << 0;
    QTest::newRow("K40") << 1 << 2;
    QTest::newRow("K60") << 2 << 3;
}

void TestSurfaceSettings::settingTypeNeverChangesTheSectionCount()
{
    QFETCH(int, mode);
    QFETCH(int, sections);
    const auto shared = settingsInMode(mode);
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    settings.setType(SurfaceSettings::Software);
    QCOMPARE(recorder.names(), QStringList({"typeChanged"}));
    QCOMPARE(settings.type(), SurfaceSettings::Software);
    QCOMPARE(int(settings.sectionCount()), sections);

    settings.setType(SurfaceSettings::Hardware);
    QCOMPARE(recorder.names(), QStringList({"typeChanged", "typeChanged"}));
    QCOMPARE(int(settings.sectionCount()), sections);
}

void TestSurfaceSettings::settingTypeToItsCurrentValueEmitsNothing()
{
    auto shared = std::make_shared<Settings>();
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    settings.setType(SurfaceSettings::Hardware);
    // 256 keeps 0 (Hardware) in its low byte.
    settings.setType(SurfaceSettings::SurfaceType(256));
    QCOMPARE(recorder.names(), QStringList());
    QCOMPARE(shared->type(), uint8_t(0));
}

void TestSurfaceSettings::settingDebugEnabledEmitsOnlyOnChange()
{
    auto shared = std::make_shared<Settings>();
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    settings.setDebugEnabled(true);
    QCOMPARE(recorder.names(), QStringList());

    settings.setDebugEnabled(false);
    QCOMPARE(recorder.names(), QStringList({"debugEnabledChanged"}));
    QCOMPARE(shared->debugEnabled(), false);

    settings.setDebugEnabled(false);
    QCOMPARE(recorder.names(), QStringList({"debugEnabledChanged"}));

    QVERIFY(settings.setProperty("debugEnabled", true));
    QCOMPARE(recorder.names(), QStringList({"debugEnabledChanged", "debugEnabledChanged"}));
    QCOMPARE(shared->debugEnabled(), true);
}

void TestSurfaceSettings::readsAndWritesGoToTheSharedSettings()
{
    auto shared = std::make_shared<Settings>();
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);

    settings.setType(SurfaceSettings::Software);
    settings.setMode(SurfaceSettings::K40);
    QCOMPARE(shared->type(), uint8_t(1));
    QCOMPARE(shared->mode(), uint8_t(1));

    // A change made on the core side is read at once, but announces nothing.
    recorder.clear();
    shared->setMode(SurfaceSettings::K60);
    shared->setDebugEnabled(false);
    QCOMPARE(settings.mode(), SurfaceSettings::K60);
    QCOMPARE(settings.sectionCount(), uint8_t(3));
    QCOMPARE(settings.debugEnabled(), false);
    QCOMPARE(recorder.names(), QStringList());
}

void TestSurfaceSettings::forwardingReadsAnswerWhatTheSettingsAnswer_data()
{
    addEveryModeRow();
}

void TestSurfaceSettings::forwardingReadsAnswerWhatTheSettingsAnswer()
{
    QFETCH(int, mode);
    const auto shared = settingsInMode(mode);
    SurfaceSettings settings(shared);
    QCOMPARE(settings.masterSectionIndex(), shared->masterSectionIndex());
    QCOMPARE(settings.masterStripCount(), uint8_t(1));
    QCOMPARE(settings.sectionCount(), shared->sectionCount());
    QCOMPARE(settings.stripCount(), uint8_t(10));
}

void TestSurfaceSettings::enumerateUpdatePathsLogsBothPlacesWhenNeitherExists()
{
    FirmwareHome home;
    QVERIFY(home.isValid());
    WithoutResourceImage noResource;
    SurfaceSettings settings(std::make_shared<Settings>());

    LogCapture log;
    settings.enumerateUpdatePaths();
    QCOMPARE(log.lines(),
             QList<LogCapture::Line>(
                 {{QtDebugMsg,
                   "Path: \"" + home.path() + "/.firmware/worksurface.bin\" --> Exists: false"},
                  {QtDebugMsg, "Path: \":/firmware/worksurface.bin\" --> Exists: false"}}));
    QCOMPARE(log.categories(),
             QStringList({"tarvix.worksurface.service", "tarvix.worksurface.service"}));
}

void TestSurfaceSettings::enumerateUpdatePathsLogsBothPlacesWhenBothExist()
{
    FirmwareHome home;
    QVERIFY(home.isValid());
    QVERIFY(writeFile(home.imagePath(), QByteArray()));
    SurfaceSettings settings(std::make_shared<Settings>());

    LogCapture log;
    settings.enumerateUpdatePaths();
    QCOMPARE(log.lines(),
             QList<LogCapture::Line>(
                 {{QtDebugMsg,
                   "Path: \"" + home.path() + "/.firmware/worksurface.bin\" --> Exists: true"},
                  {QtDebugMsg, "Path: \":/firmware/worksurface.bin\" --> Exists: true"}}));
}

void TestSurfaceSettings::enumerateUpdatePathsQuotesThePathLikeTheLoggingStream()
{
    // A home folder with a blank and a double quote in its name: the path is shown quoted,
    // the quote escaped.
    FirmwareHome base;
    QVERIFY(base.isValid());
    const QString homePath = base.path() + "/my \"home\"";
    QVERIFY(QDir().mkpath(homePath));
    base.setHome(homePath);
    SurfaceSettings settings(std::make_shared<Settings>());

    LogCapture log;
    settings.enumerateUpdatePaths();
    QCOMPARE(log.texts().value(0), "Path: \"" + base.path() +
                                       "/my \\\"home\\\"/.firmware/worksurface.bin\" --> "
                                       "Exists: false");
}

void TestSurfaceSettings::enumerateUpdatePathsIsWrittenEvenWithDebugOff()
{
    FirmwareHome home;
    QVERIFY(home.isValid());
    auto shared = std::make_shared<Settings>();
    shared->setDebugEnabled(false);
    SurfaceSettings settings(shared);

    LogCapture log;
    settings.enumerateUpdatePaths();
    QCOMPARE(
        log.texts(QtDebugMsg),
        QStringList({"Path: \"" + home.path() + "/.firmware/worksurface.bin\" --> Exists: false",
                     "Path: \":/firmware/worksurface.bin\" --> Exists: true"}));
}

void TestSurfaceSettings::enumerateUpdatePathsIsInvokableFromQml()
{
    FirmwareHome home;
    QVERIFY(home.isValid());
    SurfaceSettings settings(std::make_shared<Settings>());

    LogCapture log;
    QVERIFY(QMetaObject::invokeMethod(&settings, "enumerateUpdatePaths"));
    QCOMPARE(log.lines().size(), 2);
}

void TestSurfaceSettings::reconnectIntervalIsAnInheritedNotifyingIntPropertyStartingAtZero()
{
    const QMetaObject& meta = SurfaceSettings::staticMetaObject;
    const int index = meta.indexOfProperty("reconnectInterval");
    QVERIFY(index >= 0);
    QVERIFY(index < meta.propertyOffset());
    const QMetaProperty property = meta.property(index);
    QCOMPARE(QByteArray(property.typeName()), QByteArray("int"));
    QVERIFY(property.isWritable());
    QCOMPARE(property.notifySignal().methodSignature(), QByteArray("reconnectIntervalChanged()"));

    SurfaceSettings settings(std::make_shared<Settings>());
    QCOMPARE(settings.reconnectInterval(), 0);
    QCOMPARE(settings.property("reconnectInterval").toInt(), 0);
}

void TestSurfaceSettings::reconnectIntervalNotifiesOnlyOnChangeAndGoesToTheSharedSettings()
{
    auto shared = std::make_shared<Settings>();
    SurfaceSettings settings(shared);
    SignalRecorder recorder(&settings);
    QSignalSpy spy(&settings, &SurfaceSettings::reconnectIntervalChanged);

    settings.setReconnectInterval(2000);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(shared->reconnectInterval(), 2000);
    settings.setReconnectInterval(2000);
    QCOMPARE(spy.count(), 1);
    QVERIFY(settings.setProperty("reconnectInterval", 500));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(shared->reconnectInterval(), 500);
    // None of the other settings' signals.
    QCOMPARE(recorder.names(), QStringList());
}

void TestSurfaceSettings::negativeReconnectIntervalIsTakenAsZero()
{
    auto shared = std::make_shared<Settings>();
    SurfaceSettings settings(shared);
    settings.setReconnectInterval(300);
    QSignalSpy spy(&settings, &SurfaceSettings::reconnectIntervalChanged);
    settings.setReconnectInterval(-5);
    QCOMPARE(settings.reconnectInterval(), 0);
    QCOMPARE(spy.count(), 1);
    settings.setReconnectInterval(-1);
    QCOMPARE(spy.count(), 1);
}

QTEST_GUILESS_MAIN(TestSurfaceSettings)
#include "tst_surfacesettings.moc"
