#include <QSignalSpy>
#include <QtTest>
#include <climits>
#include <functional>
#include <memory>
#include <vector>

#include "serial/isectionconnection.h"
#include "serial/serialmessage.h"
#include "support/fakesectionconnection.h"
#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/recordingfader.h"
#include "support/recordinghandlerrepository.h"
#include "support/recordingsectioninfo.h"
#include "support/recordingsender.h"
#include "surface/componentfactory.h"
#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/iglobalrotarybindingtarget.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/section.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kNone = -1;

// A section with no controls that reports what the surface does to it, into a log shared
// with the fake connections.
class FakeSection : public ISection
{
public:
    FakeSection(uint8_t index, QStringList* log) : m_index(index), m_log(log) {}
    ~FakeSection() override { record("destroyed"); }

    uint8_t index() const override { return m_index; }
    uint8_t version() const override { return 0; }
    uint8_t temperature() const override { return 0; }
    std::shared_ptr<IPot> pot() const override { return nullptr; }
    const std::vector<std::shared_ptr<IFader>>& faders() const override { return m_faders; }
    const std::vector<std::shared_ptr<IButton>>& buttons() const override { return m_buttons; }
    const std::vector<std::shared_ptr<IRotary>>& rotaries() const override { return m_rotaries; }
    const std::vector<std::shared_ptr<ILed>>& leds() const override { return m_leds; }
    const std::vector<std::shared_ptr<IRgbLed>>& rgbLeds() const override { return m_rgbLeds; }
    const std::vector<std::shared_ptr<IMeter>>& meters() const override { return m_meters; }
    void setUpdating(bool updating) override
    {
        record(QStringLiteral("setUpdating %1").arg(updating ? "true" : "false"));
    }
    void setUpdateProgress(uint8_t percent) override
    {
        record(QStringLiteral("setUpdateProgress %1").arg(percent));
    }
    void setFaderRestMode(RestMode mode) override
    {
        record(QStringLiteral("setFaderRestMode %1").arg(int(mode)));
    }

private:
    void record(const QString& what)
    {
        m_log->append(QStringLiteral("section %1: %2").arg(m_index).arg(what));
    }

    uint8_t m_index;
    QStringList* m_log;
    std::vector<std::shared_ptr<IFader>> m_faders;
    std::vector<std::shared_ptr<IButton>> m_buttons;
    std::vector<std::shared_ptr<IRotary>> m_rotaries;
    std::vector<std::shared_ptr<ILed>> m_leds;
    std::vector<std::shared_ptr<IRgbLed>> m_rgbLeds;
    std::vector<std::shared_ptr<IMeter>> m_meters;
};

class CountingTarget : public IGlobalRotaryBindingTarget
{
public:
    void bind() override { ++binds; }
    int binds = 0;
};

// A surface of fake sections and fake connections sharing one log.
struct FakeSurface
{
    QStringList log;
    std::vector<std::shared_ptr<FakeSectionConnection>> connections;
    std::shared_ptr<Surface> surface;

    explicit FakeSurface(int count)
    {
        std::vector<std::shared_ptr<ISection>> sections;
        std::vector<std::shared_ptr<ISectionConnection>> links;
        for (int i = 0; i < count; ++i) {
            sections.push_back(std::make_shared<FakeSection>(uint8_t(i), &log));
            connections.push_back(std::make_shared<FakeSectionConnection>(uint8_t(i), &log));
            links.push_back(connections.back());
        }
        surface = std::make_shared<Surface>(std::move(sections), std::move(links));
        log.clear();
    }
};

// A surface of real sections (real components made by the real factories) on fake
// connections: the console of the given model with its master section.
struct RealSurface
{
    ManualClock clock{kStartNs};
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    std::shared_ptr<FakeSettings> settings = std::make_shared<FakeSettings>();
    std::vector<std::shared_ptr<RecordingSender>> senders;
    std::vector<std::shared_ptr<FakeSectionConnection>> connections;
    std::shared_ptr<Surface> surface;

    RealSurface(uint8_t sectionCount, uint8_t master)
    {
        settings->setSectionCount(sectionCount);
        settings->setMasterSectionIndex(master);
        SectionFactory factory(nullptr, std::make_unique<ComponentFactory>(pool));
        std::vector<std::shared_ptr<ISection>> sections;
        std::vector<std::shared_ptr<ISectionConnection>> links;
        for (uint8_t i = 0; i < sectionCount; ++i) {
            senders.push_back(std::make_shared<RecordingSender>());
            sections.push_back(factory.createSection(
                settings, std::make_shared<RecordingHandlerRepository>(), senders.back(), i));
            connections.push_back(std::make_shared<FakeSectionConnection>(i));
            links.push_back(connections.back());
        }
        surface = std::make_shared<Surface>(std::move(sections), std::move(links));
    }
};

