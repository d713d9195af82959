#include <QtTest>
#include <memory>

#include "base/settings.h"
#include "bindings/surfaceconnection.h"
#include "serial/isectionconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "software/sectioncontrol.h"
#include "support/deferreddeletes.h"
#include "support/fakesectioninfoprovider.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/recordingsectioninfo.h"
#include "support/softwaresurfacefixture.h"
#include "surface/surface.h"

using namespace Velmora::Worksurface;

namespace {

// What the console side is told of one section's link, in order.
class LinkRecord : public RecordingSectionInfo
{
public:
    void setLinkState(uint8_t state) override { states.push_back(state); }
    // Each change of the port error; the link's first report (no error) is no change.
    void setPort(const QString& /*portName*/, const QString& portError) override
    {
        if (portError != lastPortError) {
            portErrors << portError;
            lastPortError = portError;
        }
    }

    QString lastPortError;

    std::vector<int> states;
    QStringList portErrors;
};

// A whole software worksurface under the manual clock, every section played by a
// SectionControl (as a QML page would), every link up.
struct Scene
{
    ManualClock clock{kStartNs};
    LinkRecord info[3];
    FakeSectionInfoProvider provider;
    std::unique_ptr<SoftwareSurfaceFixture> fixture;
    std::unique_ptr<SurfaceConnection> connection;
    SectionControl sections[3];

    explicit Scene(uint8_t mode, int reconnectIntervalMs)
    {
        for (uint8_t s = 0; s < 3; ++s) {
            provider.set(s, &info[s]);
        }
        fixture = std::make_unique<SoftwareSurfaceFixture>(clock, mode, &provider);
        fixture->settings().setDebugEnabled(true);
        fixture->settings().setReconnectInterval(reconnectIntervalMs);
        connection = std::make_unique<SurfaceConnection>(fixture->sharedController(), nullptr);
        fixture->installInto(*connection);
        for (int s = 0; s < 3; ++s) {
            sections[s].setConnection(connection.get());
            sections[s].setSectionIndex(s);
            sections[s].setTemperature(40 + s);
        }
        fixture->start();
        fixture->runForMs(1);
        for (auto& record : info) {
            record.states.clear();
            record.portErrors.clear();
        }
        // Checked once the scene is whole: a failure here leaves it usable for the rest.
        QVERIFY(fixture->linksWhereTheModeSays());
    }

    ~Scene() { flushDeferredDeletes(); }

    uint8_t state(uint8_t section) { return fixture->surface().connections()[section]->state(); }
};

}  // namespace

// The faults a SectionControl plays, seen by the link under the manual clock: the silent
// section's time-outs to the millisecond, and the unplugged line's log lines and port
// errors, exactly as a hardware link shows them. The same to the millisecond with the links
// on the surface thread (the second run; SoftwareSurfaceFixture puts them there).
class TestSoftwareFaults : public QObject
{
    Q_OBJECT

private slots:
    void silentSectionIsNoResponseAfterTheGraceAndTheSilenceAndRestartsTenSecondsLater_data();
    void silentSectionIsNoResponseAfterTheGraceAndTheSilenceAndRestartsTenSecondsLater();
    void answeringAgainBringsANoResponseLinkBackAtItsNextPing_data();
    void answeringAgainBringsANoResponseLinkBackAtItsNextPing();
    void unpluggedLineLogsAndReportsAsAPulledAdapterAndComesBackWithinAnInterval_data();
    void unpluggedLineLogsAndReportsAsAPulledAdapterAndComesBackWithinAnInterval();
    void unpluggedLineWithoutReconnectStaysDownAfterReplugging_data();
    void unpluggedLineWithoutReconnectStaysDownAfterReplugging();

private:
    void consoles();
};

void TestSoftwareFaults::consoles()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("section");
    QTest::newRow("K40 first") << 1 << 0;
    QTest::newRow("K40 master") << 1 << 1;
    QTest::newRow("K60 first") << 2 << 0;
    QTest::newRow("K60 master") << 2 << 2;
}

void TestSoftwareFaults::
    silentSectionIsNoResponseAfterTheGraceAndTheSilenceAndRestartsTenSecondsLater_data()
{
    consoles();
}

void TestSoftwareFaults::
    silentSectionIsNoResponseAfterTheGraceAndTheSilenceAndRestartsTenSecondsLater()
{
    QFETCH(int, mode);
    QFETCH(int, section);
    Scene scene(static_cast<uint8_t>(mode), 0);
    const auto index = static_cast<uint8_t>(section);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connected));
    // Up since the start: the link's 10 s grace and 10 s of silence count from then.
    LogCapture log;
    scene.sections[section].setAnswering(false);
    scene.fixture->runForMs(20000);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connected));
    scene.fixture->runForMs(60);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::NoResponse));
    QCOMPARE(log.texts(QtWarningMsg),
             QStringList{QStringLiteral("Section %1 has not received response in timely manner. "
                                        "Setting state to NoResponse.")
                             .arg(section)});
    // The restart 10 s later probes the bootloader, which goes unanswered too.
    scene.fixture->runForMs(9900);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::NoResponse));
    scene.fixture->runForMs(150);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connecting));
    QCOMPARE(scene.info[section].states,
             (std::vector<int>{ISectionConnection::NoResponse, ISectionConnection::Closed,
                               ISectionConnection::Connecting}));
    QVERIFY(log.contains(QtWarningMsg,
                         QStringLiteral("Section %1 has not received response in long time. "
                                        "Restart the connection...")
                             .arg(section)));
    // The other sections answered throughout.
    for (uint8_t s = 0; s < scene.fixture->surface().connections().size(); ++s) {
        if (s != index) {
            QCOMPARE(scene.state(s), uint8_t(ISectionConnection::Connected));
        }
    }
    QCOMPARE(scene.info[section].portErrors, QStringList());
}

