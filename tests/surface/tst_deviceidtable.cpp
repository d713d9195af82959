#include <QtTest/QtTest>
#include <cstdint>
#include <limits>
#include <vector>

#include "surface/deviceidtable.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kNone = 255;

// One row of the console's numbering, written out as the tables give it: either a fixed
// id whatever the index, or index + offset for index below count.
struct Row
{
    int type;
    int fixed;  // -1: ranged
    int offset;
    int count;
};

constexpr Row fixedId(int type, int id)
{
    return Row{type, id, 0, 0};
}

constexpr Row ranged(int type, int offset, int count)
{
    return Row{type, -1, offset, count};
}

const std::vector<Row> kFaders = {ranged(1, 0, 10), fixedId(2, 10)};

const std::vector<Row> kButtons = {
    ranged(1, 0, 10),  fixedId(3, 20),     fixedId(5, 39),    fixedId(6, 38),
    fixedId(7, 40),    fixedId(8, 42),     fixedId(9, 37),    fixedId(10, 41),
    ranged(2, 10, 10), ranged(11, 21, 10), ranged(12, 31, 6),
};

const std::vector<Row> kLeds = {
    ranged(1, 0, 10), ranged(2, 10, 10), fixedId(3, 20), fixedId(5, 23),  fixedId(6, 22),
    fixedId(7, 24),   fixedId(8, 26),    fixedId(9, 21), fixedId(10, 25),
};

const std::vector<Row> kRgbLeds = {
    ranged(1, 0, 10), ranged(2, 10, 6), fixedId(3, 16), fixedId(4, 17),
    fixedId(5, 18),   fixedId(6, 19),   fixedId(7, 20), fixedId(8, 21),
};

// Rotaries: their own id, their light's id and their push switch's id.
const std::vector<Row> kRotaries = {ranged(1, 0, 10), ranged(2, 10, 6)};
const std::vector<Row> kRotaryLights = {ranged(1, 0, 10), ranged(2, 10, 6)};
const std::vector<Row> kRotaryButtons = {ranged(1, 21, 10), ranged(2, 31, 6)};

// Any index that an int can carry into the table.
int expectedId(const std::vector<Row>& rows, int type, long long index)
{
    if (index < 0 || index > 255) {
        return kNone;
    }
    for (const Row& row : rows) {
        if (row.type != type) {
            continue;
        }
        if (row.fixed >= 0) {
            return row.fixed;
        }
        return index < row.count ? static_cast<int>(index) + row.offset : kNone;
    }
    return kNone;
}

std::vector<int32_t> typeValues()
{
    std::vector<int32_t> types = {std::numeric_limits<int32_t>::min(), -1000, -1};
    for (int32_t type = 0; type <= 14; ++type) {
        types.push_back(type);
    }
    types.push_back(100);
    types.push_back(std::numeric_limits<int32_t>::max());
    return types;
}

std::vector<int> intIndices()
{
    std::vector<int> indices = {std::numeric_limits<int>::min(), -1000, -256, -1};
    for (int index = 0; index <= 255; ++index) {
        indices.push_back(index);
    }
    for (int index : {256, 257, 1000, 65535, std::numeric_limits<int>::max()}) {
        indices.push_back(index);
    }
    return indices;
}

QByteArray where(int32_t type, long long index)
{
    return QByteArray("type ") + QByteArray::number(type) + " index " + QByteArray::number(index);
}

// Checks both ways into one table: the enumeration with an 8-bit index, and the plain
// integers that come from QML.
template <typename Type, typename ByEnum, typename ByInt>
void checkTable(const std::vector<Row>& rows, ByEnum byEnum, ByInt byInt)
{
    for (const int32_t type : typeValues()) {
        for (int index = 0; index <= 255; ++index) {
            const int actual = byEnum(static_cast<Type>(type), static_cast<uint8_t>(index));
            QVERIFY2(actual == expectedId(rows, type, index), where(type, index).constData());
        }
        for (const int index : intIndices()) {
            const int actual = byInt(type, index);
            QVERIFY2(actual == expectedId(rows, type, index), where(type, index).constData());
        }
    }
}

}  // namespace