// ---- the console's numbering, written out independently of the plugin's table ----------

int faderId(int type, int index)
{
    if (index < 0 || index > 255) {
        return kNone;
    }
    switch (type) {
        case 1:
            return index < 10 ? index : kNone;
        case 2:
            return 10;
    }
    return kNone;
}

int ledId(int type, int index)
{
    if (index < 0 || index > 255) {
        return kNone;
    }
    switch (type) {
        case 1:
            return index < 10 ? index : kNone;
        case 2:
            return index < 10 ? index + 10 : kNone;
        case 3:
            return 20;
        case 5:
            return 23;
        case 6:
            return 22;
        case 7:
            return 24;
        case 8:
            return 26;
        case 9:
            return 21;
        case 10:
            return 25;
    }
    return kNone;
}

int buttonId(int type, int index)
{
    if (index < 0 || index > 255) {
        return kNone;
    }
    switch (type) {
        case 1:
            return index < 10 ? index : kNone;
        case 2:
            return index < 10 ? index + 10 : kNone;
        case 3:
            return 20;
        case 5:
            return 39;
        case 6:
            return 38;
        case 7:
            return 40;
        case 8:
            return 42;
        case 9:
            return 37;
        case 10:
            return 41;
        case 11:
            return index < 10 ? index + 21 : kNone;
        case 12:
            return index < 6 ? index + 31 : kNone;
    }
    return kNone;
}

int rgbLedId(int type, int index)
{
    if (index < 0 || index > 255) {
        return kNone;
    }
    switch (type) {
        case 1:
            return index < 10 ? index : kNone;
        case 2:
            return index < 6 ? index + 10 : kNone;
        case 3:
            return 16;
        case 4:
            return 17;
        case 5:
            return 18;
        case 6:
            return 19;
        case 7:
            return 20;
        case 8:
            return 21;
    }
    return kNone;
}

int rotaryId(int type, int index)
{
    if (index < 0 || index > 255) {
        return kNone;
    }
    switch (type) {
        case 1:
            return index < 10 ? index : kNone;
        case 2:
            return index < 6 ? index + 10 : kNone;
    }
    return kNone;
}

// Which controls a section has: the strip controls everywhere, the rest on the master
// section only. The rotaries' push switches and rings are parts of the rotaries, not
// buttons or RGB LEDs of their own, so those types find nothing.
bool faderMade(int type, bool master)
{
    return type == 1 || (type == 2 && master);
}
bool ledOrButtonMade(int type, bool master)
{
    return type == 1 || type == 2 || (master && (type == 3 || (type >= 5 && type <= 10)));
}
bool rgbLedMade(int type, bool master)
{
    return master && type >= 3 && type <= 8;
}
bool rotaryMade(int type, bool master)
{
    return type == 1 || (type == 2 && master);
}

const QList<int> kTypes{INT_MIN, -1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 100, INT_MAX};
const QList<int> kSections{INT_MIN, -1, 0, 1, 2, 3, 255, 256, INT_MAX};
const QList<int> kIndices{INT_MIN, -1, 0,  1,  2,  3,  4,   5,   6,   7,      8,
                          9,       10, 11, 15, 16, 21, 254, 255, 256, INT_MAX};

template <typename Component>
bool isIn(const std::vector<std::shared_ptr<Component>>& list,
          const std::shared_ptr<Component>& component)
{
    return std::find(list.begin(), list.end(), component) != list.end();
}

QString where(int type, int section, int index)
{
    return QStringLiteral("type %1 section %2 index %3").arg(type).arg(section).arg(index);
}

// Where a section writes its link state and update flag: keeps the latest of each, and
// runs a hook after each update flag (standing for a QML handler on updatingChanged).
class LinkInfo : public ISectionInfo
{
public:
    void updateInfo(uint8_t, uint8_t) override {}
    void setUpdating(bool value) override
    {
        updating = value;
        if (onUpdating) {
            onUpdating(value);
        }
    }
    void setUpdateProgress(uint8_t) override {}
    void setLinkState(uint8_t state) override { linkState = state; }

    int linkState = -1;
    bool updating = false;
    std::function<void(bool)> onUpdating;
};

// One real section on one fake link, the section writing into `info`.
struct OneSectionSurface
{
    LinkInfo info;
    std::shared_ptr<FakeSectionConnection> connection = std::make_shared<FakeSectionConnection>(0);
    std::unique_ptr<Surface> surface;