void TestSoftwareFaults::answeringAgainBringsANoResponseLinkBackAtItsNextPing_data()
{
    consoles();
}

void TestSoftwareFaults::answeringAgainBringsANoResponseLinkBackAtItsNextPing()
{
    QFETCH(int, mode);
    QFETCH(int, section);
    Scene scene(static_cast<uint8_t>(mode), 0);
    const auto index = static_cast<uint8_t>(section);
    scene.sections[section].setAnswering(false);
    scene.fixture->runForMs(20100);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::NoResponse));
    scene.sections[section].setTemperature(77);
    scene.sections[section].setAnswering(true);
    // Pinged every 2 s while NoResponse: the next ping is answered.
    scene.fixture->runForMs(2100);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connected));
    QCOMPARE(scene.info[section].states,
             (std::vector<int>{ISectionConnection::NoResponse, ISectionConnection::Connected}));
    QVERIFY(scene.info[section].calls.contains(QStringLiteral("updateInfo 34 77")));
}

void TestSoftwareFaults::
    unpluggedLineLogsAndReportsAsAPulledAdapterAndComesBackWithinAnInterval_data()
{
    consoles();
}

void TestSoftwareFaults::unpluggedLineLogsAndReportsAsAPulledAdapterAndComesBackWithinAnInterval()
{
    QFETCH(int, mode);
    QFETCH(int, section);
    Scene scene(static_cast<uint8_t>(mode), 500);
    const auto index = static_cast<uint8_t>(section);
    const QString name = QStringLiteral("software section %1").arg(section);
    const QString gone = QStringLiteral("Device gone: %1").arg(name);
    const QString notFound = QStringLiteral("Device not found: %1").arg(name);
    LogCapture log;

    scene.sections[section].setPlugged(false);
    QCOMPARE(log.texts(), QStringList{QStringLiteral("Serial port error in WS section %1 Error "
                                                     "core: 9")
                                          .arg(section)});
    // The next pass sees the line down: Connecting with the port error.
    scene.fixture->runForMs(50);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connecting));
    QCOMPARE(scene.info[section].portErrors, QStringList{gone});
    // One interval on (counted from the pass that saw it), the reopen fails: the device is
    // not found.
    scene.fixture->runForMs(449);
    QCOMPARE(scene.info[section].portErrors, QStringList{gone});
    scene.fixture->runForMs(100);
    QCOMPARE(scene.info[section].portErrors, (QStringList{gone, notFound}));
    // Further attempts fail as the first did: nothing new in the log.
    scene.fixture->runForMs(1400);
    scene.sections[section].setPlugged(true);
    scene.fixture->runForMs(500);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connected));
    QCOMPARE(scene.info[section].states,
             (std::vector<int>{ISectionConnection::Connecting, ISectionConnection::Connected}));
    QCOMPARE(scene.info[section].portErrors, (QStringList{gone, notFound, QString()}));
    const QString quoted = QLatin1Char('"') + name + QLatin1Char('"');
    QCOMPARE(log.texts(),
             (QStringList{
                 QStringLiteral("Serial port error in WS section %1 Error core: 9").arg(section),
                 QStringLiteral("Section %1 link is down (%2). Retrying every 500 ms.")
                     .arg(section)
                     .arg(gone),
                 QStringLiteral("Unable to open connection to WS section %1  Connection name: %2 "
                                "The device was not found.")
                     .arg(section)
                     .arg(quoted),
                 QStringLiteral("Unable to open WS section %1 serial port with name:  %2")
                     .arg(section)
                     .arg(quoted),
                 QStringLiteral("Error was: DeviceNotFoundError"),
                 QStringLiteral("WS section %1 serial port: %2 ready and open.")
                     .arg(section)
                     .arg(quoted),
                 QStringLiteral("WS UPDATER: Received not in bootloader. Finished updating"),
                 QStringLiteral("Section %1 is back after 2 s").arg(section),
             }));
}

void TestSoftwareFaults::unpluggedLineWithoutReconnectStaysDownAfterReplugging_data()
{
    consoles();
}

void TestSoftwareFaults::unpluggedLineWithoutReconnectStaysDownAfterReplugging()
{
    QFETCH(int, mode);
    QFETCH(int, section);
    Scene scene(static_cast<uint8_t>(mode), 0);
    const auto index = static_cast<uint8_t>(section);
    const QString gone = QStringLiteral("Device gone: software section %1").arg(section);
    const QString notFound = QStringLiteral("Device not found: software section %1").arg(section);
    scene.sections[section].setPlugged(false);
    scene.fixture->runForMs(50);
    QCOMPARE(scene.info[section].portErrors, QStringList{gone});
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connected));
    // Silent from now on: NoResponse, then the restart's open fails.
    scene.fixture->runForMs(30100);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connecting));
    QCOMPARE(scene.info[section].portErrors, (QStringList{gone, notFound}));
    // Plugged in again, nothing reopens it.
    scene.sections[section].setPlugged(true);
    scene.fixture->runForMs(30000);
    QCOMPARE(scene.state(index), uint8_t(ISectionConnection::Connecting));
    QCOMPARE(scene.info[section].portErrors, (QStringList{gone, notFound}));
    QCOMPARE(scene.info[section].states,
             (std::vector<int>{ISectionConnection::NoResponse, ISectionConnection::Closed,
                               ISectionConnection::Connecting}));
}

QTEST_GUILESS_MAIN(TestSoftwareFaults)

#include "tst_softwarefaults.moc"
