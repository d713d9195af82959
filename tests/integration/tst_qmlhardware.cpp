// A hardware worksurface driven from QML, as the console's application drives it: a QML
// scene imports the module from the build tree, sets Surface.settings to a K40 in hardware
// mode and calls Surface.connect(). Each of the two sections is played by a pty section
// simulator, and TARVIX_WORKSURFACE_SERIAL_PORTS points the sections' links at the
// simulators' slaves. Everything is real: the surface thread, the task pool's 5 ms timer,
// QSerialPort on a tty; the test waits for the bytes with generous time-outs.
//
// The module is the plugin the QML engine loads, not the library this test links, so the
// scene's objects are reached through their meta-objects only (properties and signal
// signatures), never through the classes.

#include <QDir>
#include <QFile>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>
#include <vector>

#include "serial/serialmessage.h"
#include "support/firmwareimagebytes.h"
#include "support/linkplacement.h"
#include "support/logcapture.h"
#include "support/ptysectionsimulator.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kTimeout = 5000;
// A firmware update waits a second for the microcontroller to restart; room for a loaded
// build machine on top.
constexpr int kUpdateTimeout = 20000;
constexpr const char* kPortsVariable = "TARVIX_WORKSURFACE_SERIAL_PORTS";

// Section 0 carries strips only; section 1 is the K40's master section.
constexpr uint8_t kFaderDevice = 3;
constexpr uint8_t kLedDevice = 4;

const QByteArray kAutoBaud = QByteArray::fromHex("5555");
const QByteArray kPingFrame = QByteArray::fromHex("03000003");

const char kScene[] = R"(
import QtQml 2.15
import Tarvix.Worksurface 1.0

QtObject {
    id: root

    property QtObject surface: Surface
    property QtObject firstSection: Surface.section(0)
    property QtObject masterSection: Surface.section(1)
    // What the first section's model went through, in order.
    property var updating: []
    property var progress: []

    property FaderBinding fader: FaderBinding {
        connection: Surface.connection
        active: true
        sectionIndex: 0
        index: 3
        type: FaderBinding.Fader
    }

    property LedBinding led: LedBinding {
        connection: Surface.connection
        active: true
        sectionIndex: 1
        index: 4
        type: LedBinding.MuteButton
    }

    property Connections updates: Connections {
        target: Surface.section(0)
        function onUpdatingChanged() {
            root.updating = root.updating.concat([target.updating])
        }
        function onUpdateProgressChanged() {
            root.progress = root.progress.concat([target.updateProgress])
        }
    }

    Component.onCompleted: {
        Surface.settings.type = SurfaceSettings.Hardware
        Surface.settings.mode = SurfaceSettings.K40
        Surface.connect()
    }
}
)";

QObject* objectProperty(const QObject* object, const char* name)
{
    return object ? object->property(name).value<QObject*>() : nullptr;
}

// The plugin's frames of one type to one device, as the section decoded them.
QList<QByteArray> payloadsTo(const PtySectionSimulator& section, uint8_t type, uint8_t deviceId)
{
    QList<QByteArray> payloads;
    for (const SerialMessage& message : section.receivedMessages(type)) {
        if (message.deviceId == deviceId) {
            payloads << QByteArray(reinterpret_cast<const char*>(message.payload.data()),
                                   static_cast<int>(message.payload.size()));
        }
    }
    return payloads;
}

}  // namespace

class TestQmlHardware : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void connectOpensEverySectionsPortProbesTheBootloaderAndPings();
    void sectionVersionAndTemperatureReachSurfaceSection();
    void faderMoveAndTouchFromTheSectionReachTheFaderBinding();
    void ledBindingDrivesATypeElevenFrameToItsSection();
    void faderBindingValueDrivesATypeSevenFrameToItsSection();
    void firmwareUpdateFromTheHomeFolderRunsToTheEndAndTheSectionComesBack();

private:
    // Loads the scene, which connects the surface; the sections' ports are the simulators'.
    // Returns once both links have opened their ports, on the thread the run puts them on.
    void loadScene();
    QString firmwarePath() const;

    QTemporaryDir m_home;
    QByteArray m_previousHome;
    QByteArray m_previousPorts;
    bool m_hadPorts = false;
    std::vector<std::unique_ptr<PtySectionSimulator>> m_sections;
    std::unique_ptr<QQmlEngine> m_engine;
    std::unique_ptr<QObject> m_scene;
};