class TestDeviceIdTable : public QObject
{
    Q_OBJECT

private slots:
    void everyFaderTypeAndIndex();
    void everyButtonTypeAndIndex();
    void everyLedTypeAndIndex();
    void everyRgbLedTypeAndIndex();
    void everyRotaryTypeAndIndex();
    void everyPotType();
    void everyMeterType();

    void boundaries_data();
    void boundaries();
};

void TestDeviceIdTable::everyFaderTypeAndIndex()
{
    checkTable<FaderType>(
        kFaders, [](FaderType t, uint8_t i) { return int(DeviceIdTable::fader(t, i)); },
        [](int32_t t, int i) { return int(DeviceIdTable::fader(t, i)); });
}

void TestDeviceIdTable::everyButtonTypeAndIndex()
{
    checkTable<ButtonType>(
        kButtons, [](ButtonType t, uint8_t i) { return int(DeviceIdTable::button(t, i)); },
        [](int32_t t, int i) { return int(DeviceIdTable::button(t, i)); });
}

void TestDeviceIdTable::everyLedTypeAndIndex()
{
    checkTable<LedType>(
        kLeds, [](LedType t, uint8_t i) { return int(DeviceIdTable::led(t, i)); },
        [](int32_t t, int i) { return int(DeviceIdTable::led(t, i)); });
}

void TestDeviceIdTable::everyRgbLedTypeAndIndex()
{
    checkTable<RgbLedType>(
        kRgbLeds, [](RgbLedType t, uint8_t i) { return int(DeviceIdTable::rgbLed(t, i)); },
        [](int32_t t, int i) { return int(DeviceIdTable::rgbLed(t, i)); });
}

void TestDeviceIdTable::everyRotaryTypeAndIndex()
{
    checkTable<RotaryType>(
        kRotaries, [](RotaryType t, uint8_t i) { return int(DeviceIdTable::rotary(t, i).rotary); },
        [](int32_t t, int i) { return int(DeviceIdTable::rotary(t, i).rotary); });
    checkTable<RotaryType>(
        kRotaryLights,
        [](RotaryType t, uint8_t i) { return int(DeviceIdTable::rotary(t, i).light); },
        [](int32_t t, int i) { return int(DeviceIdTable::rotary(t, i).light); });
    checkTable<RotaryType>(
        kRotaryButtons,
        [](RotaryType t, uint8_t i) { return int(DeviceIdTable::rotary(t, i).button); },
        [](int32_t t, int i) { return int(DeviceIdTable::rotary(t, i).button); });

    // A rotary exists exactly when both its own id and its light's id do.
    for (const int32_t type : typeValues()) {
        for (const int index : intIndices()) {
            const bool expected = expectedId(kRotaries, type, index) != kNone &&
                                  expectedId(kRotaryLights, type, index) != kNone;
            QVERIFY2(DeviceIdTable::rotary(type, index).exists() == expected,
                     where(type, index).constData());
        }
    }
}

void TestDeviceIdTable::everyPotType()
{
    for (const int32_t type : typeValues()) {
        const DeviceIdTable::PotIds byInt = DeviceIdTable::pot(type);
        const DeviceIdTable::PotIds byEnum = DeviceIdTable::pot(static_cast<PotType>(type));
        // Only the headphone pot: device 0, lit by the headphone logo's LED (18).
        const bool headphone = type == 1;
        for (const DeviceIdTable::PotIds& ids : {byInt, byEnum}) {
            QVERIFY2(ids.pot == (headphone ? 0 : kNone), where(type, 0).constData());
            QVERIFY2(ids.light == (headphone ? 18 : kNone), where(type, 0).constData());
            QVERIFY2(ids.exists() == headphone, where(type, 0).constData());
        }
    }
}

void TestDeviceIdTable::everyMeterType()
{
    for (const int32_t type : typeValues()) {
        const int expected = type == 1 ? 0 : type == 2 ? 1 : kNone;
        QVERIFY2(DeviceIdTable::meter(type) == expected, where(type, 0).constData());
        QVERIFY2(DeviceIdTable::meter(static_cast<MeterType>(type)) == expected,
                 where(type, 0).constData());
    }
}

