#include <QtTest>
#include <memory>

#include "base/settings.h"
#include "serial/hardwareserialconnection.h"
#include "serial/iserialconnection.h"
#include "serial/serialconnectionfactory.h"
#include "serial/softwareserialconnection.h"
#include "support/fakesettings.h"
#include "support/logcapture.h"
#include "support/ptysectionsimulator.h"
#include "support/recordingdatareceiver.h"
#include "support/recordingsoftwarecontroller.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kHardware = 0;
constexpr uint8_t kSoftware = 1;
constexpr uint8_t kK40 = 1;
constexpr uint8_t kK60 = 2;
const char* const kPortsVariable = "TARVIX_WORKSURFACE_SERIAL_PORTS";

}  // namespace

class TestSerialConnectionFactory : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void softwareTypeCreatesASoftwareConnectionOnTheFactorysController();
    void anyOtherTypeCreatesAHardwareConnection_data();
    void anyOtherTypeCreatesAHardwareConnection();
    void eachCallCreatesANewConnection();
    void theSettingsPassedInDecideAndTheFactorysOwnStandIn();
    void withoutTheVariablePortNamesAreThoseOfTheConsolesTable_data();
    void withoutTheVariablePortNamesAreThoseOfTheConsolesTable();
    void variableEntriesOverrideTheSettingsNamePerSection_data();
    void variableEntriesOverrideTheSettingsNamePerSection();
    void variableIsReadWhenAConnectionIsCreated();
    void hardwareConnectionOpensTheSettingsPortName();
    void hardwareConnectionOpensTheDeviceNamedInTheVariable();
    void softwareConnectionIgnoresTheVariable();
};

void TestSerialConnectionFactory::init()
{
    qunsetenv(kPortsVariable);
}

void TestSerialConnectionFactory::cleanup()
{
    qunsetenv(kPortsVariable);
}

void TestSerialConnectionFactory::softwareTypeCreatesASoftwareConnectionOnTheFactorysController()
{
    auto settings = std::make_shared<FakeSettings>();
    settings->setType(kSoftware);
    auto controller = std::make_shared<RecordingSoftwareController>();
    SerialConnectionFactory factory(settings, controller);

    const std::shared_ptr<ISerialConnection> connection =
        factory.createSerialConnection(2, settings);

    auto* software = dynamic_cast<SoftwareSerialConnection*>(connection.get());
    QVERIFY(software != nullptr);
    QVERIFY(dynamic_cast<HardwareSerialConnection*>(connection.get()) == nullptr);
    QCOMPARE(software->sectionIndex(), uint8_t(2));
    QCOMPARE(software->isOpen(), false);
    // It talks to the controller the factory was given, for its own section.
    RecordingDataReceiver receiver;
    connection->setDataReceiver(&receiver);
    QCOMPARE(controller->receivers.size(), std::size_t(1));
    QCOMPARE(controller->receivers[0].sectionIndex, uint8_t(2));
    QCOMPARE(controller->receivers[0].receiver, &receiver);
}

void TestSerialConnectionFactory::anyOtherTypeCreatesAHardwareConnection_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("Hardware") << int(kHardware);
    QTest::newRow("out of range") << 7;
}

void TestSerialConnectionFactory::anyOtherTypeCreatesAHardwareConnection()
{
    QFETCH(int, type);
    auto settings = std::make_shared<FakeSettings>();
    settings->setType(static_cast<uint8_t>(type));
    settings->setSerialPortName(0, QStringLiteral("/dev/ttymxc0"));
    auto controller = std::make_shared<RecordingSoftwareController>();
    SerialConnectionFactory factory(settings, controller);
    LogCapture log;

    const std::shared_ptr<ISerialConnection> connection =
        factory.createSerialConnection(0, settings);

    QVERIFY(dynamic_cast<HardwareSerialConnection*>(connection.get()) != nullptr);
    QVERIFY(dynamic_cast<SoftwareSerialConnection*>(connection.get()) == nullptr);
    QCOMPARE(connection->isOpen(), false);
    // Creating a connection opens nothing and logs nothing.
    QCOMPARE(log.lines().size(), 0);
    QCOMPARE(controller->calls, QStringList());
}

