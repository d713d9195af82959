// An update cut off halfway comes back by itself. A software section sits in its bootloader
// and the console updates it with a 4 KiB image; at every point of the exchange (the
// answered AutoBaud, the Download, each of the 64 blocks, the last GetStatus, the Reset) the
// section is pulled out and plugged back a second later, falls silent for three seconds, or
// is switched off and on again. Each time the update fails exactly once with reason 3, and
// without any call from the application the link finds the section in its bootloader again,
// writes the whole image, and the section runs its application with exactly that image.
//
// Time is the test's own (DrivenClock): the section's paced answers, the links' passes, the
// update time-out and the reconnections all run at their times, in microseconds.
#include <QPointer>
#include <QtTest>
#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "qml/sectioninfomodel.h"
#include "qml/surfacesettings.h"
#include "qml/worksurfacefunctions.h"
#include "software/sectioncontrol.h"
#include "software/softwarebootloader.h"
#include "support/drivenclock.h"
#include "support/firmwarehome.h"
#include "support/logcapture.h"
#include "support/servicepools.h"
#include "tasks/monotonicclock.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kImageSize = 4096;
constexpr int kBlocks = kImageSize / 64;
constexpr int kUpdateTimeoutMs = 2000;
constexpr int kReconnectMs = 500;
constexpr int kUnpluggedMs = 1000;
constexpr int kSilentMs = 3000;

QByteArray image()
{
    QByteArray bytes(kImageSize, Qt::Uninitialized);
    for (int i = 0; i < kImageSize; ++i) {
        bytes[i] = static_cast<char>((i * 13 + 5) % 253);
    }
    return bytes;
}

QString crcText(const QByteArray& bytes)
{
    return QStringLiteral("%1").arg(SoftwareBootloader::crc32(bytes), 8, 16, QLatin1Char('0'));
}

enum class Fault
{
    Pulled,
    Silent,
    PowerCycle
};

const char* faultName(Fault fault)
{
    switch (fault) {
        case Fault::Pulled:
            return "pulled";
        case Fault::Silent:
            return "silent";
        case Fault::PowerCycle:
            return "power cycle";
    }
    return "";
}

// Where the exchange is cut: the moment the section has received the given occurrence of a
// packet, before its answer is on the line.
struct Point
{
    QString name;
    uint8_t command;
    int occurrence;
};

std::vector<Point> points()
{
    std::vector<Point> result;
    result.push_back({QStringLiteral("AutoBaud answered"), BootloaderCommand::Ping, 1});
    result.push_back({QStringLiteral("Download"), BootloaderCommand::Download, 1});
    for (int block = 1; block <= kBlocks; ++block) {
        result.push_back(
            {QStringLiteral("block %1").arg(block), BootloaderCommand::SendData, block});
    }
    // One after the Download, one after each block: the last asks for the last block's status.
    result.push_back({QStringLiteral("GetStatus"), BootloaderCommand::GetStatus, kBlocks + 1});
    result.push_back({QStringLiteral("Reset"), BootloaderCommand::Reset, 1});
    return result;
}

// A section that counts the bootloader packets it receives.
class WatchedSection : public SectionControl
{
public:
    void bootloaderBytes(const QByteArray& bytes) override
    {
        SectionControl::bootloaderBytes(bytes);
        // The plugin writes one packet per call: a single answer byte, AutoBaud, or a sized
        // packet whose third byte is its command.
        const auto command = static_cast<uint8_t>(bytes.size() >= 3 ? bytes.at(2) : bytes.at(0));
        ++received[command];
    }

    int received[256] = {};
};

struct Scene
{
    explicit Scene(int reconnectMs, int updateTimeoutMs)
    {
        service = new WorksurfaceFunctions();
        service->settings()->setDebugEnabled(false);
        service->settings()->setType(SurfaceSettings::Software);
        service->settings()->setMode(SurfaceSettings::K40);
        service->settings()->setReconnectInterval(reconnectMs);
        service->settings()->setUpdateTimeout(updateTimeoutMs);
        section.setConnection(service->connection());
        section.setSectionIndex(0);
        other.setConnection(service->connection());
        other.setSectionIndex(1);
        section.setBootloader(true);
        info = service->section(0);
        QObject::connect(info, &SectionInfoModel::updateFailed,
                         [this](int reason) { failures.push_back(reason); });
    }

    ~Scene() { delete service.data(); }

    bool recovered() const
    {
        return info->linkState() == SectionInfoModel::Connected && !section.bootloader() &&
               !info->updating();
    }

