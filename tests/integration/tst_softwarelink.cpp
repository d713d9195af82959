#include <QtTest>
#include <memory>

#include "base/logger.h"
#include "base/settings.h"
#include "serial/isectionconnection.h"
#include "serial/iserialconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialconnectionfactory.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "serial/softwareserialconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesoftwarehandler.h"
#include "support/logcapture.h"
#include "support/manualclock.h"
#include "support/recordingdatareceiver.h"
#include "support/recordingstatelistener.h"
#include "support/serialframes.h"
#include "tasks/taskpool.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kSection = 2;
constexpr uint8_t kSoftware = 1;
constexpr uint8_t kK60 = 2;
// The clock reads like a board that has been up for a while, as steady_clock does.

SerialMessage faderPosition(uint8_t deviceId, uint16_t position)
{
    return SerialMessage(MessageType::FaderPosition, deviceId,
                         {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position)});
}

// One section of a software surface, assembled the way the connection factory does it:
// the section connection on a software serial connection (made by the serial connection
// factory) through the shared controller connection, a real task pool driven by hand and a
// real firmware updater. The section's side of the link is tapped so the test sees the
// bytes the simulated section sends before the section connection parses them.
struct SoftwareLink
{
    ManualClock clock{kStartNs};
    std::shared_ptr<Settings> settings = std::make_shared<Settings>();
    std::shared_ptr<Logger> logger = std::make_shared<Logger>(settings);
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    std::shared_ptr<QmlControllerConnection> controller =
        std::make_shared<QmlControllerConnection>();
    std::shared_ptr<RootSerialMessageHandler> root = std::make_shared<RootSerialMessageHandler>();
    std::shared_ptr<SerialMessageQueue> queue = std::make_shared<SerialMessageQueue>();
    // Stands for the section object: takes the section's version report (type 0, device 0).
    std::shared_ptr<FakeSerialMessageHandler> versionHandler =
        std::make_shared<FakeSerialMessageHandler>("version");
    // Stands for a fader component on device 4.
    std::shared_ptr<FakeSerialMessageHandler> faderHandler =
        std::make_shared<FakeSerialMessageHandler>("fader");
    std::shared_ptr<ISerialConnection> serial;
    std::shared_ptr<SectionConnection> section;
    RecordingDataReceiver tap;
    RecordingStateListener listener;

    SoftwareLink()
    {
        settings->setType(kSoftware);
        settings->setMode(kK60);
        versionHandler->setRule([](const SerialMessage& message) {
            return message.type == MessageType::Ping && message.deviceId == 0;
        });
        faderHandler->takeDevice(4);
        root->addHandler(versionHandler);
        root->addHandler(faderHandler);

        SerialConnectionFactory factory(settings, controller);
        serial = factory.createSerialConnection(kSection, settings);
        section = std::make_shared<SectionConnection>(
            kSection, root, queue, serial, pool,
            std::make_unique<SectionUpdater>(pool, settings, logger), logger);
        section->setStateListener(&listener);
        tap.setReaction([this](const QByteArray& bytes) { section->dataReceived(bytes); });
        serial->setDataReceiver(&tap);
    }

    // One 50 ms supervision pass (and whatever else is due), just past the interval.
    void pass()
    {
        clock.advanceNs(SectionConnection::kTaskIntervalMs * 1000000 + 1000);
        pool->runPendingTasks();
    }
};

}  // namespace

class TestSoftwareLink : public QObject
{
    Q_OBJECT

private slots:
    void factoryMakesASoftwareConnectionForASoftwareSurface();
    void openingAnswersTheBootloaderProbeSoTheLinkGoesConnectingToConnected();
    void pingIsAnsweredWithTheSimulatedSectionsVersionReport();
    void queuedMessagesReachARegisteredSoftwareHandler();
    void messagesQueuedBeforeTheLinkIsUpWaitAndThenArrive();
    void controlsAnswerDuringTheDrainReachTheSectionsHandlers();
    void replayLastMessageReplaysRememberedMessages();
    void serialErrorFromAControlIsFlushedWithZeroBytesAndTheLinkRecovers();
    void restartedLinkComesBackThroughTheBootloaderProbe();
    void clearedReceiversSilenceTheSectionUntilItRegistersAgain();
};

