#include <QPointer>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "support/deferreddeletes.h"
#include "support/signallog.h"
#include "surface/button.h"
#include "surface/buttonhandle.h"
#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kButtonState = 20;
// The solo switch of strip 4.
constexpr uint8_t kDevice = 14;
constexpr uint8_t kSection = 2;

SerialMessage buttonMessage(std::vector<uint8_t> payload, uint8_t deviceId = kDevice)
{
    return SerialMessage(kButtonState, deviceId, std::move(payload));
}

// Both handle signals, in the order they came.
struct HandleSignals : SignalLog
{
    explicit HandleSignals(ButtonHandle* handle)
    {
        record(handle, &ButtonHandle::buttonPressed, "pressed");
        record(handle, &ButtonHandle::buttonReleased, "released");
    }
};

}  // namespace

class TestButton : public QObject
{
    Q_OBJECT

private slots:
    void reportsItsIdentity();
    void handleSignalsAreButtonPressedThenButtonReleased();
    void masterSoloHasNoDevice_data();
    void masterSoloHasNoDevice();

    // Messages
    void pressAndReleaseReachTheHandle();
    void aRepeatedButtonStateEmitsOnlyOnce();
    void anyNonzeroByteIsPressed_data();
    void anyNonzeroByteIsPressed();
    void aMissingByteKeepsTheStoredState();
    void messagesOfOtherDevicesOrTypesAreNotTaken_data();
    void messagesOfOtherDevicesOrTypesAreNotTaken();
    void changesWithoutAHandleAreStoredSilently();
    void resendStateDoesNothing();

    // Handles
    void secondHandleDetachesTheFirst();
    void detachingTheCurrentHandleDropsIt();
    void releasingAStaleHandleKeepsTheCurrentOne();
    void detachedHandleGetsNothingAndDetachesOnlyOnce();
    void handleStandsForItsSectionAndDevice();
    void handleIsDeletedLaterWhenItsLastOwnerGoes();
    void destroyingTheButtonCutsItsHandleOff();
};

void TestButton::reportsItsIdentity()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    QCOMPARE(button.deviceId(), kDevice);
    QCOMPARE(button.sectionIndex(), kSection);
    QCOMPARE(button.buttonType(), ButtonType::Solo);
    QCOMPARE(button.pressed(), false);
}

void TestButton::handleSignalsAreButtonPressedThenButtonReleased()
{
    const QMetaObject& meta = ButtonHandle::staticMetaObject;
    const int first = meta.methodOffset();
    QCOMPARE(meta.methodCount() - first, 2);
    QCOMPARE(meta.method(first).methodSignature(), QByteArray("buttonPressed()"));
    QCOMPARE(meta.method(first + 1).methodSignature(), QByteArray("buttonReleased()"));
    QCOMPARE(meta.method(first).methodType(), QMetaMethod::Signal);
    QCOMPARE(meta.method(first + 1).methodType(), QMetaMethod::Signal);
}

void TestButton::masterSoloHasNoDevice_data()
{
    QTest::addColumn<int>("index");
    QTest::newRow("0") << 0;
    QTest::newRow("1") << 1;
    QTest::newRow("9") << 9;
    QTest::newRow("255") << 255;
}

void TestButton::masterSoloHasNoDevice()
{
    QFETCH(int, index);
    // The console has no master solo switch, so the factory makes no button for it.
    QCOMPARE(DeviceIdTable::button(ButtonType::MasterSolo, static_cast<uint8_t>(index)),
             DeviceIdTable::NoDevice);
    QCOMPARE(DeviceIdTable::button(static_cast<int32_t>(ButtonType::MasterSolo), index),
             DeviceIdTable::NoDevice);
}

void TestButton::pressAndReleaseReachTheHandle()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    HandleSignals log(handle.get());

    QVERIFY(button.handleMessage(buttonMessage({1})));
    QCOMPARE(button.pressed(), true);
    QVERIFY(button.handleMessage(buttonMessage({0})));
    QCOMPARE(button.pressed(), false);
    QCOMPARE(log.events, QStringList({"pressed", "released"}));
}

void TestButton::aRepeatedButtonStateEmitsOnlyOnce()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    HandleSignals log(handle.get());

    // Both messages are the button's and are taken; only the change is signalled.
    QVERIFY(button.handleMessage(buttonMessage({1})));
    QVERIFY(button.handleMessage(buttonMessage({1})));
    QCOMPARE(log.events, QStringList{"pressed"});
    QVERIFY(button.handleMessage(buttonMessage({0})));
    QVERIFY(button.handleMessage(buttonMessage({0})));
    QCOMPARE(log.events, QStringList({"pressed", "released"}));
}

void TestButton::anyNonzeroByteIsPressed_data()
{
    QTest::addColumn<int>("byte");
    QTest::newRow("01") << 0x01;
    QTest::newRow("02") << 0x02;
    QTest::newRow("7f") << 0x7f;
    QTest::newRow("80") << 0x80;
    QTest::newRow("ff") << 0xff;
}

void TestButton::anyNonzeroByteIsPressed()
{
    QFETCH(int, byte);
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    HandleSignals log(handle.get());
    QVERIFY(button.handleMessage(buttonMessage({static_cast<uint8_t>(byte), 0})));
    QCOMPARE(button.pressed(), true);
    QCOMPARE(log.events, QStringList{"pressed"});
}

