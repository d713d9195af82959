#include <QColor>
#include <QtTest>
#include <memory>

#include "serial/serialmessage.h"
#include "support/manualclock.h"
#include "support/recordingsender.h"
#include "support/sentmessage.h"
#include "surface/button.h"
#include "surface/componentfactory.h"
#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/pot.h"
#include "surface/rotary.h"
#include "surface/rotaryhandle.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kNone = -1;

struct Bench
{
    ManualClock clock{kStartNs};
    std::shared_ptr<TaskPool> pool = std::make_shared<TaskPool>();
    std::shared_ptr<RecordingSender> sender = std::make_shared<RecordingSender>();
    ComponentFactory factory{pool};

    // Ticks the pool once every millisecond, as a 1 ms timer would, up to `untilMs` after
    // the start.
    void tickEveryMsUntil(qint64 untilMs)
    {
        while (clock.nowNs() < kStartNs + untilMs * kMs) {
            clock.advanceMs(1);
            pool->runPendingTasks();
        }
    }
};

void addIdColumns()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("id");
}

}  // namespace

class TestComponentFactory : public QObject
{
    Q_OBJECT

private slots:
    void fadersExistForTheirTypesAndIndices_data();
    void fadersExistForTheirTypesAndIndices();
    void ledsExistForTheirTypesAndIndices_data();
    void ledsExistForTheirTypesAndIndices();
    void buttonsExistForTheirTypesAndIndices_data();
    void buttonsExistForTheirTypesAndIndices();
    void rgbLedsExistForTheirTypesAndIndices_data();
    void rgbLedsExistForTheirTypesAndIndices();
    void rotariesExistWithTheirLightAndButtonIds_data();
    void rotariesExistWithTheirLightAndButtonIds();
    void onlyTheHeadphonePotExists_data();
    void onlyTheHeadphonePotExists();
    void onlyTheTwoMasterMetersExist_data();
    void onlyTheTwoMasterMetersExist();
    void stripRotaryThreeHasRingThreeAndPushButtonTwentyFour();
    void sideRotaryFiveAnswersOnFifteenAndThirtySix();
    void componentsSendThroughTheSenderTheyWereGiven();
    void everyFaderStepsEveryFiftyMilliseconds();
    void potAsksForItsValueEverySecondUntilItIsAnswered();
    void onlyFadersAndThePotAreScheduled();
};

// ---- device ids, written out as the console numbers its controls ------------------------

void TestComponentFactory::fadersExistForTheirTypesAndIndices_data()
{
    addIdColumns();
    QTest::newRow("strip 0") << 1 << 0 << 0;
    QTest::newRow("strip 4") << 1 << 4 << 4;
    QTest::newRow("strip 9") << 1 << 9 << 9;
    QTest::newRow("strip 10") << 1 << 10 << kNone;
    QTest::newRow("strip 255") << 1 << 255 << kNone;
    QTest::newRow("master 0") << 2 << 0 << 10;
    QTest::newRow("master 1") << 2 << 1 << 10;
    QTest::newRow("master 255") << 2 << 255 << 10;
    QTest::newRow("none") << 0 << 0 << kNone;
    QTest::newRow("type 3") << 3 << 0 << kNone;
    QTest::newRow("type -1") << -1 << 0 << kNone;
}

void TestComponentFactory::fadersExistForTheirTypesAndIndices()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, id);
    Bench bench;
    const auto fader = bench.factory.createFader(bench.sender, 2, type, uint8_t(index));
    QCOMPARE(fader != nullptr, id != kNone);
    if (fader) {
        QCOMPARE(int(fader->deviceId()), id);
        QCOMPARE(int(fader->faderType()), type);
        QCOMPARE(fader->sectionIndex(), uint8_t(2));
    }
}

