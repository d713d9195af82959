// The reports a link on its own thread has for the QML thread: kept in order while the QML
// thread keeps up; once it is far behind, a fader's or the pot's position replaces the one
// still waiting, and nothing else is ever dropped or reordered.
#include <QtTest>
#include <cstdint>
#include <vector>

#include "serial/linkinbox.h"

using namespace Velmora::Worksurface;

namespace {

using Report = LinkInbox::Report;

constexpr uint8_t kFader = 3;
constexpr uint8_t kOtherFader = 4;
constexpr uint8_t kPot = 7;
constexpr uint8_t kButton = 9;

Report frame(uint8_t type, uint8_t deviceId, std::vector<uint8_t> payload)
{
    Report report;
    report.frame = SerialMessage(type, deviceId, std::move(payload));
    return report;
}

Report position(uint8_t fader, uint16_t value)
{
    return frame(MessageType::FaderPosition, fader,
                 {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xFF)});
}

Report touch(uint8_t fader, bool touched)
{
    return frame(MessageType::FaderTouch, fader, {static_cast<uint8_t>(touched ? 1 : 0)});
}

Report press(uint8_t button, bool pressed)
{
    return frame(MessageType::ButtonState, button, {static_cast<uint8_t>(pressed ? 1 : 0)});
}

Report state(int value)
{
    Report report;
    report.kind = Report::State;
    report.sectionIndex = 1;
    report.value = value;
    return report;
}

// What one taken report was, as a test reads it.
QString describe(const Report& report)
{
    switch (report.kind) {
        case Report::Frame:
            return QStringLiteral("frame %1/%2 %3")
                .arg(report.frame.type)
                .arg(report.frame.deviceId)
                .arg(report.frame.payload.size() == 2 ? report.frame.wordAt(0, 0)
                                                      : report.frame.byteAt(0, 0));
        case Report::State:
            return QStringLiteral("state %1").arg(report.value);
        default:
            return QStringLiteral("news %1").arg(report.kind);
    }
}

QStringList takeAll(LinkInbox& inbox)
{
    QStringList taken;
    Report report;
    while (inbox.take(report)) {
        taken << describe(report);
    }
    return taken;
}

// Puts the QML thread exactly kBehind reports behind, with presses of a button of its own.
void fallBehind(LinkInbox& inbox)
{
    for (std::size_t i = 0; i < LinkInbox::kBehind; ++i) {
        QVERIFY(inbox.add(press(kButton, i % 2 == 0)));
    }
}

}  // namespace

class TestLinkInbox : public QObject
{
    Q_OBJECT

private slots:
    void reportsComeOutInTheOrderTheyWentIn();
    void whileTheQmlThreadKeepsUpEveryPositionIsKept();
    void farBehindAPositionReplacesTheOneStillWaiting();
    void aPositionNeverOvertakesATouchOfTheSameFader();
    void theLinksNewsIsNeverOvertakenByAPosition();
    void otherControlsProgressAndTheSentCountDoNotHoldAPositionBack();
    void aPositionAlreadyTakenIsNotReplaced();
    void fadersAndThePotCoalesceEachOnItsOwn();
    void pressesTouchesAndRotaryStepsAreNeverDropped();
    void tenSecondsOfAThousandFramesASecondStayWellUnderAMebibyte();
};

void TestLinkInbox::reportsComeOutInTheOrderTheyWentIn()
{
    LinkInbox inbox;
    QVERIFY(inbox.add(state(2)));
    QVERIFY(inbox.add(position(kFader, 300)));
    QVERIFY(inbox.add(touch(kFader, true)));
    QVERIFY(inbox.add(state(0)));
    QCOMPARE(inbox.size(), std::size_t{4});
    QCOMPARE(takeAll(inbox), (QStringList{"state 2", "frame 7/3 300", "frame 16/3 1", "state 0"}));
    Report none;
    QVERIFY(!inbox.take(none));
}