    OneSectionSurface()
    {
        std::vector<std::shared_ptr<ISection>> sections{std::make_shared<Section>(
            0, &info, nullptr, std::vector<std::shared_ptr<IFader>>{},
            std::vector<std::shared_ptr<IButton>>{}, std::vector<std::shared_ptr<IRotary>>{},
            std::vector<std::shared_ptr<ILed>>{}, std::vector<std::shared_ptr<IRgbLed>>{},
            std::vector<std::shared_ptr<IMeter>>{})};
        surface = std::make_unique<Surface>(
            std::move(sections), std::vector<std::shared_ptr<ISectionConnection>>{connection});
    }
};

}  // namespace

class TestSurface : public QObject
{
    Q_OBJECT

private slots:
    void becomesTheStateListenerOfEveryConnection();
    void isCalibratingWhenAnyConnectionCalibrates_data();
    void isCalibratingWhenAnyConnectionCalibrates();
    void brightnessIsQueuedOnEveryConnection();
    void overBrightnessIsQueuedOnEveryConnection();
    void restModeAndBrightnessReachEverySection();
    void restModeReachesEveryFaderOfEverySection();
    void startOpensAndStopClosesEveryConnectionInOrder();
    void calibrateStartsCalibrationOnEveryConnection();
    void anyStateChangeOfAnyConnectionEmitsIsCalibratingChanged_data();
    void anyStateChangeOfAnyConnectionEmitsIsCalibratingChanged();
    void updatingStateMarksOnlyThatSectionUpdating();
    void isCalibratingChangedHandlersReadTheStateTheyAreToldOf();
    void aStateChangedAgainFromAnIsCalibratingChangedHandlerIsTheOneThatStays();
    void aStateChangedAgainFromAnUpdatingHandlerIsTheOneThatStays();
    void stateOfAnUnknownSectionOnlyEmits();
    void updateProgressPassesThroughToTheSection();
    void sentMessageCountChangesNothing();
    void faderLookups_data();
    void faderLookups();
    void ledLookups_data();
    void ledLookups();
    void buttonLookups_data();
    void buttonLookups();
    void rgbLedLookups_data();
    void rgbLedLookups();
    void rotaryLookups_data();
    void rotaryLookups();
    void potLookups_data();
    void potLookups();
    void meterLookups_data();
    void meterLookups();
    void lookupTakesTheFirstSectionWithTheIndex();
    void globalTargetOfferAnswersRefusedUnboundOrBound();
    void globalTargetOfferForNoRotaryIsRefused();
    void destructionReleasesConnectionsBeforeSections();
    void connectionThatOutlivesTheSurfaceNoLongerReportsToIt();

private:
    static void addModels();
};

void TestSurface::addModels()
{
    QTest::addColumn<int>("sectionCount");
    QTest::addColumn<int>("master");
    QTest::newRow("two sections") << 2 << 1;
    QTest::newRow("three sections") << 3 << 2;
}

void TestSurface::becomesTheStateListenerOfEveryConnection()
{
    FakeSurface fake(3);
    for (const auto& connection : fake.connections) {
        QCOMPARE(connection->listenersSet(),
                 std::vector<ISectionStateListener*>{fake.surface.get()});
    }
    QCOMPARE(fake.surface->connections().size(), std::size_t(3));
    QCOMPARE(fake.surface->sections().size(), std::size_t(3));
}

void TestSurface::isCalibratingWhenAnyConnectionCalibrates_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("second");
    QTest::addColumn<int>("third");
    QTest::addColumn<bool>("calibrating");
    QTest::newRow("all closed") << 1 << 1 << 1 << false;
    QTest::newRow("all connected") << 0 << 0 << 0 << false;
    QTest::newRow("updating, error, no response") << 3 << 5 << 6 << false;
    QTest::newRow("first calibrating") << 4 << 0 << 0 << true;
    QTest::newRow("last calibrating") << 0 << 2 << 4 << true;
    QTest::newRow("all calibrating") << 4 << 4 << 4 << true;
}

void TestSurface::isCalibratingWhenAnyConnectionCalibrates()
{
    QFETCH(int, first);
    QFETCH(int, second);
    QFETCH(int, third);
    QFETCH(bool, calibrating);
    FakeSurface fake(3);
    fake.connections[0]->setState(uint8_t(first));
    fake.connections[1]->setState(uint8_t(second));
    fake.connections[2]->setState(uint8_t(third));
    QCOMPARE(fake.surface->isCalibrating(), calibrating);
}