void TestComponentFactory::ledsExistForTheirTypesAndIndices_data()
{
    addIdColumns();
    QTest::newRow("mute 0") << 1 << 0 << 0;
    QTest::newRow("mute 9") << 1 << 9 << 9;
    QTest::newRow("mute 10") << 1 << 10 << kNone;
    QTest::newRow("solo 0") << 2 << 0 << 10;
    QTest::newRow("solo 9") << 2 << 9 << 19;
    QTest::newRow("solo 10") << 2 << 10 << kNone;
    QTest::newRow("master mute") << 3 << 0 << 20;
    QTest::newRow("master mute 7") << 3 << 7 << 20;
    QTest::newRow("master solo") << 4 << 0 << kNone;
    QTest::newRow("next snapshot") << 5 << 0 << 23;
    QTest::newRow("previous snapshot") << 6 << 0 << 22;
    QTest::newRow("layer up") << 7 << 0 << 24;
    QTest::newRow("layer down") << 8 << 0 << 26;
    QTest::newRow("spill set") << 9 << 0 << 21;
    QTest::newRow("overview") << 10 << 0 << 25;
    QTest::newRow("type 11") << 11 << 0 << kNone;
    QTest::newRow("none") << 0 << 0 << kNone;
    QTest::newRow("type -1") << -1 << 0 << kNone;
}

void TestComponentFactory::ledsExistForTheirTypesAndIndices()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, id);
    Bench bench;
    const auto led = bench.factory.createLed(bench.sender, 1, type, uint8_t(index));
    QCOMPARE(led != nullptr, id != kNone);
    if (led) {
        QCOMPARE(int(led->deviceId()), id);
        QCOMPARE(int(led->ledType()), type);
        QCOMPARE(led->sectionIndex(), uint8_t(1));
    }
}

void TestComponentFactory::buttonsExistForTheirTypesAndIndices_data()
{
    addIdColumns();
    QTest::newRow("mute 0") << 1 << 0 << 0;
    QTest::newRow("mute 9") << 1 << 9 << 9;
    QTest::newRow("mute 10") << 1 << 10 << kNone;
    QTest::newRow("solo 0") << 2 << 0 << 10;
    QTest::newRow("solo 9") << 2 << 9 << 19;
    QTest::newRow("solo 10") << 2 << 10 << kNone;
    QTest::newRow("master mute") << 3 << 0 << 20;
    QTest::newRow("master solo") << 4 << 0 << kNone;
    QTest::newRow("next snapshot") << 5 << 0 << 39;
    QTest::newRow("previous snapshot") << 6 << 0 << 38;
    QTest::newRow("layer up") << 7 << 0 << 40;
    QTest::newRow("layer down") << 8 << 0 << 42;
    QTest::newRow("spill set") << 9 << 0 << 37;
    QTest::newRow("overview") << 10 << 0 << 41;
    QTest::newRow("overview 3") << 10 << 3 << 41;
    QTest::newRow("under-screen rotary 0") << 11 << 0 << 21;
    QTest::newRow("under-screen rotary 9") << 11 << 9 << 30;
    QTest::newRow("under-screen rotary 10") << 11 << 10 << kNone;
    QTest::newRow("side rotary 0") << 12 << 0 << 31;
    QTest::newRow("side rotary 5") << 12 << 5 << 36;
    QTest::newRow("side rotary 6") << 12 << 6 << kNone;
    QTest::newRow("type 13") << 13 << 0 << kNone;
    QTest::newRow("none") << 0 << 0 << kNone;
}

void TestComponentFactory::buttonsExistForTheirTypesAndIndices()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, id);
    Bench bench;
    const auto button = bench.factory.createButton(bench.sender, 0, type, uint8_t(index));
    QCOMPARE(button != nullptr, id != kNone);
    if (button) {
        QCOMPARE(int(button->deviceId()), id);
        QCOMPARE(int(button->buttonType()), type);
        QCOMPARE(button->sectionIndex(), uint8_t(0));
    }
}

void TestComponentFactory::rgbLedsExistForTheirTypesAndIndices_data()
{
    addIdColumns();
    QTest::newRow("under-screen rotary button 0") << 1 << 0 << 0;
    QTest::newRow("under-screen rotary button 9") << 1 << 9 << 9;
    QTest::newRow("under-screen rotary button 10") << 1 << 10 << kNone;
    QTest::newRow("side rotary button 0") << 2 << 0 << 10;
    QTest::newRow("side rotary button 5") << 2 << 5 << 15;
    QTest::newRow("side rotary button 6") << 2 << 6 << kNone;
    QTest::newRow("name logo") << 3 << 0 << 16;
    QTest::newRow("main logo") << 4 << 0 << 17;
    QTest::newRow("headphone logo") << 5 << 0 << 18;
    QTest::newRow("snapshot logo") << 6 << 0 << 19;
    QTest::newRow("dashboard logo") << 7 << 0 << 20;
    QTest::newRow("overview logo") << 8 << 0 << 21;
    QTest::newRow("overview logo 4") << 8 << 4 << 21;
    QTest::newRow("type 9") << 9 << 0 << kNone;
    QTest::newRow("none") << 0 << 0 << kNone;
}