void TestQmlHardware::initTestCase()
{
    // The image is looked for in the home folder once the update starts; no surface exists
    // yet.
    QVERIFY(m_home.isValid());
    m_previousHome = qgetenv("HOME");
    QVERIFY(qputenv("HOME", QFile::encodeName(m_home.path())));
    QCOMPARE(QDir::homePath(), m_home.path());
    QVERIFY(QDir(m_home.path()).mkpath(QStringLiteral(".firmware")));
    m_hadPorts = qEnvironmentVariableIsSet(kPortsVariable);
    m_previousPorts = qgetenv(kPortsVariable);
}

void TestQmlHardware::cleanupTestCase()
{
    qputenv("HOME", m_previousHome);
    if (m_hadPorts) {
        qputenv(kPortsVariable, m_previousPorts);
    } else {
        qunsetenv(kPortsVariable);
    }
}

void TestQmlHardware::init()
{
    QStringList ports;
    for (int i = 0; i < 2; ++i) {
        auto section = std::make_unique<PtySectionSimulator>();
        QVERIFY2(section->isOpen(), qPrintable(section->errorString()));
        ports << section->slavePath();
        m_sections.push_back(std::move(section));
    }
    m_sections[0]->setVersionReport(51, 30);
    m_sections[1]->setVersionReport(52, 31);
    QVERIFY(qputenv(kPortsVariable, ports.join(QLatin1Char(',')).toLocal8Bit()));
    QVERIFY(QFile::remove(firmwarePath()) || !QFile::exists(firmwarePath()));
}

void TestQmlHardware::cleanup()
{
    // The scene and the engine (with the Surface singleton, which closes the ports) go
    // before the sections they talk to.
    m_scene.reset();
    m_engine.reset();
    m_sections.clear();
}

void TestQmlHardware::loadScene()
{
    // The plugin's service is out of this test's reach: its links show where they run by
    // the thread their opening is logged on. Passed on, so a test's own capture gets the
    // lines too.
    LogCapture opening;
    opening.setEcho(true);
    m_engine = std::make_unique<QQmlEngine>();
    m_engine->addImportPath(QStringLiteral(TARVIX_QML_ROOT));
    QQmlComponent component(m_engine.get());
    component.setData(kScene, QUrl(QStringLiteral("qrc:/tst_qmlhardware/scene.qml")));
    m_scene.reset(component.create());
    QVERIFY2(m_scene, qPrintable(component.errorString()));
    QVERIFY(objectProperty(m_scene.get(), "surface"));
    QVERIFY(objectProperty(m_scene.get(), "fader"));
    QVERIFY(objectProperty(m_scene.get(), "led"));
    QTRY_COMPARE_WITH_TIMEOUT(opening.texts().filter(QStringLiteral("ready and open.")).size(), 2,
                              kTimeout);
    QVERIFY(openedLinksWhereTheModeSays(opening, 2));
}

QString TestQmlHardware::firmwarePath() const
{
    return m_home.path() + QStringLiteral("/.firmware/worksurface.bin");
}

void TestQmlHardware::connectOpensEverySectionsPortProbesTheBootloaderAndPings()
{
    loadScene();
    for (const auto& section : m_sections) {
        // The link opened the port and probed for the bootloader first; the section's
        // application answered NotBootLoader, so the link came up and pinged.
        QTRY_COMPARE_WITH_TIMEOUT(section->commandCount(BootloaderCommand::AutoBaud), 1, kTimeout);
        QTRY_VERIFY_WITH_TIMEOUT(section->pingCount() >= 1, kTimeout);
        QVERIFY2(section->receivedBytes().startsWith(kAutoBaud + kPingFrame),
                 section->receivedBytes().toHex().constData());
        QCOMPARE(section->badBytes(), QByteArray());
        QCOMPARE(section->lineSettings().outputBaud, 115200);
        QCOMPARE(section->lineSettings().inputBaud, 115200);
    }
    QObject* surface = objectProperty(m_scene.get(), "surface");
    QCOMPARE(surface->property("sectionCount").toInt(), 2);
    QCOMPARE(surface->property("isCalibrating").toBool(), false);
}

