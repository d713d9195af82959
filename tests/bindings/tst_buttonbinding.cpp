#include <QCoreApplication>
#include <QMetaMethod>
#include <QMetaObject>
#include <QSignalSpy>
#include <QtTest/QtTest>
#include <memory>

#include "bindings/buttonbinding.h"
#include "bindings/surfaceconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "support/deferreddeletes.h"
#include "support/fakesoftwarehandler.h"
#include "support/manualclock.h"
#include "support/signallog.h"
#include "support/softwaresurfacefixture.h"
#include "surface/componentfactory.h"
#include "surface/ibutton.h"
#include "surface/section.h"
#include "surface/surface.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kButtonState = 20;
// On the two-section console the master section is section 1.
constexpr uint8_t kMasterSection = 1;

// The switch ids (message type 20) a section of the two-section console answers to: mute
// 0..9, solo 10..19 and the strip rotaries' switches 21..30 everywhere; the master section
// adds master mute 20, the side rotaries' switches 31..36 and the snapshot, layer,
// spill-set and overview switches 37..42. The rotary switches are taken by their rotaries.
QList<uint8_t> buttonIds(uint8_t section)
{
    QList<uint8_t> ids;
    for (int id = 0; id <= 42; ++id) {
        if (section == kMasterSection || id < 20 || (id >= 21 && id <= 30)) {
            ids << static_cast<uint8_t>(id);
        }
    }
    return ids;
}

// A two-section console over the software link with its links up, handed to a
// SurfaceConnection as the surface service does.
struct Rig
{
    ManualClock clock;
    SoftwareSurfaceFixture surface{clock, 1};
    SurfaceConnection connection{surface.sharedController(), nullptr};

    Rig()
    {
        surface.installInto(connection);
        surface.start();
        surface.runForMs(200);
        QCoreApplication::sendPostedEvents();
        surface.sectionSide().clear();
    }

    ~Rig() { flushDeferredDeletes(); }

    void press(uint8_t section, uint8_t device)
    {
        surface.sendToPlugin(section, kButtonState, device, {1});
        QCoreApplication::sendPostedEvents();
    }

    void release(uint8_t section, uint8_t device)
    {
        surface.sendToPlugin(section, kButtonState, device, {0});
        QCoreApplication::sendPostedEvents();
    }

    // Presses and releases every button of a section, one after the other.
    void pressEveryButton(uint8_t section)
    {
        for (const uint8_t id : buttonIds(section)) {
            press(section, id);
            release(section, id);
        }
    }
};

// A one-section surface assembled from real components whose section carries the push
// switches of one rotary row as buttons of their own, made by the component factory for
// every index from 0 to count - 1 (indices it has no switch for are left out).
struct SwitchRig
{
    SwitchRig(ButtonBinding::ButtonType type, int count)
    {
        ComponentFactory factory(std::make_shared<TaskPool>());
        std::vector<std::shared_ptr<IButton>> buttons;
        for (int index = 0; index < count; ++index) {
            if (auto button = factory.createButton(nullptr, 0, type, static_cast<uint8_t>(index))) {
                buttons.push_back(button);
            }
        }
        section = std::make_shared<Section>(
            0, nullptr, nullptr, std::vector<std::shared_ptr<IFader>>(), buttons,
            std::vector<std::shared_ptr<IRotary>>(), std::vector<std::shared_ptr<ILed>>(),
            std::vector<std::shared_ptr<IRgbLed>>(), std::vector<std::shared_ptr<IMeter>>());
        connection.installSurface(
            std::make_shared<Surface>(std::vector<std::shared_ptr<ISection>>({section}),
                                      std::vector<std::shared_ptr<ISectionConnection>>()));
    }

    ~SwitchRig() { flushDeferredDeletes(); }

    // The section's report, offered to its buttons as the link's dispatcher does.
    void report(uint8_t device, uint8_t state)
    {
        const SerialMessage message(kButtonState, device, {state});
        for (const std::shared_ptr<IButton>& button : section->buttons()) {
            if (button->handleMessage(message)) {
                break;
            }
        }
        QCoreApplication::sendPostedEvents();
    }
    void press(uint8_t device) { report(device, 1); }
    void release(uint8_t device) { report(device, 0); }
    void pressEveryButton()
    {
        for (int id = 0; id <= 42; ++id) {
            press(static_cast<uint8_t>(id));
            release(static_cast<uint8_t>(id));
        }
    }

    std::shared_ptr<Section> section;
    SurfaceConnection connection{nullptr, nullptr};
};

// Both binding signals, in the order they came.
struct BindingSignals : SignalLog
{
    explicit BindingSignals(ButtonBinding& binding)
    {
        record(&binding, &ButtonBinding::buttonPressed, "pressed");
        record(&binding, &ButtonBinding::buttonReleased, "released");
    }
};