void TestComponentFactory::rgbLedsExistForTheirTypesAndIndices()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, id);
    Bench bench;
    const auto led = bench.factory.createRgbLed(bench.sender, 2, type, uint8_t(index));
    QCOMPARE(led != nullptr, id != kNone);
    if (led) {
        QCOMPARE(int(led->deviceId()), id);
        QCOMPARE(int(led->rgbLedType()), type);
        QCOMPARE(led->sectionIndex(), uint8_t(2));
    }
}

void TestComponentFactory::rotariesExistWithTheirLightAndButtonIds_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("id");
    QTest::addColumn<int>("light");
    QTest::addColumn<int>("button");
    QTest::newRow("under-screen 0") << 1 << 0 << 0 << 0 << 21;
    QTest::newRow("under-screen 3") << 1 << 3 << 3 << 3 << 24;
    QTest::newRow("under-screen 9") << 1 << 9 << 9 << 9 << 30;
    QTest::newRow("under-screen 10") << 1 << 10 << kNone << kNone << kNone;
    QTest::newRow("side 0") << 2 << 0 << 10 << 10 << 31;
    QTest::newRow("side 5") << 2 << 5 << 15 << 15 << 36;
    QTest::newRow("side 6") << 2 << 6 << kNone << kNone << kNone;
    QTest::newRow("none") << 0 << 0 << kNone << kNone << kNone;
    QTest::newRow("type 3") << 3 << 0 << kNone << kNone << kNone;
}

void TestComponentFactory::rotariesExistWithTheirLightAndButtonIds()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, id);
    QFETCH(int, light);
    QFETCH(int, button);
    Bench bench;
    const auto rotary = bench.factory.createRotary(bench.sender, 1, type, uint8_t(index));
    QCOMPARE(rotary != nullptr, id != kNone);
    if (rotary) {
        auto* real = dynamic_cast<Rotary*>(rotary.get());
        QVERIFY(real);
        QCOMPARE(int(rotary->rotaryDeviceId()), id);
        QCOMPARE(int(real->lightDeviceId()), light);
        QCOMPARE(int(real->buttonDeviceId()), button);
        QCOMPARE(int(rotary->rotaryType()), type);
        QCOMPARE(rotary->sectionIndex(), uint8_t(1));
    }
}

void TestComponentFactory::onlyTheHeadphonePotExists_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<bool>("exists");
    QTest::newRow("headphone") << 1 << 0 << true;
    QTest::newRow("headphone, any index") << 1 << 9 << true;
    QTest::newRow("none") << 0 << 0 << false;
    QTest::newRow("type 2") << 2 << 0 << false;
    QTest::newRow("type -1") << -1 << 0 << false;
}

void TestComponentFactory::onlyTheHeadphonePotExists()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(bool, exists);
    Bench bench;
    const auto pot = bench.factory.createPot(bench.sender, 2, type, uint8_t(index));
    QCOMPARE(pot != nullptr, exists);
    if (pot) {
        QCOMPARE(pot->potDeviceId(), uint8_t(0));
        QCOMPARE(dynamic_cast<Pot*>(pot.get())->lightDeviceId(), uint8_t(18));
        QCOMPARE(pot->potType(), PotType::Headphone);
        QCOMPARE(pot->sectionIndex(), uint8_t(2));
    }
}

void TestComponentFactory::onlyTheTwoMasterMetersExist_data()
{
    addIdColumns();
    QTest::newRow("master left") << 1 << 0 << 0;
    QTest::newRow("master right") << 2 << 0 << 1;
    QTest::newRow("master right, any index") << 2 << 7 << 1;
    QTest::newRow("none") << 0 << 0 << kNone;
    QTest::newRow("type 3") << 3 << 0 << kNone;
}

