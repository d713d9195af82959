// A section link on a thread of its own, as the surface on the QML thread sees it through
// LinkThreadConnection: what the link hands over arrives on the QML thread in the order the
// link produced it, the state the face reports is the one last told there, and the link is
// made and destroyed on its own thread.
#include <QStringList>
#include <QThread>
#include <QtTest>
#include <atomic>
#include <memory>

#include "base/logger.h"
#include "serial/isectionstatelistener.h"
#include "serial/iserialmessagehandler.h"
#include "serial/linkthreadconnection.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakesettings.h"
#include "support/manualclock.h"
#include "tasks/taskpool.h"
#include "tasks/threadmailbox.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kSection = 1;
constexpr uint8_t kFader = 3;
constexpr int kTimeoutMs = 5000;

// A fader of the section: takes its position reports and notes each, with the thread it was
// told on, in the shared story.
class StoryHandler : public ISerialMessageHandler
{
public:
    explicit StoryHandler(QStringList* story) : m_story(story) {}

    bool takesMessage(const SerialMessage& message) const override
    {
        return message.type == MessageType::FaderPosition && message.deviceId == kFader;
    }
    bool handleMessage(const SerialMessage& message) override
    {
        if (!takesMessage(message)) {
            return false;
        }
        threads.push_back(QThread::currentThread());
        m_story->append(QStringLiteral("fader %1").arg(message.wordAt(0, 0)));
        return true;
    }
    void setLinkReady(bool ready) override
    {
        m_story->append(ready ? QStringLiteral("ready") : QStringLiteral("not ready"));
    }

    std::vector<QThread*> threads;

private:
    QStringList* m_story;
};

class StoryListener : public ISectionStateListener
{
public:
    explicit StoryListener(QStringList* story) : m_story(story) {}

    void sectionStateChanged(uint8_t sectionIndex, uint8_t state) override
    {
        threads.push_back(QThread::currentThread());
        m_story->append(QStringLiteral("section %1 state %2").arg(sectionIndex).arg(state));
    }
    void sectionUpdateProgress(uint8_t, uint8_t) override {}
    void sentMessageCount(uint64_t count) override { sentCounts.push_back(count); }

    std::vector<QThread*> threads;
    std::vector<uint64_t> sentCounts;

private:
    QStringList* m_story;
};

// Notes the thread it is destroyed on.
class LineNotingItsEnd : public FakeSerialConnection
{
public:
    explicit LineNotingItsEnd(std::shared_ptr<std::atomic<QThread*>> endedOn)
        : m_endedOn(std::move(endedOn))
    {}
    ~LineNotingItsEnd() override { m_endedOn->store(QThread::currentThread()); }

private:
    std::shared_ptr<std::atomic<QThread*>> m_endedOn;
};

QByteArray faderFrame(uint16_t position)
{
    return encode(SerialMessage(
        MessageType::FaderPosition, kFader,
        {static_cast<uint8_t>(position >> 8), static_cast<uint8_t>(position & 0xFF)}));
}

struct Rig
{
    Rig()
    {
        thread.setObjectName(QStringLiteral("WorksurfaceThread"));
        linkContext.moveToThread(&thread);
        thread.start();
        root = std::make_shared<StoryHandler>(&story);
        face = LinkThreadConnection::create(
            kSection, root, &qmlContext, &linkContext,
            [this](const std::shared_ptr<ISerialMessageHandler>& handler) {
                madeOn = QThread::currentThread();
                pool = std::make_shared<TaskPool>();
                line = std::make_shared<LineNotingItsEnd>(lineEndedOn);
                auto link = std::make_shared<SectionConnection>(
                    kSection, handler, std::make_shared<SerialMessageQueue>(), line, pool,
                    std::make_unique<FakeSectionUpdater>(),
                    std::make_shared<Logger>(std::make_shared<FakeSettings>()));
                line->setDataReceiver(link.get());
                return link;
            });
        face->setStateListener(&listener);
    }

    ~Rig()
    {
        face.reset();
        // Whatever the link's thread still holds goes there.
        linkContext.runAndWait([this]() {
            line.reset();
            pool.reset();
        });
        thread.quit();
        thread.wait();
    }

    // On the link's thread, as the port's readyRead would.
    void receive(const QByteArray& bytes)
    {
        linkContext.runAndWait([this, bytes]() { line->pushData(bytes); });
    }

    // One pass of the link on its thread, the manual clock moved past its interval.
    void pass(ManualClock& clock)
    {
        clock.advanceNs(SectionConnection::kTaskIntervalMs * kMs + 1);
        linkContext.runAndWait([this]() { pool->runPendingTasks(); });
    }

    QThread thread;
    ThreadMailbox linkContext;
    ThreadMailbox qmlContext;
    QStringList story;
    StoryListener listener{&story};
    std::shared_ptr<StoryHandler> root;
    std::shared_ptr<TaskPool> pool;
    std::shared_ptr<LineNotingItsEnd> line;
    std::shared_ptr<std::atomic<QThread*>> lineEndedOn = std::make_shared<std::atomic<QThread*>>();
    QThread* madeOn = nullptr;
    std::shared_ptr<LinkThreadConnection> face;
};

}  // namespace