// Plays QML creating a binding with its initial values.
void declare(ButtonBinding& binding, SurfaceConnection* connection, ButtonBinding::ButtonType type,
             int section, int index, bool active = true)
{
    binding.classBegin();
    binding.setConnection(connection);
    binding.setType(type);
    binding.setSectionIndex(section);
    binding.setIndex(index);
    binding.setActive(active);
    binding.componentComplete();
}

}  // namespace

class TestButtonBinding : public QObject
{
    Q_OBJECT

private slots:
    void metaObjectIsInTheQmlOrder();
    void enumerationKeysAreSpelledAsTheConsoleNamesThem();
    void startsUnbound();

    void pressAndReleaseReachTheBinding();
    void bindsTheButtonItsTypeAndIndexSelect_data();
    void bindsTheButtonItsTypeAndIndexSelect();
    void masterSoloNeverEmitsButtonPressed();
    void muteWithIndexTenNeverEmitsButtonPressed();
    void underscreenRotaryIndexNineBindsButtonThirty();
    void sideRotaryIndexFiveBindsButtonThirtySixAndIndexSixNothing();
    void rotarySwitchesOfTheBuiltSurfaceBelongToTheirRotaries();
    void inactiveBindingNeverBinds();
    void typeTakesEffectOnlyAtTheNextLookup();
    void changingIndexMovesToTheNewButton();
    void settingTheSameConnectionAgainKeepsTheButton();
    void makingItInactiveWithNoSurfaceReachableReleasesTheButton();
    void destructorReleasesTheButton();
    void aButtonBindingSendsNothingToTheSection();
};

void TestButtonBinding::metaObjectIsInTheQmlOrder()
{
    const QMetaObject& meta = ButtonBinding::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        methods << QString::fromLatin1(meta.method(i).methodSignature());
    }
    QCOMPARE(methods, QStringList({"typeChanged()", "buttonPressed()", "buttonReleased()"}));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        properties << QString::fromLatin1(meta.property(i).name());
    }
    QCOMPARE(properties, QStringList({"type"}));
    QCOMPARE(meta.property(meta.indexOfProperty("type")).notifySignal().name(),
             QByteArray("typeChanged"));
}

void TestButtonBinding::enumerationKeysAreSpelledAsTheConsoleNamesThem()
{
    const QMetaObject& meta = ButtonBinding::staticMetaObject;
    const QMetaEnum type = meta.enumerator(meta.indexOfEnumerator("ButtonType"));
    QStringList keys;
    QList<int> values;
    for (int i = 0; i < type.keyCount(); ++i) {
        keys << QString::fromLatin1(type.key(i));
        values << type.value(i);
    }
    QCOMPARE(keys, QStringList({"None", "Mute", "Solo", "MasterMute", "MasterSolo", "NextSnapsthot",
                                "PreviousSnapshot", "LayerUp", "LayerDown", "Spillset", "Overview",
                                "UnderscreenRotary", "SideRotary"}));
    QCOMPARE(values, QList<int>({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
}

void TestButtonBinding::startsUnbound()
{
    ButtonBinding binding;
    QCOMPARE(binding.type(), ButtonBinding::None);
    QCOMPARE(binding.active(), false);
    QCOMPARE(binding.sectionIndex(), 255);
    QCOMPARE(binding.index(), 255);
}

void TestButtonBinding::pressAndReleaseReachTheBinding()
{
    Rig rig;
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 3);
    rig.press(0, 3);
    // The section repeating a state is signalled once.
    rig.press(0, 3);
    rig.release(0, 3);
    QCOMPARE(log.events, QStringList({"pressed", "released"}));
    // The same switch of the other section is another button.
    rig.press(1, 3);
    QCOMPARE(log.events, QStringList({"pressed", "released"}));
}

void TestButtonBinding::bindsTheButtonItsTypeAndIndexSelect_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("device");

    QTest::newRow("Mute 0") << int(ButtonBinding::Mute) << 0 << 0 << 0;
    QTest::newRow("Mute 9") << int(ButtonBinding::Mute) << 0 << 9 << 9;
    QTest::newRow("Solo 0") << int(ButtonBinding::Solo) << 0 << 0 << 10;
    QTest::newRow("Solo 9") << int(ButtonBinding::Solo) << 1 << 9 << 19;
    QTest::newRow("MasterMute") << int(ButtonBinding::MasterMute) << 1 << 0 << 20;
    QTest::newRow("MasterMute ignores the index") << int(ButtonBinding::MasterMute) << 1 << 7 << 20;
    QTest::newRow("NextSnapsthot") << int(ButtonBinding::NextSnapsthot) << 1 << 0 << 39;
    QTest::newRow("PreviousSnapshot") << int(ButtonBinding::PreviousSnapshot) << 1 << 0 << 38;
    QTest::newRow("LayerUp") << int(ButtonBinding::LayerUp) << 1 << 0 << 40;
    QTest::newRow("LayerDown") << int(ButtonBinding::LayerDown) << 1 << 0 << 42;
    QTest::newRow("Spillset") << int(ButtonBinding::Spillset) << 1 << 0 << 37;
    QTest::newRow("Overview") << int(ButtonBinding::Overview) << 1 << 0 << 41;
    // The rotary switches are covered on their own below.
}

void TestButtonBinding::bindsTheButtonItsTypeAndIndexSelect()
{
    QFETCH(int, type);
    QFETCH(int, section);
    QFETCH(int, index);
    QFETCH(int, device);

    Rig rig;
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, static_cast<ButtonBinding::ButtonType>(type), section, index);
    const QList<uint8_t> ids = buttonIds(static_cast<uint8_t>(section));
    QVERIFY(ids.contains(static_cast<uint8_t>(device)));
    for (const uint8_t id : ids) {
        rig.press(static_cast<uint8_t>(section), id);
        const QStringList expected = id == device ? QStringList({"pressed"}) : QStringList();
        QCOMPARE(log.events, expected);
        rig.release(static_cast<uint8_t>(section), id);
        log.events.clear();
    }
}