void TestDeviceIdTable::boundaries_data()
{
    QTest::addColumn<QString>("table");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("id");

    // Strips: 10 per section.
    QTest::newRow("fader 9") << "fader" << 1 << 9 << 9;
    QTest::newRow("fader 10") << "fader" << 1 << 10 << kNone;
    QTest::newRow("master fader any index") << "fader" << 2 << 200 << 10;
    QTest::newRow("mute 9") << "button" << 1 << 9 << 9;
    QTest::newRow("mute 10") << "button" << 1 << 10 << kNone;
    QTest::newRow("solo 9") << "button" << 2 << 9 << 19;
    QTest::newRow("solo 10") << "button" << 2 << 10 << kNone;
    QTest::newRow("under-screen rotary button 9") << "button" << 11 << 9 << 30;
    QTest::newRow("under-screen rotary button 10") << "button" << 11 << 10 << kNone;
    QTest::newRow("mute LED 9") << "led" << 1 << 9 << 9;
    QTest::newRow("solo LED 10") << "led" << 2 << 10 << kNone;
    QTest::newRow("under-screen ring 9") << "rgbLed" << 1 << 9 << 9;
    QTest::newRow("under-screen ring 10") << "rgbLed" << 1 << 10 << kNone;
    QTest::newRow("under-screen rotary 9") << "rotary" << 1 << 9 << 9;
    QTest::newRow("under-screen rotary 10") << "rotary" << 1 << 10 << kNone;
    // Side controls: 6 on the master section.
    QTest::newRow("side rotary button 5") << "button" << 12 << 5 << 36;
    QTest::newRow("side rotary button 6") << "button" << 12 << 6 << kNone;
    QTest::newRow("side rotary light 5") << "rgbLed" << 2 << 5 << 15;
    QTest::newRow("side rotary light 6") << "rgbLed" << 2 << 6 << kNone;
    QTest::newRow("side rotary 5") << "rotary" << 2 << 5 << 15;
    QTest::newRow("side rotary 6") << "rotary" << 2 << 6 << kNone;
    // The master section's switches and lights, whatever the index.
    QTest::newRow("master mute") << "button" << 3 << 7 << 20;
    QTest::newRow("master solo") << "button" << 4 << 0 << kNone;
    QTest::newRow("next snapshot") << "button" << 5 << 0 << 39;
    QTest::newRow("layer down") << "button" << 8 << 99 << 42;
    QTest::newRow("master solo LED") << "led" << 4 << 0 << kNone;
    QTest::newRow("layer down LED") << "led" << 8 << 255 << 26;
    QTest::newRow("overview logo") << "rgbLed" << 8 << 3 << 21;
    // Values outside the enumerations and indices outside 0..255.
    QTest::newRow("button type -1") << "button" << -1 << 0 << kNone;
    QTest::newRow("button type 13") << "button" << 13 << 0 << kNone;
    QTest::newRow("led type 11") << "led" << 11 << 0 << kNone;
    QTest::newRow("rgb type 9") << "rgbLed" << 9 << 0 << kNone;
    QTest::newRow("rotary type 3") << "rotary" << 3 << 0 << kNone;
    QTest::newRow("mute -1") << "button" << 1 << -1 << kNone;
    QTest::newRow("master mute -1") << "button" << 3 << -1 << kNone;
    QTest::newRow("master fader 256") << "fader" << 2 << 256 << kNone;
    QTest::newRow("name logo 256") << "rgbLed" << 3 << 256 << kNone;
}

void TestDeviceIdTable::boundaries()
{
    QFETCH(QString, table);
    QFETCH(int, type);
    QFETCH(int, index);
    QFETCH(int, id);
    int actual = -1;
    if (table == "fader") {
        actual = DeviceIdTable::fader(type, index);
    } else if (table == "button") {
        actual = DeviceIdTable::button(type, index);
    } else if (table == "led") {
        actual = DeviceIdTable::led(type, index);
    } else if (table == "rgbLed") {
        actual = DeviceIdTable::rgbLed(type, index);
    } else if (table == "rotary") {
        actual = DeviceIdTable::rotary(type, index).rotary;
    }
    QCOMPARE(actual, id);
}

QTEST_GUILESS_MAIN(TestDeviceIdTable)
#include "tst_deviceidtable.moc"