void TestComponentFactory::onlyTheTwoMasterMetersExist()
{
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, id);
    Bench bench;
    const auto meter = bench.factory.createMeter(bench.sender, 1, type, uint8_t(index));
    QCOMPARE(meter != nullptr, id != kNone);
    if (meter) {
        QCOMPARE(int(meter->deviceId()), id);
        QCOMPARE(int(meter->meterType()), type);
        QCOMPARE(meter->sectionIndex(), uint8_t(1));
    }
}

// ---- behaviour of what is made ----------------------------------------------------------

void TestComponentFactory::stripRotaryThreeHasRingThreeAndPushButtonTwentyFour()
{
    Bench bench;
    const auto rotary =
        bench.factory.createRotary(bench.sender, 0, int32_t(RotaryType::UnderScreen), 3);
    QVERIFY(rotary);
    const auto handle = rotary->getHandle();
    QSignalSpy pressed(handle.get(), &RotaryHandle::rotaryPressed);
    QSignalSpy rotated(handle.get(), &RotaryHandle::rotaryRotated);

    // The ring's colour goes to RGB LED 3.
    rotary->setColor(QColor(0x12, 0x34, 0x56));
    QCOMPARE(describe(bench.sender->take()),
             QStringList{expectedMessage(12, 3, "12345600", kStartNs)});

    // The push switch answers as button 24, the encoder as rotary 3.
    QVERIFY(rotary->handleMessage(SerialMessage(MessageType::ButtonState, 24, {1})));
    QCOMPARE(pressed.count(), 1);
    QVERIFY(rotary->pressed());
    QVERIFY(!rotary->handleMessage(SerialMessage(MessageType::ButtonState, 3, {1})));
    QVERIFY(!rotary->handleMessage(SerialMessage(MessageType::ButtonState, 23, {1})));
    QVERIFY(rotary->handleMessage(SerialMessage(MessageType::RotaryStep, 3, {0xff})));
    QCOMPARE(rotated.count(), 1);
    QCOMPARE(rotated.at(0).at(0).value<qint8>(), qint8(-1));
    QVERIFY(!rotary->handleMessage(SerialMessage(MessageType::RotaryStep, 24, {1})));
}

void TestComponentFactory::sideRotaryFiveAnswersOnFifteenAndThirtySix()
{
    Bench bench;
    const auto rotary =
        bench.factory.createRotary(bench.sender, 2, int32_t(RotaryType::SideRotary), 5);
    QVERIFY(rotary);
    rotary->setColor(QColor(255, 0, 0));
    QCOMPARE(describe(bench.sender->take()),
             QStringList{expectedMessage(12, 15, "ff000000", kStartNs)});
    QVERIFY(rotary->handleMessage(SerialMessage(MessageType::ButtonState, 36, {1})));
    QVERIFY(rotary->pressed());
    QVERIFY(rotary->handleMessage(SerialMessage(MessageType::RotaryTouch, 15, {1})));
    QVERIFY(rotary->touched());
}

void TestComponentFactory::componentsSendThroughTheSenderTheyWereGiven()
{
    Bench bench;
    auto other = std::make_shared<RecordingSender>();
    const auto led = bench.factory.createLed(other, 0, int32_t(LedType::SoloButton), 2);
    const auto logo = bench.factory.createRgbLed(other, 0, int32_t(RgbLedType::MainLogo), 0);
    const auto meter = bench.factory.createMeter(other, 0, int32_t(MeterType::MasterRight), 0);
    const auto pot = bench.factory.createPot(other, 0, int32_t(PotType::Headphone), 0);
    const auto fader = bench.factory.createFader(other, 0, int32_t(FaderType::Fader), 6);

    led->setOn(1);
    logo->setColor(QColor(0, 0, 255));
    meter->setLevel(255);
    pot->setColor(QColor(0, 255, 0));
    QCOMPARE(describe(other->take()), (QStringList{expectedMessage(11, 12, "ff00", kStartNs),
                                                   expectedMessage(12, 17, "0000ff00", kStartNs),
                                                   expectedMessage(13, 1, "18", kStartNs),
                                                   expectedMessage(12, 18, "00ff0000", kStartNs)}));

    // The fader's first step after 100 ms parks it at 0 through the same sender.
    bench.tickEveryMsUntil(102);
    QCOMPARE(describe(other->take()),
             QStringList{expectedMessage(7, 6, "0000", kStartNs + 102 * kMs)});
    QCOMPARE(bench.sender->count(), std::size_t(0));
}