void TestButtonBinding::masterSoloNeverEmitsButtonPressed()
{
    Rig rig;
    ButtonBinding binding;
    QSignalSpy pressed(&binding, &ButtonBinding::buttonPressed);
    declare(binding, &rig.connection, ButtonBinding::MasterSolo, kMasterSection, 0);
    rig.pressEveryButton(kMasterSection);
    binding.setIndex(1);
    rig.pressEveryButton(kMasterSection);
    rig.pressEveryButton(0);
    QCOMPARE(pressed.count(), 0);
}

void TestButtonBinding::muteWithIndexTenNeverEmitsButtonPressed()
{
    Rig rig;
    ButtonBinding binding;
    QSignalSpy pressed(&binding, &ButtonBinding::buttonPressed);
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 10);
    // Button 10 exists (strip 0's solo switch), but it is not mute 10.
    rig.pressEveryButton(0);
    binding.setSectionIndex(kMasterSection);
    rig.pressEveryButton(kMasterSection);
    QCOMPARE(pressed.count(), 0);
}

void TestButtonBinding::underscreenRotaryIndexNineBindsButtonThirty()
{
    SwitchRig rig(ButtonBinding::UnderscreenRotary, 10);
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::UnderscreenRotary, 0, 9);
    rig.press(29);
    rig.press(31);
    QCOMPARE(log.events, QStringList());
    rig.press(30);
    rig.release(30);
    QCOMPARE(log.events, QStringList({"pressed", "released"}));
    // A later update keeps it: the handle still stands for switch 30.
    binding.setConnection(&rig.connection);
    rig.press(30);
    QCOMPARE(log.events, QStringList({"pressed", "released", "pressed"}));
    rig.release(30);

    // Index 10 is past the strips: nothing.
    log.events.clear();
    binding.setIndex(10);
    rig.pressEveryButton();
    QCOMPARE(log.events, QStringList());
}

void TestButtonBinding::sideRotaryIndexFiveBindsButtonThirtySixAndIndexSixNothing()
{
    SwitchRig rig(ButtonBinding::SideRotary, 6);
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::SideRotary, 0, 5);
    rig.press(35);
    QCOMPARE(log.events, QStringList());
    rig.press(36);
    rig.release(36);
    QCOMPARE(log.events, QStringList({"pressed", "released"}));

    log.events.clear();
    binding.setIndex(6);
    rig.pressEveryButton();
    QCOMPARE(log.events, QStringList());
}

void TestButtonBinding::rotarySwitchesOfTheBuiltSurfaceBelongToTheirRotaries()
{
    // The console's section layout makes the rotary push switches part of the rotaries
    // (they report as rotaryPressed), not buttons of their own: a button binding of these
    // types finds no button there, and the rotaries keep the presses.
    Rig rig;
    ButtonBinding strip;
    ButtonBinding side;
    QSignalSpy stripPressed(&strip, &ButtonBinding::buttonPressed);
    QSignalSpy sidePressed(&side, &ButtonBinding::buttonPressed);
    declare(strip, &rig.connection, ButtonBinding::UnderscreenRotary, 0, 9);
    declare(side, &rig.connection, ButtonBinding::SideRotary, kMasterSection, 5);
    rig.pressEveryButton(0);
    rig.pressEveryButton(kMasterSection);
    QCOMPARE(stripPressed.count(), 0);
    QCOMPARE(sidePressed.count(), 0);
    QVERIFY(!rig.surface.surface().button(ButtonBinding::UnderscreenRotary, 0, 9));
    QVERIFY(!rig.surface.surface().button(ButtonBinding::SideRotary, kMasterSection, 5));
}

