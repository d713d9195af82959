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
#include "serial/linkinbox.h"
#include "serial/linkthreadconnection.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakesettings.h"
#include "support/manualclock.h"
#include "tasks/taskpool.h"
#include "tasks/threadmailbox.h"
#include "updater/isectionupdaterlistener.h"

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
    void sectionUpdateProgress(uint8_t, uint8_t value) override { progress.push_back(value); }
    void sentMessageCount(uint64_t count) override { sentCounts.push_back(count); }

    std::vector<QThread*> threads;
    std::vector<uint64_t> sentCounts;
    std::vector<int> progress;

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

// A section's handler that notes where it is let go. Asked off the thread it was made on
// (the link's thread judging a frame), it holds that thread until the test lets it go on:
// long enough for the QML thread to let the section go meanwhile.
class JudgeNotingItsEnd : public ISerialMessageHandler
{
public:
    struct Notes
    {
        std::atomic<bool> askedOffItsThread{false};
        std::atomic<bool> goOn{false};
        std::atomic<int> handled{0};
        std::atomic<QThread*> endedOn{nullptr};
    };

    explicit JudgeNotingItsEnd(std::shared_ptr<Notes> notes) : m_notes(std::move(notes)) {}
    ~JudgeNotingItsEnd() override { m_notes->endedOn.store(QThread::currentThread()); }

    bool takesMessage(const SerialMessage& message) const override
    {
        if (QThread::currentThread() != m_home) {
            m_notes->askedOffItsThread.store(true);
            QElapsedTimer waited;
            waited.start();
            while (!m_notes->goOn.load() && waited.elapsed() < kTimeoutMs) {
                QThread::yieldCurrentThread();
            }
        }
        return message.type == MessageType::FaderPosition && message.deviceId == kFader;
    }
    bool handleMessage(const SerialMessage& message) override
    {
        if (!takesMessage(message)) {
            return false;
        }
        m_notes->handled.fetch_add(1);
        return true;
    }
    void setLinkReady(bool) override {}

private:
    std::shared_ptr<Notes> m_notes;
    QThread* const m_home = QThread::currentThread();
};