    QPointer<WorksurfaceFunctions> service;
    WatchedSection section;
    SectionControl other;
    SectionInfoModel* info = nullptr;
    std::vector<int> failures;
    // Downloads and blocks the section had received when the fault struck.
    int downloadsBefore = 0;
    int blocksBefore = 0;
};

// Simulated recovery times of the campaign, per fault, for the summary.
std::vector<qint64> g_recoveryMs[3];

}  // namespace

class TestUpdateRecovery : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void everyInterruptionRecoversWithoutConnect_data();
    void everyInterruptionRecoversWithoutConnect();
    void withoutReconnectingTheLinkProbesAgainAtOnce_data();
    void withoutReconnectingTheLinkProbesAgainAtOnce();
    void withoutATimeOutASilentSectionLeavesTheUpdateWaiting();
    void summary();

private:
    bool waitFor(const std::function<bool()>& done, qint64 ms)
    {
        return m_clock->advanceUntil(done, ms);
    }
    // The scene's service connects; true once it has built the surface, with its links where
    // the run puts them. The clock stands still meanwhile.
    bool buildSurface(Scene& scene)
    {
        scene.service->connect();
        return waitFor([&scene] { return scene.service->connection()->surface() != nullptr; }, 0) &&
               verifyLinksWhereTheModeSays(*scene.service);
    }
    // Runs the update until the section has received the point's packet, applies the fault
    // and lets it pass; returns when the fault began (simulated).
    qint64 interrupt(Scene& scene, const Point& point, Fault fault);

    std::unique_ptr<DrivenClock> m_clock;
    std::unique_ptr<FirmwareHome> m_home;
    QByteArray m_image;
};

void TestUpdateRecovery::initTestCase()
{
    m_clock = std::make_unique<DrivenClock>(tarvixWorksurfaceTimeDrive());
    m_home = std::make_unique<FirmwareHome>();
    QVERIFY(m_home->isValid());
    m_image = image();
    QVERIFY(writeFile(m_home->imagePath(), m_image));
}

void TestUpdateRecovery::cleanupTestCase()
{
    m_home.reset();
    m_clock.reset();
}

qint64 TestUpdateRecovery::interrupt(Scene& scene, const Point& point, Fault fault)
{
    WatchedSection& section = scene.section;
    if (!waitFor([&] { return section.received[point.command] >= point.occurrence; }, 20000)) {
        return -1;
    }
    const qint64 faultNs = m_clock->nowNs();
    scene.downloadsBefore = section.received[BootloaderCommand::Download];
    scene.blocksBefore = section.received[BootloaderCommand::SendData];
    switch (fault) {
        case Fault::Pulled:
            section.setPlugged(false);
            m_clock->advance(kUnpluggedMs);
            section.setPlugged(true);
            break;
        case Fault::Silent:
            section.setAnswering(false);
            m_clock->advance(kSilentMs);
            section.setAnswering(true);
            break;
        case Fault::PowerCycle:
            section.powerCycle();
            break;
    }
    return faultNs;
}

void TestUpdateRecovery::everyInterruptionRecoversWithoutConnect_data()
{
    QTest::addColumn<int>("point");
    QTest::addColumn<int>("fault");
    const std::vector<Point> all = points();
    for (int p = 0; p < static_cast<int>(all.size()); ++p) {
        for (const Fault fault : {Fault::Pulled, Fault::Silent, Fault::PowerCycle}) {
            QTest::addRow("%s, %s", qPrintable(all[p].name), faultName(fault))
                << p << static_cast<int>(fault);
        }
    }
}