void TestSurface::brightnessIsQueuedOnEveryConnection()
{
    FakeSurface fake(3);
    fake.surface->setSurfaceBrightness(0x80);
    fake.surface->setSurfaceBrightness(0);
    for (const auto& connection : fake.connections) {
        QCOMPARE(connection->enqueued().size(), std::size_t(2));
        QCOMPARE(connection->enqueued()[0], SerialMessage(6, 0, {0x80}));
        QCOMPARE(encode(connection->enqueued()[0]), QByteArray::fromHex("040600808a"));
        QCOMPARE(encode(connection->enqueued()[1]), QByteArray::fromHex("040600000a"));
    }
    QCOMPARE(fake.log,
             QStringList({"connection 0: enqueueMessage", "connection 1: enqueueMessage",
                          "connection 2: enqueueMessage", "connection 0: enqueueMessage",
                          "connection 1: enqueueMessage", "connection 2: enqueueMessage"}));
}

void TestSurface::overBrightnessIsQueuedOnEveryConnection()
{
    FakeSurface fake(2);
    fake.surface->setSurfaceOverBrightness(0xff);
    for (const auto& connection : fake.connections) {
        QCOMPARE(connection->enqueued().size(), std::size_t(1));
        QCOMPARE(connection->enqueued()[0], SerialMessage(22, 0, {0xff}));
        QCOMPARE(encode(connection->enqueued()[0]), QByteArray::fromHex("041600ff19"));
    }
}

void TestSurface::restModeAndBrightnessReachEverySection()
{
    FakeSurface fake(3);
    fake.surface->setFaderRestMode(RestMode::KeepCurrent);
    fake.surface->setSurfaceBrightness(100);
    QCOMPARE(fake.log,
             QStringList({"section 0: setFaderRestMode 1", "section 1: setFaderRestMode 1",
                          "section 2: setFaderRestMode 1", "connection 0: enqueueMessage",
                          "connection 1: enqueueMessage", "connection 2: enqueueMessage"}));
    for (const auto& connection : fake.connections) {
        QCOMPARE(connection->enqueued(), std::vector<SerialMessage>{SerialMessage(6, 0, {100})});
    }
}

void TestSurface::restModeReachesEveryFaderOfEverySection()
{
    QStringList log;
    std::vector<std::shared_ptr<ISection>> sections;
    std::vector<std::shared_ptr<ISectionConnection>> links;
    for (uint8_t s = 0; s < 2; ++s) {
        std::vector<std::shared_ptr<IFader>> faders;
        for (uint8_t id : {0, 9, 10}) {
            faders.push_back(std::make_shared<RecordingFader>(s, id, FaderType::Fader, &log));
        }
        sections.push_back(std::make_shared<Section>(
            s, nullptr, nullptr, std::move(faders), std::vector<std::shared_ptr<IButton>>{},
            std::vector<std::shared_ptr<IRotary>>{}, std::vector<std::shared_ptr<ILed>>{},
            std::vector<std::shared_ptr<IRgbLed>>{}, std::vector<std::shared_ptr<IMeter>>{}));
        links.push_back(std::make_shared<FakeSectionConnection>(s));
    }
    Surface surface(std::move(sections), std::move(links));

    surface.setFaderRestMode(RestMode::KeepCurrent);
    QCOMPARE(log, QStringList({"fader 0/0: setRestMode 1", "fader 0/9: setRestMode 1",
                               "fader 0/10: setRestMode 1", "fader 1/0: setRestMode 1",
                               "fader 1/9: setRestMode 1", "fader 1/10: setRestMode 1"}));
    log.clear();
    surface.setFaderRestMode(RestMode::ForceMinimum);
    QCOMPARE(log.size(), 6);
    QCOMPARE(log.first(), QStringLiteral("fader 0/0: setRestMode 0"));
    QCOMPARE(log.last(), QStringLiteral("fader 1/10: setRestMode 0"));
    log.clear();
}

void TestSurface::startOpensAndStopClosesEveryConnectionInOrder()
{
    FakeSurface fake(3);
    fake.surface->start();
    fake.surface->stop();
    fake.surface->start();
    QCOMPARE(fake.log,
             QStringList({"connection 0: open", "connection 1: open", "connection 2: open",
                          "connection 0: close", "connection 1: close", "connection 2: close",
                          "connection 0: open", "connection 1: open", "connection 2: open"}));
}

void TestSurface::calibrateStartsCalibrationOnEveryConnection()
{
    FakeSurface fake(3);
    fake.surface->calibrate();
    // QML calls it by name.
    QVERIFY(QMetaObject::invokeMethod(fake.surface.get(), "calibrate"));
    QCOMPARE(fake.log,
             QStringList({"connection 0: startCalibration", "connection 1: startCalibration",
                          "connection 2: startCalibration", "connection 0: startCalibration",
                          "connection 1: startCalibration", "connection 2: startCalibration"}));
}