struct Rig
{
    // `section`: the section's root handler, a story-telling fader when null.
    explicit Rig(std::shared_ptr<ISerialMessageHandler> section = nullptr)
    {
        thread.setObjectName(QStringLiteral("WorksurfaceThread"));
        linkContext->moveToThread(&thread);
        thread.start();
        root = std::make_shared<StoryHandler>(&story);
        face = LinkThreadConnection::create(
            kSection, section ? section : root, qmlContext, linkContext,
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
        linkContext->runAndWait([this]() {
            line.reset();
            pool.reset();
        });
        thread.quit();
        thread.wait();
    }

    // On the link's thread, as the port's readyRead would.
    void receive(const QByteArray& bytes)
    {
        linkContext->runAndWait([this, bytes]() { line->pushData(bytes); });
    }

    // One pass of the link on its thread, the manual clock moved past its interval.
    void pass(ManualClock& clock)
    {
        clock.advanceNs(SectionConnection::kTaskIntervalMs * kMs + 1);
        linkContext->runAndWait([this]() { pool->runPendingTasks(); });
    }

    QThread thread;
    std::shared_ptr<ThreadMailbox> linkContext = std::make_shared<ThreadMailbox>();
    std::shared_ptr<ThreadMailbox> qmlContext = std::make_shared<ThreadMailbox>();
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
    void aSectionLetGoWhileItsLinkJudgesAFrameGoesOnTheQmlThread();
    void faderPositionsCoalesceOnlyWhileTheQmlThreadIsFarBehind();
    void anUnchangedProgressDoesNotCrossUnlessNewsCameBetween();
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
    rig.linkContext->runAndWait([&rig]() { rig.line.reset(); });
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
    rig.linkContext->runAndWait([taken = std::move(link)]() mutable { taken.reset(); });
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
    rig.linkContext->runAndWait([]() {});
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

// The QML thread lets a section go (a new surface replaces it) while the link's thread is
// judging a frame for it: the section's handlers, fader QObjects among them, must still go
// on the QML thread, which the link's thread never gets a share of them to prevent.
void TestLinkThreadConnection::aSectionLetGoWhileItsLinkJudgesAFrameGoesOnTheQmlThread()
{
    auto notes = std::make_shared<JudgeNotingItsEnd::Notes>();
    auto section = std::make_shared<JudgeNotingItsEnd>(notes);
    const std::weak_ptr<JudgeNotingItsEnd> watch = section;
    Rig rig(section);
    rig.face->open();
    rig.linkContext->post([&rig]() { rig.line->pushData(faderFrame(5)); });
    // Either the link's thread is held inside the judgement, or it judged without asking the
    // section and the frame has reached it here.
    QTRY_VERIFY_WITH_TIMEOUT(notes->askedOffItsThread.load() || notes->handled.load() == 1,
                             kTimeoutMs);
    section.reset();
    rig.face.reset();
    notes->goOn.store(true);
    rig.linkContext->runAndWait([]() {});
    QTRY_VERIFY_WITH_TIMEOUT(watch.expired(), kTimeoutMs);
    QCOMPARE(notes->endedOn.load(), QThread::currentThread());
    QVERIFY(!notes->askedOffItsThread.load());
}

// A QML thread that keeps up sees every position; one held far behind the link sees the
// presses in between and the latest position.
void TestLinkThreadConnection::faderPositionsCoalesceOnlyWhileTheQmlThreadIsFarBehind()
{
    Rig rig;
    rig.face->open();
    rig.receive(faderFrame(1));
    QTRY_COMPARE_WITH_TIMEOUT(rig.face->state(), uint8_t{ISectionConnection::Connected},
                              kTimeoutMs);
    rig.story.clear();
    // Nothing is taken here while the link queues 2,000 positions.
    QByteArray frames;
    for (uint16_t position = 1000; position < 3000; ++position) {
        frames += faderFrame(position);
    }
    rig.receive(frames);
    QCoreApplication::sendPostedEvents();
    // The first kBehind are queued as they come; from then on the last one waiting is
    // replaced by each newer position.
    QCOMPARE(rig.story.size(), int(LinkInbox::kBehind));
    QCOMPARE(rig.story.first(), QStringLiteral("fader 1000"));
    QCOMPARE(rig.story.at(int(LinkInbox::kBehind) - 2), QStringLiteral("fader 1254"));
    QCOMPARE(rig.story.last(), QStringLiteral("fader 2999"));

    // Kept up with, every position is told.
    rig.story.clear();
    for (uint16_t position = 0; position < 20; ++position) {
        rig.receive(faderFrame(position));
        QCoreApplication::sendPostedEvents();
    }
    QCOMPARE(rig.story.size(), 20);
}

// The updater tells its percentage with every block; the QML thread is woken only for a new
// one, or for any after other news of the link (which the model may have acted on).
void TestLinkThreadConnection::anUnchangedProgressDoesNotCrossUnlessNewsCameBetween()
{
    Rig rig;
    rig.linkContext->runAndWait([&rig]() {
        ISectionUpdaterListener& updaterSide = *rig.face->link();
        for (int value : {0, 0, 1, 1, 1, 2}) {
            updaterSide.updateProgress(static_cast<uint8_t>(value));
        }
        rig.face->link()->open();
        updaterSide.updateProgress(2);
        updaterSide.updateProgress(2);
    });
    QTRY_COMPARE_WITH_TIMEOUT(rig.listener.progress.size(), std::size_t{4}, kTimeoutMs);
    QCOMPARE(rig.listener.progress, (std::vector<int>{0, 1, 2, 2}));
    QCOMPARE(rig.story, QStringList{QStringLiteral("section 1 state 2")});
}

QTEST_GUILESS_MAIN(TestLinkThreadConnection)
#include "tst_linkthreadconnection.moc"