void TestSerialConnectionFactory::eachCallCreatesANewConnection()
{
    auto settings = std::make_shared<FakeSettings>();
    settings->setType(kSoftware);
    SerialConnectionFactory factory(settings, std::make_shared<RecordingSoftwareController>());

    const auto first = factory.createSerialConnection(0, settings);
    const auto second = factory.createSerialConnection(0, settings);

    QVERIFY(first != nullptr);
    QVERIFY(second != nullptr);
    QVERIFY(first != second);
}

void TestSerialConnectionFactory::theSettingsPassedInDecideAndTheFactorysOwnStandIn()
{
    auto own = std::make_shared<FakeSettings>();
    own->setType(kSoftware);
    auto passed = std::make_shared<FakeSettings>();
    passed->setType(kHardware);
    SerialConnectionFactory factory(own, std::make_shared<RecordingSoftwareController>());

    const auto fromPassed = factory.createSerialConnection(0, passed);
    const auto fromOwn = factory.createSerialConnection(0, nullptr);

    QVERIFY(dynamic_cast<HardwareSerialConnection*>(fromPassed.get()) != nullptr);
    QVERIFY(dynamic_cast<SoftwareSerialConnection*>(fromOwn.get()) != nullptr);
}

void TestSerialConnectionFactory::withoutTheVariablePortNamesAreThoseOfTheConsolesTable_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("section");
    QTest::addColumn<QString>("name");
    QTest::newRow("K40 0") << int(kK40) << 0 << "/dev/ttymxc1";
    QTest::newRow("K40 1") << int(kK40) << 1 << "/dev/ttymxc2";
    QTest::newRow("K40 2") << int(kK40) << 2 << "";
    QTest::newRow("K60 0") << int(kK60) << 0 << "/dev/ttymxc0";
    QTest::newRow("K60 1") << int(kK60) << 1 << "/dev/ttymxc1";
    QTest::newRow("K60 2") << int(kK60) << 2 << "/dev/ttymxc2";
    QTest::newRow("K60 5") << int(kK60) << 5 << "/dev/ttymxc0";
    QTest::newRow("Unknown 0") << 0 << 0 << "";
}

void TestSerialConnectionFactory::withoutTheVariablePortNamesAreThoseOfTheConsolesTable()
{
    QFETCH(int, mode);
    QFETCH(int, section);
    QFETCH(QString, name);
    Settings settings;
    settings.setMode(static_cast<uint8_t>(mode));

    QCOMPARE(SerialConnectionFactory::serialPortName(static_cast<uint8_t>(section), settings),
             name);

    // An empty variable is the same as none.
    qputenv(kPortsVariable, QByteArray());
    QCOMPARE(SerialConnectionFactory::serialPortName(static_cast<uint8_t>(section), settings),
             name);
}

void TestSerialConnectionFactory::variableEntriesOverrideTheSettingsNamePerSection_data()
{
    QTest::addColumn<QByteArray>("variable");
    QTest::addColumn<QStringList>("names");  // sections 0..3 on a K60
    const QStringList table{"/dev/ttymxc0", "/dev/ttymxc1", "/dev/ttymxc2", "/dev/ttymxc0"};
    QTest::newRow("all three") << QByteArray("/dev/ttyUSB0,/dev/ttyUSB1,/dev/ttyUSB2")
                               << QStringList{"/dev/ttyUSB0", "/dev/ttyUSB1", "/dev/ttyUSB2",
                                              "/dev/ttymxc0"};
    QTest::newRow("empty middle entry keeps the table")
        << QByteArray("/dev/ttyUSB0,,/dev/ttyUSB2")
        << QStringList{"/dev/ttyUSB0", "/dev/ttymxc1", "/dev/ttyUSB2", "/dev/ttymxc0"};
    QTest::newRow("missing entries keep the table")
        << QByteArray("/dev/ttyACM0")
        << QStringList{"/dev/ttyACM0", "/dev/ttymxc1", "/dev/ttymxc2", "/dev/ttymxc0"};
    QTest::newRow("only section 1")
        << QByteArray(",/tmp/pty-b")
        << QStringList{"/dev/ttymxc0", "/tmp/pty-b", "/dev/ttymxc2", "/dev/ttymxc0"};
    QTest::newRow("blanks around entries are trimmed")
        << QByteArray(" /dev/ttyUSB0 , ,/dev/ttyUSB2 ")
        << QStringList{"/dev/ttyUSB0", "/dev/ttymxc1", "/dev/ttyUSB2", "/dev/ttymxc0"};
    QTest::newRow("only commas") << QByteArray(",,,") << table;
}