void TestSoftwareLink::factoryMakesASoftwareConnectionForASoftwareSurface()
{
    SoftwareLink link;
    QVERIFY(dynamic_cast<SoftwareSerialConnection*>(link.serial.get()) != nullptr);
    QCOMPARE(link.controller->dataReceiver(kSection), &link.tap);
    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::Closed));
}

void TestSoftwareLink::openingAnswersTheBootloaderProbeSoTheLinkGoesConnectingToConnected()
{
    SoftwareLink link;
    LogCapture log;

    link.section->open();

    // The updater's AutoBaud (55 55) is answered by the simulated section with
    // NotBootLoader (AA) at once: no bootloader, the application runs.
    QCOMPARE(link.tap.chunks(), QList<QByteArray>{QByteArray::fromHex("aa")});
    QCOMPARE(link.listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Connecting, ISectionConnection::Connected}));
    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::Connected));
    QVERIFY(link.serial->isOpen());
    QCOMPARE(log.texts(QtInfoMsg),
             QStringList{"WS UPDATER: Received not in bootloader. Finished updating"});
    QCOMPARE(log.texts(QtWarningMsg), QStringList());
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
    // The probe is not a message: nothing reached the controls.
    QCOMPARE(link.controller->lastMessages().size(), std::size_t(0));
}

void TestSoftwareLink::pingIsAnsweredWithTheSimulatedSectionsVersionReport()
{
    SoftwareLink link;
    FakeSoftwareHandler control;  // a software control that does not play the section
    link.controller->addSoftwareHandler(&control);
    link.section->open();
    link.tap.clear();
    LogCapture log;

    link.pass();

    // The plugin's ping went through the software link's parser to the controller...
    QCOMPARE(control.offerCount(), 1);
    QCOMPARE(control.offers()[0].sectionIndex, kSection);
    QCOMPARE(encode(control.offers()[0].message), QByteArray::fromHex("03000003"));
    // ...which answered for section 2 with version 10.34 and temperature 55 + 2.
    QCOMPARE(link.tap.chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22396b")});
    // The section connection's parser accepted the frame and the section took it.
    QCOMPARE(link.versionHandler->taken().size(), std::size_t(1));
    QCOMPARE(SerialFrames::wireBytes(link.versionHandler->taken()[0]),
             QByteArray::fromHex("0600000a22396b"));
    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::Connected));
    QCOMPARE(link.serial->messageCount(), uint64_t(1));
    QCOMPARE(log.texts(QtWarningMsg), QStringList());
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());

    // The next ping goes more than 2 s later (41 passes of just over 50 ms), and is
    // answered the same way.
    for (int i = 0; i < 40; ++i) {
        link.pass();
    }
    QCOMPARE(link.versionHandler->taken().size(), std::size_t(1));
    link.pass();
    QCOMPARE(link.versionHandler->taken().size(), std::size_t(2));
    QCOMPARE(link.serial->messageCount(), uint64_t(2));
}

void TestSoftwareLink::queuedMessagesReachARegisteredSoftwareHandler()
{
    SoftwareLink link;
    FakeSoftwareHandler fader;
    fader.takeOnly(MessageType::FaderPosition, 4);
    link.controller->addSoftwareHandler(&fader);
    link.section->open();

    link.section->enqueueMessage(faderPosition(4, 300));
    link.section->enqueueMessage(SerialMessage(MessageType::Led, 9, {200, 0}));
    link.pass();

    // The ping of the pass, then the drained queue in order.
    QCOMPARE(fader.offerCount(), 3);
    QCOMPARE(fader.offers()[0].message.type, uint8_t(MessageType::Ping));
    QCOMPARE(fader.offers()[1].sectionIndex, kSection);
    QCOMPARE(encode(fader.offers()[1].message), QByteArray::fromHex("050704012c3d"));
    QCOMPARE(fader.offers()[2].message, SerialMessage(MessageType::Led, 9, {200, 0}));
    QCOMPARE(link.serial->messageCount(), uint64_t(3));
    QCOMPARE(link.listener.sentCounts(), std::vector<uint64_t>{3});
}