void TestComponentFactory::everyFaderStepsEveryFiftyMilliseconds()
{
    // Ticking every millisecond, a step every 50 ms runs at 51 ms (more than 50 ms after
    // the fader was made) and at 102 ms: the first step that finds more than 100 ms since
    // the fader was made parks it at 0.
    Bench bench;
    auto strip = bench.factory.createFader(bench.sender, 0, int32_t(FaderType::Fader), 0);
    auto master = bench.factory.createFader(bench.sender, 0, int32_t(FaderType::MasterFader), 0);
    QCOMPARE(bench.pool->taskCount(), std::size_t(2));

    bench.tickEveryMsUntil(101);
    QCOMPARE(bench.sender->count(), std::size_t(0));
    bench.tickEveryMsUntil(102);
    QCOMPARE(describe(bench.sender->take()),
             (QStringList{expectedMessage(7, 0, "0000", kStartNs + 102 * kMs),
                          expectedMessage(7, 10, "0000", kStartNs + 102 * kMs)}));

    // The pool holds the faders only weakly: their steps end with them.
    strip.reset();
    master.reset();
    bench.tickEveryMsUntil(160);
    QCOMPARE(bench.pool->taskCount(), std::size_t(0));
}

void TestComponentFactory::potAsksForItsValueEverySecondUntilItIsAnswered()
{
    Bench bench;
    const auto pot = bench.factory.createPot(bench.sender, 1, int32_t(PotType::Headphone), 0);
    QCOMPARE(bench.pool->taskCount(), std::size_t(1));

    bench.tickEveryMsUntil(1000);
    QCOMPARE(bench.sender->count(), std::size_t(0));
    bench.tickEveryMsUntil(2002);
    QCOMPARE(describe(bench.sender->take()),
             (QStringList{expectedMessage(17, 0, "", kStartNs + 1001 * kMs),
                          expectedMessage(17, 0, "", kStartNs + 2002 * kMs)}));

    QVERIFY(pot->handleMessage(SerialMessage(MessageType::PotValue, 0, {0x01, 0x2c})));
    QCOMPARE(pot->value(), uint16_t(300));
    bench.tickEveryMsUntil(5000);
    QCOMPARE(bench.sender->count(), std::size_t(0));
}

void TestComponentFactory::onlyFadersAndThePotAreScheduled()
{
    Bench bench;
    const auto led = bench.factory.createLed(bench.sender, 0, int32_t(LedType::MuteButton), 0);
    const auto button = bench.factory.createButton(bench.sender, 0, int32_t(ButtonType::Mute), 0);
    const auto rotary =
        bench.factory.createRotary(bench.sender, 0, int32_t(RotaryType::UnderScreen), 0);
    const auto logo = bench.factory.createRgbLed(bench.sender, 0, int32_t(RgbLedType::NameLogo), 0);
    const auto meter =
        bench.factory.createMeter(bench.sender, 0, int32_t(MeterType::MasterLeft), 0);
    QCOMPARE(bench.pool->taskCount(), std::size_t(0));

    // Nothing is scheduled for a control that does not exist.
    QVERIFY(!bench.factory.createFader(bench.sender, 0, int32_t(FaderType::Fader), 10));
    QVERIFY(!bench.factory.createPot(bench.sender, 0, int32_t(PotType::None), 0));
    QCOMPARE(bench.pool->taskCount(), std::size_t(0));

    const auto fader = bench.factory.createFader(bench.sender, 0, int32_t(FaderType::Fader), 1);
    QCOMPARE(bench.pool->taskCount(), std::size_t(1));
    const auto pot = bench.factory.createPot(bench.sender, 0, int32_t(PotType::Headphone), 0);
    QCOMPARE(bench.pool->taskCount(), std::size_t(2));
}

QTEST_GUILESS_MAIN(TestComponentFactory)
#include "tst_componentfactory.moc"