class TestLinkThreadConnection : public QObject
{
    Q_OBJECT

private slots:
    void theLinkIsMadeOnItsThread();
    void framesAndStatesReachTheQmlThreadInTheOrderTheLinkMadeThem();
    void stateIsTheOneLastToldOnTheQmlThread();
    void aLinkLeftBehindIsClosedAndDestroyedOnItsThread();
    void nothingReachesAFaceThatHasGone();
    void theSentCountCrossesOnlyWhenItChanges();
};

void TestLinkThreadConnection::theLinkIsMadeOnItsThread()
{
    Rig rig;
    QVERIFY(rig.face);
    QCOMPARE(rig.madeOn, &rig.thread);
    QCOMPARE(rig.face->sectionIndex(), kSection);
    QCOMPARE(rig.face->recorder(), rig.face->link()->recorder());
}

void TestLinkThreadConnection::framesAndStatesReachTheQmlThreadInTheOrderTheLinkMadeThem()
{
    Rig rig;
    rig.face->open();
    QTRY_COMPARE_WITH_TIMEOUT(rig.story, QStringList{QStringLiteral("section 1 state 2")},
                              kTimeoutMs);
    // The first frame a component takes brings the link up: the frame first, then the state,
    // as with the link on the QML thread; then the next frame.
    rig.receive(faderFrame(300) + faderFrame(301));
    QTRY_COMPARE_WITH_TIMEOUT(rig.story.size(), 4, kTimeoutMs);
    QCOMPARE(rig.story,
             (QStringList{QStringLiteral("section 1 state 2"), QStringLiteral("fader 300"),
                          QStringLiteral("section 1 state 0"), QStringLiteral("fader 301")}));
    for (QThread* told : rig.root->threads) {
        QCOMPARE(told, QThread::currentThread());
    }
    for (QThread* told : rig.listener.threads) {
        QCOMPARE(told, QThread::currentThread());
    }
}

void TestLinkThreadConnection::stateIsTheOneLastToldOnTheQmlThread()
{
    Rig rig;
    rig.face->open();
    rig.receive(faderFrame(10));
    // The link itself is up; this thread has not been told yet.
    QCOMPARE(rig.face->link()->state(), uint8_t{ISectionConnection::Connected});
    QCOMPARE(rig.face->state(), uint8_t{ISectionConnection::Closed});
    QTRY_COMPARE_WITH_TIMEOUT(rig.face->state(), uint8_t{ISectionConnection::Connected},
                              kTimeoutMs);
}

void TestLinkThreadConnection::aLinkLeftBehindIsClosedAndDestroyedOnItsThread()
{
    Rig rig;
    rig.face->open();
    QTRY_VERIFY_WITH_TIMEOUT(rig.face->state() == ISectionConnection::Connecting, kTimeoutMs);
    rig.face.reset();
    // Only the rig's own share of the line is left once the link has gone.
    rig.linkContext.runAndWait([&rig]() { rig.line.reset(); });
    QTRY_COMPARE_WITH_TIMEOUT(rig.lineEndedOn->load(), &rig.thread, kTimeoutMs);
}

void TestLinkThreadConnection::nothingReachesAFaceThatHasGone()
{
    Rig rig;
    rig.face->open();
    QTRY_COMPARE_WITH_TIMEOUT(rig.story.size(), 1, kTimeoutMs);
    std::shared_ptr<SectionConnection> link = rig.face->takeLink();
    rig.face.reset();
    rig.receive(faderFrame(5));
    QCoreApplication::processEvents();
    QCOMPARE(rig.story, QStringList{QStringLiteral("section 1 state 2")});
    rig.linkContext.runAndWait([taken = std::move(link)]() mutable { taken.reset(); });
}

void TestLinkThreadConnection::theSentCountCrossesOnlyWhenItChanges()
{
    ManualClock clock(kStartNs);
    Rig rig;
    rig.face->open();
    rig.receive(faderFrame(10));
    QTRY_COMPARE_WITH_TIMEOUT(rig.face->state(), uint8_t{ISectionConnection::Connected},
                              kTimeoutMs);
    // Three connected passes with nothing to send tell the same count three times.
    for (int i = 0; i < 3; ++i) {
        rig.pass(clock);
    }
    rig.linkContext.runAndWait([]() {});
    QCoreApplication::sendPostedEvents();
    QCOMPARE(rig.listener.sentCounts.size(), std::size_t{1});
    const uint64_t first = rig.listener.sentCounts.front();
    // A message leaves with the next pass: the new count crosses.
    rig.face->enqueueMessage(SerialMessage(MessageType::SurfaceBrightness, 0, {5}));
    rig.pass(clock);
    rig.pass(clock);
    QTRY_COMPARE_WITH_TIMEOUT(rig.listener.sentCounts.size(), std::size_t{2}, kTimeoutMs);
    QCOMPARE(rig.listener.sentCounts.back(), first + 1);
}

QTEST_GUILESS_MAIN(TestLinkThreadConnection)
#include "tst_linkthreadconnection.moc"