void TestSoftwareLink::messagesQueuedBeforeTheLinkIsUpWaitAndThenArrive()
{
    SoftwareLink link;
    FakeSoftwareHandler fader;
    link.controller->addSoftwareHandler(&fader);
    link.section->enqueueMessage(faderPosition(4, 511));

    link.pass();
    QCOMPARE(fader.offerCount(), 0);

    link.section->open();
    link.pass();
    QCOMPARE(fader.offerCount(), 2);
    QCOMPARE(fader.offers()[1].message, faderPosition(4, 511));
}

void TestSoftwareLink::controlsAnswerDuringTheDrainReachTheSectionsHandlers()
{
    // A software fader answers a position with a touch at once: the frame comes back to
    // the section connection while its pass is still draining.
    SoftwareLink link;
    FakeSoftwareHandler fader;
    fader.setRule([&](uint8_t sectionIndex, const SerialMessage& message) {
        if (message.type != MessageType::FaderPosition || message.deviceId != 4) {
            return false;
        }
        link.controller->sendToPlugin(sectionIndex, SerialMessage(MessageType::FaderTouch, 4, {1}));
        return true;
    });
    link.controller->addSoftwareHandler(&fader);
    link.section->open();
    link.section->enqueueMessage(faderPosition(4, 300));
    link.tap.clear();

    link.pass();

    QCOMPARE(link.tap.chunks(), (QList<QByteArray>{QByteArray::fromHex("0600000a22396b"),
                                                   QByteArray::fromHex("0410040119")}));
    QCOMPARE(link.faderHandler->taken().size(), std::size_t(1));
    QCOMPARE(link.faderHandler->taken()[0], SerialMessage(MessageType::FaderTouch, 4, {1}));
    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::Connected));
}

void TestSoftwareLink::replayLastMessageReplaysRememberedMessages()
{
    SoftwareLink link;
    link.section->open();
    link.section->enqueueMessage(faderPosition(4, 100));
    link.pass();
    link.section->enqueueMessage(faderPosition(4, 300));
    for (int i = 0; i < 40; ++i) {
        link.pass();
    }
    // A fader control created only now catches up with the last position sent to it.
    FakeSoftwareHandler lateFader;
    lateFader.takeOnly(MessageType::FaderPosition, 4);
    link.controller->addSoftwareHandler(&lateFader);

    link.controller->replayLastMessage(kSection, MessageType::FaderPosition, 4);

    QCOMPARE(lateFader.offerCount(), 1);
    QCOMPARE(lateFader.offers()[0].sectionIndex, kSection);
    QCOMPARE(lateFader.offers()[0].message, faderPosition(4, 300));

    // The remembered ping, replayed with no section control to take it, is answered again
    // and reaches the section as a fresh version report.
    const std::size_t reportsBefore = link.versionHandler->taken().size();
    link.tap.clear();
    link.controller->replayLastMessage(kSection, MessageType::Ping, 0);
    QCOMPARE(link.tap.chunks(), QList<QByteArray>{QByteArray::fromHex("0600000a22396b")});
    QCOMPARE(link.versionHandler->taken().size(), reportsBefore + 1);

    // Nothing was ever sent to device 5.
    const int offersBefore = lateFader.offerCount();
    link.tap.clear();
    link.controller->replayLastMessage(kSection, MessageType::FaderPosition, 5);
    QCOMPARE(lateFader.offerCount(), offersBefore);
    QCOMPARE(link.tap.count(), 0);
}