void TestSurface::anyStateChangeOfAnyConnectionEmitsIsCalibratingChanged_data()
{
    QTest::addColumn<int>("connection");
    QTest::addColumn<int>("state");
    for (int connection = 0; connection < 3; ++connection) {
        for (int state = 0; state <= 6; ++state) {
            QTest::addRow("connection %d state %d", connection, state) << connection << state;
        }
    }
}

void TestSurface::anyStateChangeOfAnyConnectionEmitsIsCalibratingChanged()
{
    QFETCH(int, connection);
    QFETCH(int, state);
    FakeSurface fake(3);
    QSignalSpy changed(fake.surface.get(), &ISurface::isCalibratingChanged);
    bool calibratingWhenSignalled = false;
    connect(fake.surface.get(), &ISurface::isCalibratingChanged, this,
            [&] { calibratingWhenSignalled = fake.surface->isCalibrating(); });

    QVERIFY(fake.connections[std::size_t(connection)]->reportState(uint8_t(state)));

    QCOMPARE(changed.count(), 1);
    QCOMPARE(calibratingWhenSignalled, state == ISectionConnection::Calibrating);
}

void TestSurface::updatingStateMarksOnlyThatSectionUpdating()
{
    RecordingSectionInfo infos[3];
    std::vector<std::shared_ptr<ISection>> sections;
    std::vector<std::shared_ptr<FakeSectionConnection>> connections;
    std::vector<std::shared_ptr<ISectionConnection>> links;
    for (uint8_t s = 0; s < 3; ++s) {
        sections.push_back(std::make_shared<Section>(
            s, &infos[s], nullptr, std::vector<std::shared_ptr<IFader>>{},
            std::vector<std::shared_ptr<IButton>>{}, std::vector<std::shared_ptr<IRotary>>{},
            std::vector<std::shared_ptr<ILed>>{}, std::vector<std::shared_ptr<IRgbLed>>{},
            std::vector<std::shared_ptr<IMeter>>{}));
        connections.push_back(std::make_shared<FakeSectionConnection>(s));
        links.push_back(connections.back());
    }
    Surface surface(std::move(sections), std::move(links));

    connections[1]->reportState(ISectionConnection::Connecting);
    connections[1]->reportState(ISectionConnection::Updating);
    connections[1]->reportState(ISectionConnection::Connecting);
    connections[1]->reportState(ISectionConnection::Connected);

    QCOMPARE(infos[1].calls, QStringList({"setUpdating false", "setUpdating true",
                                          "setUpdating false", "setUpdating false"}));
    QVERIFY(infos[0].calls.isEmpty());
    QVERIFY(infos[2].calls.isEmpty());
}

// A handler of isCalibratingChanged reads the section's link state and update flag as the
// change it is told of left them.
void TestSurface::isCalibratingChangedHandlersReadTheStateTheyAreToldOf()
{
    OneSectionSurface one;
    QList<int> statesRead;
    QList<bool> updatingRead;
    connect(one.surface.get(), &ISurface::isCalibratingChanged, this, [&] {
        statesRead << one.info.linkState;
        updatingRead << one.info.updating;
    });
    one.connection->reportState(ISectionConnection::Connecting);
    one.connection->reportState(ISectionConnection::Updating);
    one.connection->reportState(ISectionConnection::Connected);
    one.connection->reportState(ISectionConnection::Calibrating);
    QCOMPARE(statesRead,
             (QList<int>{ISectionConnection::Connecting, ISectionConnection::Updating,
                         ISectionConnection::Connected, ISectionConnection::Calibrating}));
    QCOMPARE(updatingRead, (QList<bool>{false, true, false, false}));
}

// The handler calibrates: the link tells of Calibrating from inside the handler of the
// Connected report. Calibrating is the state the section shows afterwards.
void TestSurface::aStateChangedAgainFromAnIsCalibratingChangedHandlerIsTheOneThatStays()
{
    OneSectionSurface one;
    bool calibrated = false;
    connect(one.surface.get(), &ISurface::isCalibratingChanged, this, [&] {
        if (!calibrated && one.connection->state() == ISectionConnection::Connected) {
            calibrated = true;
            one.connection->reportState(ISectionConnection::Calibrating);
        }
    });
    QSignalSpy changed(one.surface.get(), &ISurface::isCalibratingChanged);
    one.connection->reportState(ISectionConnection::Connected);
    QVERIFY(calibrated);
    QVERIFY(one.surface->isCalibrating());
    QCOMPARE(one.info.linkState, int(ISectionConnection::Calibrating));
    QCOMPARE(one.info.updating, false);
    QCOMPARE(changed.count(), 2);
}