void TestButtonBinding::inactiveBindingNeverBinds()
{
    Rig rig;
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 3, false);
    for (int index = 0; index < 12; ++index) {
        binding.setIndex(index);
        rig.pressEveryButton(0);
    }
    QCOMPARE(log.events, QStringList());
}

void TestButtonBinding::typeTakesEffectOnlyAtTheNextLookup()
{
    Rig rig;
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 3);
    QSignalSpy typeChanged(&binding, &ButtonBinding::typeChanged);
    binding.setType(ButtonBinding::Solo);
    binding.setType(ButtonBinding::Solo);
    QCOMPARE(typeChanged.count(), 1);
    // Still mute 3 until the next lookup.
    rig.press(0, 13);
    rig.press(0, 3);
    QCOMPARE(log.events, QStringList({"pressed"}));
    rig.release(0, 3);

    log.events.clear();
    binding.setConnection(&rig.connection);
    rig.press(0, 3);
    rig.release(0, 3);
    QCOMPARE(log.events, QStringList());
    // Solo 3 was already down when the binding took it: only its release is news.
    rig.release(0, 13);
    rig.press(0, 13);
    QCOMPARE(log.events, QStringList({"released", "pressed"}));
}

void TestButtonBinding::changingIndexMovesToTheNewButton()
{
    Rig rig;
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 3);
    binding.setIndex(4);
    rig.press(0, 3);
    QCOMPARE(log.events, QStringList());
    rig.press(0, 4);
    QCOMPARE(log.events, QStringList({"pressed"}));

    binding.setSectionIndex(kMasterSection);
    rig.release(0, 4);
    QCOMPARE(log.events, QStringList({"pressed"}));
    rig.press(kMasterSection, 4);
    QCOMPARE(log.events, QStringList({"pressed", "pressed"}));
}

void TestButtonBinding::settingTheSameConnectionAgainKeepsTheButton()
{
    Rig rig;
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 3);
    rig.press(0, 3);
    binding.setConnection(&rig.connection);
    binding.setActive(true);
    rig.release(0, 3);
    QCOMPARE(log.events, QStringList({"pressed", "released"}));
}

void TestButtonBinding::makingItInactiveWithNoSurfaceReachableReleasesTheButton()
{
    Rig rig;
    ButtonBinding binding;
    BindingSignals log(binding);
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 3);

    // Without a connection the binding keeps its button...
    binding.setConnection(nullptr);
    rig.press(0, 3);
    QCOMPARE(log.events, QStringList({"pressed"}));

    // ...until it is made inactive: it lets go even though no surface is reachable.
    binding.setActive(false);
    rig.release(0, 3);
    rig.press(0, 3);
    QCOMPARE(log.events, QStringList({"pressed"}));

    // Active again without a surface, it finds nothing.
    binding.setActive(true);
    rig.release(0, 3);
    QCOMPARE(log.events, QStringList({"pressed"}));
}

void TestButtonBinding::destructorReleasesTheButton()
{
    Rig rig;
    auto* binding = new ButtonBinding;
    declare(*binding, &rig.connection, ButtonBinding::Mute, 0, 3);
    QSignalSpy activeChanged(binding, &ButtonBinding::activeChanged);
    delete binding;
    QCOMPARE(activeChanged.count(), 1);
    // The button's handle was given back and goes with the next deferred delete; a press
    // afterwards reaches nobody.
    flushDeferredDeletes();
    rig.press(0, 3);

    // A new binding takes the button over as usual.
    ButtonBinding next;
    BindingSignals log(next);
    declare(next, &rig.connection, ButtonBinding::Mute, 0, 3);
    rig.release(0, 3);
    QCOMPARE(log.events, QStringList({"released"}));
}

void TestButtonBinding::aButtonBindingSendsNothingToTheSection()
{
    Rig rig;
    ButtonBinding binding;
    declare(binding, &rig.connection, ButtonBinding::Mute, 0, 3);
    binding.setIndex(4);
    binding.setConnection(&rig.connection);
    binding.setActive(false);
    QCoreApplication::sendPostedEvents();
    rig.surface.drain();
    for (const FakeSoftwareHandler::Offer& offer : rig.surface.sectionSide().offers()) {
        // Only the link's own traffic: pings and the pot's value request.
        QVERIFY2(offer.message.type == 0 || offer.message.type == 17,
                 qPrintable(QStringLiteral("type %1").arg(offer.message.type)));
    }
}

QTEST_GUILESS_MAIN(TestButtonBinding)
#include "tst_buttonbinding.moc"