void TestUpdateRecovery::everyInterruptionRecoversWithoutConnect()
{
    QFETCH(int, point);
    QFETCH(int, fault);
    const Point where = points().at(point);
    LogCapture log;
    Scene scene(kReconnectMs, kUpdateTimeoutMs);
    QVERIFY(buildSurface(scene));
    const qint64 faultNs = interrupt(scene, where, static_cast<Fault>(fault));
    QVERIFY2(faultNs >= 0, "the update never reached the point");
    QVERIFY(waitFor([&] { return scene.recovered(); }, 60000));
    const qint64 recoveryMs = (m_clock->nowNs() - faultNs) / kNsPerMs;
    g_recoveryMs[fault].push_back(recoveryMs);

    QCOMPARE(scene.failures, std::vector<int>{3});
    const QStringList failed = log.texts().filter(QStringLiteral("Update failed."));
    QCOMPARE(failed.size(), 1);
    // Where and how long, exactly: a pulled line is seen by the next pass (here 32 ms after
    // the last answer); a silence when the time-out's look finds 2 s passed (the look comes at
    // the first pool tick after it).
    const QByteArray tag = QTest::currentDataTag();
    if (tag == "block 32, pulled") {
        QCOMPARE(failed.first(), QStringLiteral("WS UPDATER: Section 0 lost its line at block 32 "
                                                "of 64 (waiting for SendData): nothing received "
                                                "for 32 ms. Update failed."));
    } else if (tag == "block 32, silent") {
        QCOMPARE(failed.first(), QStringLiteral("WS UPDATER: Section 0 stopped answering at block "
                                                "32 of 64 (waiting for SendData): nothing "
                                                "received for 2003 ms. Update failed."));
    }
    QCOMPARE(scene.info->lastUpdateFailure(), -1);
    QCOMPARE(scene.section.receivedBytes(), kImageSize);
    QCOMPARE(scene.section.imageCrc32(), crcText(m_image));
    QCOMPARE(scene.section.bootloader(), false);
    QCOMPARE(scene.info->linkState(), int(SectionInfoModel::Connected));
    // The whole image went out again, from its first block.
    QCOMPARE(scene.section.received[BootloaderCommand::Download], scene.downloadsBefore + 1);
    QCOMPARE(scene.section.received[BootloaderCommand::SendData], scene.blocksBefore + kBlocks);
    // Settled: nothing more fails later.
    m_clock->advance(10000);
    QCOMPARE(scene.failures, std::vector<int>{3});
    QVERIFY(scene.recovered());
}

void TestUpdateRecovery::withoutReconnectingTheLinkProbesAgainAtOnce_data()
{
    QTest::addColumn<int>("point");
    QTest::addColumn<int>("fault");
    const std::vector<Point> all = points();
    // The first, a middle and the last block, and the Reset; a silence shorter than the
    // time-out, and a power cycle.
    for (const int p : {2, 2 + kBlocks / 2, 1 + kBlocks, 3 + kBlocks}) {
        for (const Fault fault : {Fault::Silent, Fault::PowerCycle}) {
            QTest::addRow("%s, %s", qPrintable(all[p].name), faultName(fault))
                << p << static_cast<int>(fault);
        }
    }
}

void TestUpdateRecovery::withoutReconnectingTheLinkProbesAgainAtOnce()
{
    QFETCH(int, point);
    QFETCH(int, fault);
    const Point where = points().at(point);
    // Longer than the silence: when it strikes, the section answers again.
    LogCapture log;
    Scene scene(0, kSilentMs + 1000);
    QVERIFY(buildSurface(scene));
    QVERIFY(interrupt(scene, where, static_cast<Fault>(fault)) >= 0);
    QVERIFY(waitFor([&] { return scene.recovered(); }, 60000));
    QCOMPARE(scene.failures, std::vector<int>{3});
    QCOMPARE(scene.section.imageCrc32(), crcText(m_image));
    QCOMPARE(scene.section.received[BootloaderCommand::Download], scene.downloadsBefore + 1);
}

void TestUpdateRecovery::withoutATimeOutASilentSectionLeavesTheUpdateWaiting()
{
    LogCapture log;
    Scene scene(kReconnectMs, 0);
    QVERIFY(buildSurface(scene));
    const Point where = points().at(2 + kBlocks / 2);
    QVERIFY(interrupt(scene, where, Fault::Silent) >= 0);
    // Answering again, it never hears the packet it missed: the updater waits for ever, as
    // it always has without a time-out.
    m_clock->advance(600000);
    QVERIFY(scene.failures.empty());
    QCOMPARE(scene.info->linkState(), int(SectionInfoModel::Updating));
    QVERIFY(scene.info->updating());
    QCOMPARE(scene.section.received[BootloaderCommand::Download], 1);
    QCOMPARE(scene.section.bootloader(), true);
}

void TestUpdateRecovery::summary()
{
    const char* names[] = {"pulled for 1 s", "silent for 3 s", "power cycle"};
    for (int f = 0; f < 3; ++f) {
        std::vector<qint64> times = g_recoveryMs[f];
        if (times.empty()) {
            continue;
        }
        std::sort(times.begin(), times.end());
        qInfo(
            "%s: %d points recovered, from the fault to Connected %lld / %lld / %lld ms "
            "(min / median / max, simulated)",
            names[f], static_cast<int>(times.size()), times.front(), times[times.size() / 2],
            times.back());
    }
}

QTEST_GUILESS_MAIN(TestUpdateRecovery)

#include "tst_updaterecovery.moc"