void TestSoftwareLink::serialErrorFromAControlIsFlushedWithZeroBytesAndTheLinkRecovers()
{
    SoftwareLink link;
    FakeSoftwareHandler control;
    link.controller->addSoftwareHandler(&control);
    link.section->open();
    link.pass();
    LogCapture log;

    // The simulated section reports that it received bad data.
    link.controller->sendToPlugin(kSection, SerialMessage(MessageType::SerialError, 0));

    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::SerialError));
    QCOMPARE(link.versionHandler->linkReadyCalls(), std::vector<bool>{false});
    // The 1,024 zero bytes went down the software link: its parser drops them as bad data
    // (the last three stay pending, shorter than any frame).
    QCOMPARE(log.lines(),
             (QList<LogCapture::Line>{
                 {QtCriticalMsg, "Received serial error from the section 2."},
                 {QtDebugMsg, "SW serial message connection for section: 2 received bad data: \"" +
                                  QString(2 * 1021, '0') + "\""}}));
    QCOMPARE(link.serial->messageCount(), uint64_t(2));
    log.clear();

    // A second later the link is back; the next ping carries the three leftover zero
    // bytes in front of it, which the section's receiver drops before finding the frame.
    for (int i = 0; i < 20; ++i) {
        link.pass();
    }
    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::Connected));
    for (int i = 0; i < 41; ++i) {
        link.pass();
    }
    QCOMPARE(
        log.texts(QtDebugMsg),
        QStringList{"SW serial message connection for section: 2 received bad data: \"000000\""});
    QCOMPARE(link.versionHandler->taken().size(), std::size_t(2));
    QCOMPARE(control.offers().back().message, SerialMessage(MessageType::Ping, 0));
}

void TestSoftwareLink::restartedLinkComesBackThroughTheBootloaderProbe()
{
    SoftwareLink link;
    link.section->open();
    link.listener.clear();
    link.tap.clear();

    link.section->close();
    QCOMPARE(link.serial->isOpen(), false);
    link.section->open();

    QCOMPARE(link.tap.chunks(), QList<QByteArray>{QByteArray::fromHex("aa")});
    QCOMPARE(link.listener.states(),
             (std::vector<uint8_t>{ISectionConnection::Closed, ISectionConnection::Connecting,
                                   ISectionConnection::Connected}));
}

void TestSoftwareLink::clearedReceiversSilenceTheSectionUntilItRegistersAgain()
{
    // What connect() does before a new surface registers: the old section connection no
    // longer hears its simulated section.
    SoftwareLink link;
    link.section->open();
    link.pass();
    QCOMPARE(link.versionHandler->taken().size(), std::size_t(1));
    link.tap.clear();

    link.controller->clearDataReceivers();
    LogCapture log;
    // The version report just received counts as the last sign of life: once more than
    // 10,000 whole milliseconds have passed since it the section is declared silent. 200
    // passes of 50.001 ms make 10,000.2 ms, which is not more; the 201st is.
    int passes = 0;
    while (link.section->state() != ISectionConnection::NoResponse && passes < 1000) {
        link.pass();
        ++passes;
    }
    QCOMPARE(passes, 201);

    QCOMPARE(link.tap.count(), 0);
    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::NoResponse));
    QCOMPARE(log.texts(QtWarningMsg),
             QStringList{"Section 2 has not received response in timely manner. Setting state "
                         "to NoResponse."});

    link.serial->setDataReceiver(&link.tap);
    for (int i = 0; i < 40; ++i) {
        link.pass();
    }
    QCOMPARE(link.section->state(), uint8_t(ISectionConnection::Connected));
    QVERIFY(link.versionHandler->taken().size() >= 2);
}

QTEST_GUILESS_MAIN(TestSoftwareLink)
#include "tst_softwarelink.moc"