void TestButton::aMissingByteKeepsTheStoredState()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    HandleSignals log(handle.get());

    QVERIFY(button.handleMessage(buttonMessage({})));
    QCOMPARE(button.pressed(), false);
    QVERIFY(button.handleMessage(buttonMessage({1})));
    QVERIFY(button.handleMessage(buttonMessage({})));
    QCOMPARE(button.pressed(), true);
    QCOMPARE(log.events, QStringList{"pressed"});
}

void TestButton::messagesOfOtherDevicesOrTypesAreNotTaken_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("deviceId");
    QTest::newRow("another button") << 20 << 13;
    QTest::newRow("the LED of this switch") << 11 << int(kDevice);
    QTest::newRow("a rotary touch with the same id") << 19 << int(kDevice);
    QTest::newRow("a fader touch with the same id") << 16 << int(kDevice);
    QTest::newRow("ping") << 0 << int(kDevice);
}

void TestButton::messagesOfOtherDevicesOrTypesAreNotTaken()
{
    QFETCH(int, type);
    QFETCH(int, deviceId);
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    HandleSignals log(handle.get());

    QVERIFY(!button.handleMessage(
        SerialMessage(static_cast<uint8_t>(type), static_cast<uint8_t>(deviceId), {1, 1, 1})));
    QCOMPARE(button.pressed(), false);
    QCOMPARE(log.events, QStringList());
}

void TestButton::changesWithoutAHandleAreStoredSilently()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    QVERIFY(button.handleMessage(buttonMessage({1})));
    QCOMPARE(button.pressed(), true);

    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    HandleSignals log(handle.get());
    // Already pressed: no change, so nothing to tell the new handle.
    QVERIFY(button.handleMessage(buttonMessage({1})));
    QCOMPARE(log.events, QStringList());
    QVERIFY(button.handleMessage(buttonMessage({0})));
    QCOMPARE(log.events, QStringList{"released"});
}

void TestButton::resendStateDoesNothing()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    HandleSignals log(handle.get());
    button.handleMessage(buttonMessage({1}));
    button.setLinkReady(false);
    button.setLinkReady(true);
    QCOMPARE(button.pressed(), true);
    QCOMPARE(log.events, QStringList{"pressed"});
}

void TestButton::secondHandleDetachesTheFirst()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> first = button.getHandle();
    HandleSignals firstLog(first.get());
    const std::shared_ptr<ButtonHandle> second = button.getHandle();
    HandleSignals secondLog(second.get());

    QVERIFY(second != first);
    QCOMPARE(first->button(), nullptr);
    QCOMPARE(second->button(), &button);
    button.handleMessage(buttonMessage({1}));
    QCOMPARE(firstLog.events, QStringList());
    QCOMPARE(secondLog.events, QStringList{"pressed"});
}

void TestButton::detachingTheCurrentHandleDropsIt()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    std::shared_ptr<ButtonHandle> handle = button.getHandle();
    QPointer<ButtonHandle> watch(handle.get());
    HandleSignals log(handle.get());

    handle->detach();
    QCOMPARE(handle->button(), nullptr);
    handle.reset();
    // The button let go of it too: its last owner is gone.
    flushDeferredDeletes();
    QVERIFY(!watch);

    QVERIFY(button.handleMessage(buttonMessage({1})));
    QCOMPARE(log.events, QStringList());
    QCOMPARE(button.pressed(), true);
}

void TestButton::releasingAStaleHandleKeepsTheCurrentOne()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> first = button.getHandle();
    const std::shared_ptr<ButtonHandle> second = button.getHandle();
    HandleSignals log(second.get());

    button.releaseHandle(first.get());
    QCOMPARE(second->button(), &button);
    button.handleMessage(buttonMessage({1}));
    QCOMPARE(log.events, QStringList{"pressed"});
}

void TestButton::detachedHandleGetsNothingAndDetachesOnlyOnce()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> first = button.getHandle();
    HandleSignals firstLog(first.get());
    first->detach();
    const std::shared_ptr<ButtonHandle> second = button.getHandle();
    HandleSignals secondLog(second.get());

    // A second detach of the old handle must not release the new one.
    first->detach();
    QCOMPARE(second->button(), &button);
    button.handleMessage(buttonMessage({1}));
    QCOMPARE(firstLog.events, QStringList());
    QCOMPARE(secondLog.events, QStringList{"pressed"});
    QVERIFY(!first->standsFor(kSection, kDevice));
}

void TestButton::handleStandsForItsSectionAndDevice()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button.getHandle();
    QVERIFY(handle->standsFor(kSection, kDevice));
    QVERIFY(!handle->standsFor(kSection - 1, kDevice));
    QVERIFY(!handle->standsFor(kSection, kDevice + 1));
}

void TestButton::handleIsDeletedLaterWhenItsLastOwnerGoes()
{
    Button button(kDevice, kSection, ButtonType::Solo);
    std::shared_ptr<ButtonHandle> handle = button.getHandle();
    QPointer<ButtonHandle> watch(handle.get());
    handle.reset();
    flushDeferredDeletes();
    QVERIFY(watch);  // the button still owns it

    button.getHandle();
    QVERIFY(watch);  // dropped, but deleted only by the event loop
    flushDeferredDeletes();
    QVERIFY(!watch);
}

void TestButton::destroyingTheButtonCutsItsHandleOff()
{
    auto button = std::make_unique<Button>(kDevice, kSection, ButtonType::Solo);
    const std::shared_ptr<ButtonHandle> handle = button->getHandle();
    button.reset();
    QCOMPARE(handle->button(), nullptr);
    QVERIFY(!handle->standsFor(kSection, kDevice));
    handle->detach();
}

QTEST_GUILESS_MAIN(TestButton)
#include "tst_button.moc"