void TestSerialConnectionFactory::variableEntriesOverrideTheSettingsNamePerSection()
{
    QFETCH(QByteArray, variable);
    QFETCH(QStringList, names);
    Settings settings;
    settings.setMode(kK60);
    qputenv(kPortsVariable, variable);

    for (int section = 0; section < names.size(); ++section) {
        QCOMPARE(SerialConnectionFactory::serialPortName(static_cast<uint8_t>(section), settings),
                 names.at(section));
    }
}

void TestSerialConnectionFactory::variableIsReadWhenAConnectionIsCreated()
{
    // Set after the factory was built (the surface service builds it once): the next
    // surface built sees it.
    auto settings = std::make_shared<Settings>();
    settings->setMode(kK60);
    SerialConnectionFactory factory(settings, std::make_shared<RecordingSoftwareController>());
    QCOMPARE(SerialConnectionFactory::serialPortName(0, *settings), QString("/dev/ttymxc0"));

    qputenv(kPortsVariable, "/dev/ttyUSB7");
    QCOMPARE(SerialConnectionFactory::serialPortName(0, *settings), QString("/dev/ttyUSB7"));

    qunsetenv(kPortsVariable);
    QCOMPARE(SerialConnectionFactory::serialPortName(0, *settings), QString("/dev/ttymxc0"));
}

void TestSerialConnectionFactory::hardwareConnectionOpensTheSettingsPortName()
{
    auto settings = std::make_shared<FakeSettings>();
    settings->setType(kHardware);
    settings->setSerialPortName(1, QStringLiteral("/nonexistent/tarvix-section-1"));
    SerialConnectionFactory factory(settings, std::make_shared<RecordingSoftwareController>());
    const auto connection = factory.createSerialConnection(1, settings);
    LogCapture log;

    connection->open();

    QCOMPARE(connection->isOpen(), false);
    QVERIFY2(log.contains(QtCriticalMsg,
                          "Unable to open WS section 1 serial port with name:  "
                          "\"/nonexistent/tarvix-section-1\""),
             qPrintable(log.texts().join('\n')));
}

void TestSerialConnectionFactory::hardwareConnectionOpensTheDeviceNamedInTheVariable()
{
    PtySectionSimulator section;
    QVERIFY2(section.isOpen(), qPrintable(section.errorString()));
    auto settings = std::make_shared<FakeSettings>();
    settings->setType(kHardware);
    settings->setSerialPortName(1, QStringLiteral("/nonexistent/tarvix-section-1"));
    qputenv(kPortsVariable, ("," + section.slavePath()).toLocal8Bit());
    SerialConnectionFactory factory(settings, std::make_shared<RecordingSoftwareController>());
    const auto connection = factory.createSerialConnection(1, settings);
    LogCapture log;

    connection->open();

    QCOMPARE(connection->isOpen(), true);
    QCOMPARE(
        log.texts(QtDebugMsg),
        QStringList{
            QString("WS section 1 serial port: \"%1\" ready and open.").arg(section.slavePath())});
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
    connection->close();
}

void TestSerialConnectionFactory::softwareConnectionIgnoresTheVariable()
{
    auto settings = std::make_shared<FakeSettings>();
    settings->setType(kSoftware);
    qputenv(kPortsVariable, "/dev/ttyUSB0,/dev/ttyUSB1");
    SerialConnectionFactory factory(settings, std::make_shared<RecordingSoftwareController>());

    const auto connection = factory.createSerialConnection(0, settings);

    QVERIFY(dynamic_cast<SoftwareSerialConnection*>(connection.get()) != nullptr);
}

QTEST_GUILESS_MAIN(TestSerialConnectionFactory)
#include "tst_serialconnectionfactory.moc"