void TestLinkInbox::whileTheQmlThreadKeepsUpEveryPositionIsKept()
{
    LinkInbox inbox;
    for (uint16_t value = 0; value < LinkInbox::kBehind; ++value) {
        QVERIFY(inbox.add(position(kFader, value)));
    }
    QCOMPARE(inbox.size(), LinkInbox::kBehind);
    QCOMPARE(inbox.coalescedCount(), uint64_t{0});
    const QStringList taken = takeAll(inbox);
    QCOMPARE(taken.first(), QStringLiteral("frame 7/3 0"));
    QCOMPARE(taken.last(), QStringLiteral("frame 7/3 255"));
}

void TestLinkInbox::farBehindAPositionReplacesTheOneStillWaiting()
{
    LinkInbox inbox;
    fallBehind(inbox);
    // The first position past the mark is queued; every later one takes its place.
    QVERIFY(inbox.add(position(kFader, 100)));
    for (uint16_t value = 101; value <= 1000; ++value) {
        QVERIFY(!inbox.add(position(kFader, value)));
    }
    QCOMPARE(inbox.size(), LinkInbox::kBehind + 1);
    QCOMPARE(inbox.coalescedCount(), uint64_t{900});
    QCOMPARE(takeAll(inbox).last(), QStringLiteral("frame 7/3 1000"));
}

void TestLinkInbox::aPositionNeverOvertakesATouchOfTheSameFader()
{
    LinkInbox inbox;
    fallBehind(inbox);
    QVERIFY(inbox.add(position(kFader, 100)));
    QVERIFY(inbox.add(touch(kFader, false)));
    // Behind the release: queued after it, not folded into the position before it.
    QVERIFY(inbox.add(position(kFader, 200)));
    QVERIFY(!inbox.add(position(kFader, 300)));
    QStringList taken = takeAll(inbox);
    taken.erase(taken.begin(), taken.begin() + static_cast<int>(LinkInbox::kBehind));
    QCOMPARE(taken, (QStringList{"frame 7/3 100", "frame 16/3 0", "frame 7/3 300"}));
}

void TestLinkInbox::theLinksNewsIsNeverOvertakenByAPosition()
{
    LinkInbox inbox;
    fallBehind(inbox);
    QVERIFY(inbox.add(position(kFader, 100)));
    QVERIFY(inbox.add(state(2)));
    QVERIFY(inbox.add(position(kFader, 200)));
    QStringList taken = takeAll(inbox);
    taken.erase(taken.begin(), taken.begin() + static_cast<int>(LinkInbox::kBehind));
    QCOMPARE(taken, (QStringList{"frame 7/3 100", "state 2", "frame 7/3 200"}));
}

// A press of the mute switch with the fader's device id, a step of the rotary with it, the
// section's ping answer, an update's progress and the sent count belong to nothing the
// position does: the latest position takes the waiting one's place ahead of them.
void TestLinkInbox::otherControlsProgressAndTheSentCountDoNotHoldAPositionBack()
{
    LinkInbox inbox;
    fallBehind(inbox);
    QVERIFY(inbox.add(position(kFader, 100)));
    QVERIFY(inbox.add(press(kFader, true)));
    QVERIFY(inbox.add(frame(MessageType::RotaryStep, kFader, {1})));
    QVERIFY(inbox.add(frame(MessageType::Ping, kFader, {10, 34, 55})));
    Report sent;
    sent.kind = Report::SentCount;
    sent.sentCount = 12;
    QVERIFY(inbox.add(sent));
    Report progress;
    progress.kind = Report::Progress;
    progress.value = 40;
    QVERIFY(inbox.add(progress));
    QVERIFY(!inbox.add(position(kFader, 200)));
    QStringList taken = takeAll(inbox);
    taken.erase(taken.begin(), taken.begin() + static_cast<int>(LinkInbox::kBehind));
    QCOMPARE(taken, (QStringList{"frame 7/3 200", "frame 20/3 1", "frame 18/3 1", "frame 0/3 10",
                                 "news 4", "news 3"}));
}