void TestQmlHardware::sectionVersionAndTemperatureReachSurfaceSection()
{
    loadScene();
    QObject* first = objectProperty(m_scene.get(), "firstSection");
    QObject* master = objectProperty(m_scene.get(), "masterSection");
    QVERIFY(first);
    QVERIFY(master);
    QTRY_COMPARE_WITH_TIMEOUT(first->property("version").toInt(), 51, kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(first->property("temperature").toInt(), 30, kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(master->property("version").toInt(), 52, kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(master->property("temperature").toInt(), 31, kTimeout);
    QCOMPARE(first->property("updating").toBool(), false);
    QCOMPARE(m_scene->property("updating").toList(), QVariantList());
}

void TestQmlHardware::faderMoveAndTouchFromTheSectionReachTheFaderBinding()
{
    loadScene();
    QObject* fader = objectProperty(m_scene.get(), "fader");
    QSignalSpy moved(fader, SIGNAL(faderMoved(float)));
    QSignalSpy touched(fader, SIGNAL(faderTouched(bool)));
    QVERIFY(moved.isValid());
    QVERIFY(touched.isValid());
    QTRY_VERIFY_WITH_TIMEOUT(m_sections[0]->pingCount() >= 1, kTimeout);

    m_sections[0]->sendFaderPosition(kFaderDevice, 400);
    QTRY_COMPARE_WITH_TIMEOUT(moved.count(), 1, kTimeout);
    QCOMPARE(moved.at(0).at(0).toFloat(), 0.0f);
    m_sections[0]->sendFaderPosition(kFaderDevice, 320);
    QTRY_COMPARE_WITH_TIMEOUT(moved.count(), 2, kTimeout);
    QCOMPARE(moved.at(1).at(0).toFloat(), -5.0f);

    touched.clear();
    m_sections[0]->sendFaderTouch(kFaderDevice, true);
    QTRY_COMPARE_WITH_TIMEOUT(touched.count(), 1, kTimeout);
    QCOMPARE(touched.at(0).at(0).toBool(), true);
    QCOMPARE(fader->property("touched").toBool(), true);
    m_sections[0]->sendFaderTouch(kFaderDevice, false);
    QTRY_COMPARE_WITH_TIMEOUT(touched.count(), 2, kTimeout);
    QCOMPARE(touched.at(1).at(0).toBool(), false);

    // The master section's fader of the same number is another fader.
    m_sections[1]->sendFaderPosition(kFaderDevice, 100);
    QVERIFY(m_sections[1]->waitUntilPeerHasRead());
    m_sections[0]->sendFaderPosition(kFaderDevice, 511);
    QTRY_COMPARE_WITH_TIMEOUT(moved.count(), 3, kTimeout);
    QCOMPARE(moved.at(2).at(0).toFloat(), 10.0f);
}

void TestQmlHardware::ledBindingDrivesATypeElevenFrameToItsSection()
{
    loadScene();
    QObject* led = objectProperty(m_scene.get(), "led");
    // Bound, the LED is sent its state: off.
    QTRY_VERIFY_WITH_TIMEOUT(payloadsTo(*m_sections[1], MessageType::Led, kLedDevice).size() >= 1,
                             kTimeout);
    QCOMPARE(payloadsTo(*m_sections[1], MessageType::Led, kLedDevice).last(),
             QByteArray::fromHex("0000"));

    m_sections[1]->clearReceived();
    QVERIFY(led->setProperty("on", true));
    QTRY_VERIFY_WITH_TIMEOUT(
        m_sections[1]->receivedBytes().contains(QByteArray::fromHex("050b04ff0013")), kTimeout);
    QVERIFY(led->setProperty("brightness", 100));
    QTRY_VERIFY_WITH_TIMEOUT(
        m_sections[1]->receivedBytes().contains(QByteArray::fromHex("050b04640078")), kTimeout);
    QCOMPARE(payloadsTo(*m_sections[1], MessageType::Led, kLedDevice),
             QList<QByteArray>({QByteArray::fromHex("ff00"), QByteArray::fromHex("6400")}));
    // The other section has no such LED binding.
    QCOMPARE(payloadsTo(*m_sections[0], MessageType::Led, kLedDevice), QList<QByteArray>());
}

void TestQmlHardware::faderBindingValueDrivesATypeSevenFrameToItsSection()
{
    loadScene();
    QObject* fader = objectProperty(m_scene.get(), "fader");
    QTRY_VERIFY_WITH_TIMEOUT(m_sections[0]->pingCount() >= 1, kTimeout);
    m_sections[0]->clearReceived();

    QVERIFY(fader->setProperty("value", 0.0f));
    // 0 dB is position 400 (0x0190).
    QTRY_VERIFY_WITH_TIMEOUT(m_sections[0]->receivedBytes().contains(QByteArray::fromHex("05070301"
                                                                                         "90a0")),
                             kTimeout);
    QCOMPARE(payloadsTo(*m_sections[0], MessageType::FaderPosition, kFaderDevice).last(),
             QByteArray::fromHex("0190"));
}

void TestQmlHardware::firmwareUpdateFromTheHomeFolderRunsToTheEndAndTheSectionComesBack()
{
    const QByteArray image = imageBytes(1000, 11);
    {
        QFile file(firmwarePath());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QCOMPARE(file.write(image), qint64(image.size()));
    }
    PtySectionSimulator& updated = *m_sections[0];
    updated.setMode(PtySectionSimulator::Mode::Bootloader);
    LogCapture log;

    loadScene();
    QObject* first = objectProperty(m_scene.get(), "firstSection");
    QObject* master = objectProperty(m_scene.get(), "masterSection");

    // Updating while the image goes, then not any more.
    QTRY_COMPARE_WITH_TIMEOUT(m_scene->property("updating").toList(), QVariantList({true, false}),
                              kUpdateTimeout);
    QCOMPARE(first->property("updateProgress").toInt(), 100);
    const QVariantList progress = m_scene->property("progress").toList();
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().toInt(), 100);
    for (int i = 1; i < progress.size(); ++i) {
        QVERIFY2(progress.at(i).toInt() > progress.at(i - 1).toInt(),
                 qPrintable(QStringLiteral("progress went from %1 to %2")
                                .arg(progress.at(i - 1).toInt())
                                .arg(progress.at(i).toInt())));
    }

    // The whole image, announced as whole blocks from address 0.
    QCOMPARE(updated.downloadAddress(), uint32_t(0));
    QCOMPARE(updated.downloadSize(), uint32_t(1024));
    QCOMPARE(updated.image(), padded(image));
    // Nothing answers a reset, so the update is over as soon as the plugin has written it;
    // the section reads it when its side of the pty wakes up.
    QTRY_COMPARE_WITH_TIMEOUT(updated.commandCount(BootloaderCommand::Reset), 1, kUpdateTimeout);

    // Reset, the microcontroller runs its application: the probe a second later finds it
    // there and the link comes back.
    QTRY_COMPARE_WITH_TIMEOUT(updated.mode(), PtySectionSimulator::Mode::Application,
                              kUpdateTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(updated.commandCount(BootloaderCommand::AutoBaud), 2, kUpdateTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(first->property("version").toInt(), 51, kUpdateTimeout);
    QCOMPARE(first->property("updating").toBool(), false);
    QCOMPARE(m_scene->property("updating").toList(), QVariantList({true, false}));
    QVERIFY(log.contains(QtInfoMsg, QStringLiteral("WS UPDATER: Starting WS update")));
    QVERIFY(log.contains(
        QtInfoMsg, QStringLiteral("WS UPDATER: Updating WS code from file: ") + firmwarePath()));
    QVERIFY(log.contains(
        QtInfoMsg, QStringLiteral("WS UPDATER: Received not in bootloader. Finished updating")));

    // The master section ran its application all along.
    QTRY_COMPARE_WITH_TIMEOUT(master->property("version").toInt(), 52, kTimeout);
    QCOMPARE(master->property("updating").toBool(), false);
    QCOMPARE(m_sections[1]->commandCount(BootloaderCommand::AutoBaud), 1);
    QVERIFY(m_sections[1]->receivedPackets().isEmpty());
}

// The scene needs QtQml only: no GUI application, so no platform plugin.
QTEST_GUILESS_MAIN(TestQmlHardware)
#include "tst_qmlhardware.moc"