// A handler of the section's updatingChanged ends the update from the link's point of view
// (the link tells of Connected from inside it): the section shows Connected, not updating.
void TestSurface::aStateChangedAgainFromAnUpdatingHandlerIsTheOneThatStays()
{
    OneSectionSurface one;
    one.info.onUpdating = [&](bool updating) {
        if (updating) {
            one.connection->reportState(ISectionConnection::Connected);
        }
    };
    one.connection->reportState(ISectionConnection::Updating);
    QCOMPARE(one.info.linkState, int(ISectionConnection::Connected));
    QCOMPARE(one.info.updating, false);
}

void TestSurface::stateOfAnUnknownSectionOnlyEmits()
{
    QStringList log;
    auto stray = std::make_shared<FakeSectionConnection>(7, &log);
    Surface surface({std::make_shared<FakeSection>(0, &log)}, {stray});
    QSignalSpy changed(&surface, &ISurface::isCalibratingChanged);
    log.clear();

    QVERIFY(stray->reportState(ISectionConnection::Updating));
    QVERIFY(stray->reportProgress(50));

    QCOMPARE(changed.count(), 1);
    QVERIFY(log.isEmpty());
}

void TestSurface::updateProgressPassesThroughToTheSection()
{
    FakeSurface fake(3);
    QSignalSpy changed(fake.surface.get(), &ISurface::isCalibratingChanged);
    fake.connections[2]->reportProgress(0);
    fake.connections[2]->reportProgress(37);
    fake.connections[0]->reportProgress(100);
    fake.connections[2]->reportProgress(250);
    QCOMPARE(fake.log,
             QStringList({"section 2: setUpdateProgress 0", "section 2: setUpdateProgress 37",
                          "section 0: setUpdateProgress 100", "section 2: setUpdateProgress 250"}));
    QCOMPARE(changed.count(), 0);
}

void TestSurface::sentMessageCountChangesNothing()
{
    FakeSurface fake(2);
    QSignalSpy changed(fake.surface.get(), &ISurface::isCalibratingChanged);
    QVERIFY(fake.connections[0]->reportSentMessageCount(12));
    QVERIFY(fake.log.isEmpty());
    QCOMPARE(changed.count(), 0);
}

// ---- lookups ------------------------------------------------------------------------------

void TestSurface::faderLookups_data()
{
    addModels();
}

void TestSurface::faderLookups()
{
    QFETCH(int, sectionCount);
    QFETCH(int, master);
    RealSurface real(static_cast<uint8_t>(sectionCount), static_cast<uint8_t>(master));
    int found = 0;
    for (int type : kTypes) {
        for (int section : kSections) {
            for (int index : kIndices) {
                const auto fader = real.surface->fader(type, section, index);
                const bool exists = section >= 0 && section < sectionCount &&
                                    faderId(type, index) != kNone &&
                                    faderMade(type, section == master);
                QVERIFY2((fader != nullptr) == exists, qPrintable(where(type, section, index)));
                if (fader) {
                    ++found;
                    QCOMPARE(int(fader->deviceId()), faderId(type, index));
                    QCOMPARE(int(fader->faderType()), type);
                    QCOMPARE(int(fader->sectionIndex()), section);
                    QVERIFY(isIn(real.surface->sections()[std::size_t(section)]->faders(), fader));
                }
            }
        }
    }
    // Ten strip faders per section at indices 0 to 9, and the master fader under each of
    // the 17 indices from 0 to 255 that the list tries.
    QCOMPARE(found, sectionCount * 10 + 17);
}

void TestSurface::ledLookups_data()
{
    addModels();
}

void TestSurface::ledLookups()
{
    QFETCH(int, sectionCount);
    QFETCH(int, master);
    RealSurface real(static_cast<uint8_t>(sectionCount), static_cast<uint8_t>(master));
    for (int type : kTypes) {
        for (int section : kSections) {
            for (int index : kIndices) {
                const auto led = real.surface->led(type, section, index);
                const bool exists = section >= 0 && section < sectionCount &&
                                    ledId(type, index) != kNone &&
                                    ledOrButtonMade(type, section == master);
                QVERIFY2((led != nullptr) == exists, qPrintable(where(type, section, index)));
                if (led) {
                    QCOMPARE(int(led->deviceId()), ledId(type, index));
                    QCOMPARE(int(led->ledType()), type);
                    QCOMPARE(int(led->sectionIndex()), section);
                    QVERIFY(isIn(real.surface->sections()[std::size_t(section)]->leds(), led));
                }
            }
        }
    }
}

void TestSurface::buttonLookups_data()
{
    addModels();
}