void TestLinkInbox::aPositionAlreadyTakenIsNotReplaced()
{
    LinkInbox inbox;
    fallBehind(inbox);
    QVERIFY(inbox.add(position(kFader, 100)));
    takeAll(inbox);
    fallBehind(inbox);
    QVERIFY(inbox.add(position(kFader, 200)));
    QVERIFY(!inbox.add(position(kFader, 201)));
    QCOMPARE(takeAll(inbox).last(), QStringLiteral("frame 7/3 201"));
}

void TestLinkInbox::fadersAndThePotCoalesceEachOnItsOwn()
{
    LinkInbox inbox;
    fallBehind(inbox);
    for (uint16_t value = 0; value < 50; ++value) {
        inbox.add(position(kFader, value));
        inbox.add(position(kOtherFader, uint16_t(value + 1000)));
        inbox.add(frame(MessageType::PotValue, kPot, {uint8_t(value)}));
    }
    QCOMPARE(inbox.size(), LinkInbox::kBehind + 3);
    QStringList taken = takeAll(inbox);
    taken.erase(taken.begin(), taken.begin() + static_cast<int>(LinkInbox::kBehind));
    QCOMPARE(taken, (QStringList{"frame 7/3 49", "frame 7/4 1049", "frame 17/7 49"}));
}

void TestLinkInbox::pressesTouchesAndRotaryStepsAreNeverDropped()
{
    LinkInbox inbox;
    fallBehind(inbox);
    constexpr int kEach = 3000;
    for (int i = 0; i < kEach; ++i) {
        QVERIFY(inbox.add(press(kButton, i % 2 == 0)));
        QVERIFY(inbox.add(touch(kFader, i % 2 == 0)));
        QVERIFY(inbox.add(frame(MessageType::RotaryStep, 2, {1})));
        QVERIFY(inbox.add(frame(MessageType::RotaryTouch, 2, {uint8_t(i % 2)})));
    }
    QCOMPARE(inbox.size(), LinkInbox::kBehind + 4 * kEach);
    QCOMPARE(inbox.coalescedCount(), uint64_t{0});
    QStringList taken = takeAll(inbox);
    taken.erase(taken.begin(), taken.begin() + static_cast<int>(LinkInbox::kBehind));
    for (int i = 0; i < kEach; ++i) {
        QCOMPARE(taken[4 * i], QStringLiteral("frame 20/9 %1").arg(i % 2 == 0 ? 1 : 0));
        QCOMPARE(taken[4 * i + 2], QStringLiteral("frame 18/2 1"));
    }
}

// A section streaming a thousand frames a second for ten seconds at a stalled QML thread:
// thirty faders moving, one touched and released every second, a press and a release every
// second. What waits is what must not be lost, plus one position per fader.
void TestLinkInbox::tenSecondsOfAThousandFramesASecondStayWellUnderAMebibyte()
{
    LinkInbox inbox;
    int kept = 0;
    for (int ms = 0; ms < 10000; ++ms) {
        const uint8_t fader = static_cast<uint8_t>(ms % 30);
        if (ms % 500 == 0) {
            inbox.add(touch(fader, ms % 1000 == 0));
            inbox.add(press(kButton, ms % 1000 == 0));
            kept += 2;
        } else {
            inbox.add(position(fader, static_cast<uint16_t>(ms)));
        }
    }
    // Each touch or release queues the next position of its fader anew: 20 of them.
    QVERIFY2(inbox.size() <= LinkInbox::kBehind + std::size_t(kept) + 30 + 20,
             qPrintable(QString::number(inbox.size())));
    // Each waiting report is its struct and a small payload block.
    QVERIFY(inbox.size() * (sizeof(Report) + 32) < 1024 * 1024 / 4);
    // The latest position of every fader is among the reports.
    const QStringList taken = takeAll(inbox);
    for (int ms = 9970; ms < 10000; ++ms) {
        QVERIFY(taken.contains(QStringLiteral("frame 7/%1 %2").arg(ms % 30).arg(ms)));
    }
}

QTEST_GUILESS_MAIN(TestLinkInbox)
#include "tst_linkinbox.moc"