void TestSurface::buttonLookups()
{
    QFETCH(int, sectionCount);
    QFETCH(int, master);
    RealSurface real(static_cast<uint8_t>(sectionCount), static_cast<uint8_t>(master));
    for (int type : kTypes) {
        for (int section : kSections) {
            for (int index : kIndices) {
                const auto button = real.surface->button(type, section, index);
                const bool exists = section >= 0 && section < sectionCount &&
                                    buttonId(type, index) != kNone &&
                                    ledOrButtonMade(type, section == master);
                QVERIFY2((button != nullptr) == exists, qPrintable(where(type, section, index)));
                if (button) {
                    QCOMPARE(int(button->deviceId()), buttonId(type, index));
                    QCOMPARE(int(button->buttonType()), type);
                    QCOMPARE(int(button->sectionIndex()), section);
                    QVERIFY(
                        isIn(real.surface->sections()[std::size_t(section)]->buttons(), button));
                }
            }
        }
    }
}

void TestSurface::rgbLedLookups_data()
{
    addModels();
}

void TestSurface::rgbLedLookups()
{
    QFETCH(int, sectionCount);
    QFETCH(int, master);
    RealSurface real(static_cast<uint8_t>(sectionCount), static_cast<uint8_t>(master));
    for (int type : kTypes) {
        for (int section : kSections) {
            for (int index : kIndices) {
                const auto led = real.surface->rgbLed(type, section, index);
                const bool exists = section >= 0 && section < sectionCount &&
                                    rgbLedId(type, index) != kNone &&
                                    rgbLedMade(type, section == master);
                QVERIFY2((led != nullptr) == exists, qPrintable(where(type, section, index)));
                if (led) {
                    QCOMPARE(int(led->deviceId()), rgbLedId(type, index));
                    QCOMPARE(int(led->rgbLedType()), type);
                    QCOMPARE(int(led->sectionIndex()), section);
                    QVERIFY(isIn(real.surface->sections()[std::size_t(section)]->rgbLeds(), led));
                }
            }
        }
    }
}

void TestSurface::rotaryLookups_data()
{
    addModels();
}

void TestSurface::rotaryLookups()
{
    QFETCH(int, sectionCount);
    QFETCH(int, master);
    RealSurface real(static_cast<uint8_t>(sectionCount), static_cast<uint8_t>(master));
    for (int type : kTypes) {
        for (int section : kSections) {
            for (int index : kIndices) {
                const auto rotary = real.surface->rotary(type, section, index);
                const bool exists = section >= 0 && section < sectionCount &&
                                    rotaryId(type, index) != kNone &&
                                    rotaryMade(type, section == master);
                QVERIFY2((rotary != nullptr) == exists, qPrintable(where(type, section, index)));
                if (rotary) {
                    QCOMPARE(int(rotary->rotaryDeviceId()), rotaryId(type, index));
                    QCOMPARE(int(rotary->rotaryType()), type);
                    QCOMPARE(int(rotary->sectionIndex()), section);
                    QVERIFY(
                        isIn(real.surface->sections()[std::size_t(section)]->rotaries(), rotary));
                }
            }
        }
    }
}

void TestSurface::potLookups_data()
{
    addModels();
}

void TestSurface::potLookups()
{
    QFETCH(int, sectionCount);
    QFETCH(int, master);
    RealSurface real(static_cast<uint8_t>(sectionCount), static_cast<uint8_t>(master));
    const auto masterPot = real.surface->sections()[std::size_t(master)]->pot();
    QVERIFY(masterPot);
    for (int type : kTypes) {
        for (int section : kSections) {
            const auto pot = real.surface->pot(type, section);
            if (type == 1 && section == master) {
                QCOMPARE(pot, masterPot);
            } else {
                QVERIFY2(!pot, qPrintable(where(type, section, 0)));
            }
        }
    }
}

void TestSurface::meterLookups_data()
{
    addModels();
}

void TestSurface::meterLookups()
{
    QFETCH(int, sectionCount);
    QFETCH(int, master);
    RealSurface real(static_cast<uint8_t>(sectionCount), static_cast<uint8_t>(master));
    for (int type : kTypes) {
        for (int section : kSections) {
            const auto meter = real.surface->meter(type, section);
            const bool exists = section == master && (type == 1 || type == 2);
            QVERIFY2((meter != nullptr) == exists, qPrintable(where(type, section, 0)));
            if (meter) {
                QCOMPARE(int(meter->deviceId()), type - 1);
                QCOMPARE(int(meter->meterType()), type);
                QCOMPARE(int(meter->sectionIndex()), master);
            }
        }
    }
}

void TestSurface::lookupTakesTheFirstSectionWithTheIndex()
{
    ManualClock clock(kStartNs);
    auto pool = std::make_shared<TaskPool>();
    auto settings = std::make_shared<FakeSettings>();
    settings->setMasterSectionIndex(255);
    SectionFactory factory(nullptr, std::make_unique<ComponentFactory>(pool));
    auto repository = std::make_shared<RecordingHandlerRepository>();
    auto sender = std::make_shared<RecordingSender>();
    auto first = factory.createSection(settings, repository, sender, 1);
    auto second = factory.createSection(settings, repository, sender, 1);
    Surface surface({first, second}, {std::make_shared<FakeSectionConnection>(1)});

    QCOMPARE(surface.fader(1, 1, 4), first->faders()[4]);
    QCOMPARE(surface.led(2, 1, 4), first->leds()[9]);
    QVERIFY(!surface.fader(1, 0, 4));
}

void TestSurface::globalTargetOfferAnswersRefusedUnboundOrBound()
{
    RealSurface real(3, 2);
    CountingTarget first;
    CountingTarget second;
    LogCapture log;

    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 3, &first), 1);
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 3, &first), 1);
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 3, &second), 0);
    QCOMPARE(log.texts(QtWarningMsg),
             QStringList{"Rotary global target can be bound only into one binding at the time. "
                         "Rotary id: 3"});

    const auto handle = real.surface->rotary(1, 0, 3)->getHandle();
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 3, &first), 2);
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 3, nullptr), 2);
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 3, &second), 2);

    // The master section's side rotaries take targets too, and each rotary has its own.
    QCOMPARE(real.surface->offerGlobalTarget(2, 2, 5, &first), 1);
    QCOMPARE(real.surface->offerGlobalTarget(1, 1, 3, &first), 1);
    QCOMPARE(log.texts(QtWarningMsg).size(), 1);
    QCOMPARE(first.binds, 0);
    QCOMPARE(second.binds, 0);
}

void TestSurface::globalTargetOfferForNoRotaryIsRefused()
{
    RealSurface real(3, 2);
    CountingTarget target;
    LogCapture log;
    QCOMPARE(real.surface->offerGlobalTarget(2, 0, 0, &target), 0);  // no side rotary here
    QCOMPARE(real.surface->offerGlobalTarget(1, 3, 0, &target), 0);
    QCOMPARE(real.surface->offerGlobalTarget(1, -1, 0, &target), 0);
    QCOMPARE(real.surface->offerGlobalTarget(1, 255, 0, &target), 0);
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 10, &target), 0);
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, -1, &target), 0);
    QCOMPARE(real.surface->offerGlobalTarget(2, 2, 6, &target), 0);
    QCOMPARE(real.surface->offerGlobalTarget(0, 0, 0, &target), 0);
    QCOMPARE(real.surface->offerGlobalTarget(3, 0, 0, &target), 0);
    QVERIFY(log.lines().isEmpty());
    // None of them stored the target anywhere.
    QCOMPARE(real.surface->offerGlobalTarget(1, 0, 0, nullptr), 1);
    CountingTarget other;
    QCOMPARE(real.surface->offerGlobalTarget(2, 2, 5, &other), 1);
}

void TestSurface::destructionReleasesConnectionsBeforeSections()
{
    QStringList log;
    {
        std::vector<std::shared_ptr<ISection>> sections;
        std::vector<std::shared_ptr<ISectionConnection>> links;
        for (uint8_t i = 0; i < 3; ++i) {
            sections.push_back(std::make_shared<FakeSection>(i, &log));
            links.push_back(std::make_shared<FakeSectionConnection>(i, &log));
        }
        auto surface = std::make_shared<Surface>(std::move(sections), std::move(links));
        log.clear();
    }
    QStringList destroyed;
    for (const QString& line : log) {
        if (line.endsWith(QLatin1String(": destroyed"))) {
            destroyed << line.section(QLatin1Char(' '), 0, 0);
        }
    }
    QCOMPARE(destroyed, QStringList({"connection", "connection", "connection", "section", "section",
                                     "section"}));
}

void TestSurface::connectionThatOutlivesTheSurfaceNoLongerReportsToIt()
{
    auto kept = std::make_shared<FakeSectionConnection>(0);
    {
        QStringList log;
        Surface surface({std::make_shared<FakeSection>(0, &log)}, {kept});
        QCOMPARE(kept->stateListener(), static_cast<ISectionStateListener*>(&surface));
    }
    QCOMPARE(kept->stateListener(), static_cast<ISectionStateListener*>(nullptr));
    QVERIFY(!kept->reportState(ISectionConnection::Connected));
}

QTEST_GUILESS_MAIN(TestSurface)
#include "tst_surface.moc"
