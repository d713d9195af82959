// worksurface-tool trace end to end: the built tool reads trace files as the plugin writes
// them and prints, filters, passes through or sums them up; bad files end with exit code 4.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

#include "serial/flightrecorder.h"
#include "support/fakesectionconnection.h"
#include "support/fakesettings.h"
#include "surface/tracefile.h"
#include "toolprocess.h"

using namespace Velmora::Worksurface;

namespace {

constexpr int kRunTimeout = 30000;

using Run = ToolProcess::Run;

const QByteArray kHeader =
    R"({"format":"tarvix-worksurface-trace","version":1,"plugin":"1.0","model":"K60","surfaceType":"hardware","ports":[{"section":0,"port":"/dev/ttymxc0"},{"section":1,"port":"/dev/ttymxc1"}],"capacity":4096,"t0":"2026-11-25T03:00:00.000Z"})";

// Two sections: section 0 comes up, moves a fader, goes quiet for 29.5 s and is restarted;
// section 1 sends noise and a ping with a broken checksum.
const QList<QByteArray> kEntries = {
    R"({"t":10.000000,"section":0,"event":"portOpen","port":"/dev/ttymxc0","opened":true})",
    R"({"t":10.000100,"section":0,"event":"state","state":"Connecting"})",
    R"({"t":10.500000,"section":0,"dir":"in","type":7,"typeName":"fader position","device":3,"control":"fader 3","value":400,"hex":"0507030190a0"})",
    R"({"t":10.600000,"section":1,"dir":"in","noise":"fffe"})",
    R"({"t":11.000000,"section":0,"dir":"out","type":0,"typeName":"ping","device":0,"control":"section","hex":"03000003"})",
    R"({"t":11.500000,"section":1,"dir":"in","type":0,"typeName":"ping","device":0,"control":"section","hex":"03000004","badChecksum":true})",
    R"({"t":40.000000,"section":0,"dir":"in","type":7,"typeName":"fader position","device":3,"control":"fader 3","value":400,"hex":"0507030190a0"})",
    R"({"t":41.000000,"section":0,"event":"restart"})",
};

class RecordingLink : public FakeSectionConnection
{
public:
    RecordingLink(uint8_t section, std::shared_ptr<FlightRecorder> ring)
        : FakeSectionConnection(section), ring(std::move(ring))
    {}
    std::shared_ptr<FlightRecorder> recorder() const override { return ring; }
    QString portName() const override { return QStringLiteral("/dev/ttyS9"); }
    std::shared_ptr<FlightRecorder> ring;
};

}  // namespace

class tst_TraceCommand : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void printsFramesAsMonitorDoesWithEventsInterleaved();
    void rawAddsTheFramesBytes();
    void sectionFilterKeepsOneSection();
    void typeFilterTakesNumbersNamesAndNoiseAndKeepsEvents();
    void sinceCountsSecondsBeforeTheEnd();
    void untilTakesAWallClockTime();
    void jsonPassesTheHeaderAndTheFilteredLinesThrough();
    void summaryCountsFramesNoiseGapsRestartsAndStates();
    void summaryAsJson();
    void readsWhatThePluginWrites();
    void truncatedLastLineIsNamedAfterTheEntriesBeforeIt();
    void emptyFileExitsWithFour();
    void fileFromANewerFormatIsRefused();
    void fileThatIsNoTraceExitsWithFour();
    void missingFileExitsWithFour();
    void badFiltersAreUsageErrors();
    void helpDescribesTheOptions();

private:
    Run run(const QStringList& arguments);
    QString write(const QByteArray& text, const QString& name = QStringLiteral("t.jsonl"));
    QString traceFile() { return write(kHeader + '\n' + kEntries.join('\n') + '\n'); }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_TraceCommand::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

Run tst_TraceCommand::run(const QStringList& arguments)
{
    return ToolProcess::run(QStringList{"trace"} + arguments, kRunTimeout);
}

QString tst_TraceCommand::write(const QByteArray& text, const QString& name)
{
    const QString path = m_dir->filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
        qFatal("cannot write the trace file");
    }
    return path;
}

void tst_TraceCommand::printsFramesAsMonitorDoesWithEventsInterleaved()
{
    const Run r = run({traceFile()});
    QCOMPARE(r.exitCode, 0);
    const QStringList expected = {
        "  10.000  section 0  event  portOpen /dev/ttymxc0 opened",
        "  10.000  section 0  event  state Connecting",
        "  10.500  section 0  in   fader position  device 3  fader 3  position 400",
        "  10.600  section 1  in   noise  fffe",
        "  11.000  section 0  out  ping  device 0  section",
        "  11.500  section 1  in   bad checksum  03000004",
        "  40.000  section 0  in   fader position  device 3  fader 3  position 400",
        "  41.000  section 0  event  restart",
    };
    QCOMPARE(r.out, expected);
    QCOMPARE(r.err,
             QStringLiteral("trace of K60 hardware surface, t = 0 at 2026-11-25T03:00:00.000Z\n"));
}

void tst_TraceCommand::rawAddsTheFramesBytes()
{
    const Run r = run({traceFile(), "--raw", "--type", "7"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out.at(2), QStringLiteral("  10.500  section 0  in   fader position  device 3  "
                                         "fader 3  position 400  [0507030190a0]"));
}

void tst_TraceCommand::sectionFilterKeepsOneSection()
{
    const Run r = run({traceFile(), "--section", "1"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({"  10.600  section 1  in   noise  fffe",
                                 "  11.500  section 1  in   bad checksum  03000004"}));
}

void tst_TraceCommand::typeFilterTakesNumbersNamesAndNoiseAndKeepsEvents()
{
    const QStringList faders = {
        "  10.000  section 0  event  portOpen /dev/ttymxc0 opened",
        "  10.000  section 0  event  state Connecting",
        "  10.500  section 0  in   fader position  device 3  fader 3  position 400",
        "  40.000  section 0  in   fader position  device 3  fader 3  position 400",
        "  41.000  section 0  event  restart",
    };
    QCOMPARE(run({traceFile(), "--type", "7"}).out, faders);
    QCOMPARE(run({traceFile(), "--type", "Fader Position"}).out, faders);
    const Run both = run({traceFile(), "--type", "noise", "--type", "ping"});
    QCOMPARE(both.out, QStringList({"  10.000  section 0  event  portOpen /dev/ttymxc0 opened",
                                    "  10.000  section 0  event  state Connecting",
                                    "  10.600  section 1  in   noise  fffe",
                                    "  11.000  section 0  out  ping  device 0  section",
                                    "  11.500  section 1  in   bad checksum  03000004",
                                    "  41.000  section 0  event  restart"}));
}

void tst_TraceCommand::sinceCountsSecondsBeforeTheEnd()
{
    // The last entry is at 41 s: 30.5 s before it is 10.5 s.
    const Run r = run({traceFile(), "--since", "30.5", "--until", "30"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(
        r.out,
        QStringList({"  10.500  section 0  in   fader position  device 3  fader 3  position 400",
                     "  10.600  section 1  in   noise  fffe",
                     "  11.000  section 0  out  ping  device 0  section"}));
}

void tst_TraceCommand::untilTakesAWallClockTime()
{
    const Run r =
        run({traceFile(), "--since", "2026-11-25T03:00:11Z", "--until", "2026-11-25T03:00:40"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(
        r.out,
        QStringList({"  11.000  section 0  out  ping  device 0  section",
                     "  11.500  section 1  in   bad checksum  03000004",
                     "  40.000  section 0  in   fader position  device 3  fader 3  position 400"}));
}

void tst_TraceCommand::jsonPassesTheHeaderAndTheFilteredLinesThrough()
{
    const Run r = run({traceFile(), "--json", "--section", "1"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({QString::fromUtf8(kHeader), QString::fromUtf8(kEntries.at(3)),
                                 QString::fromUtf8(kEntries.at(5))}));
    QVERIFY(r.err.isEmpty());
}

void tst_TraceCommand::summaryCountsFramesNoiseGapsRestartsAndStates()
{
    const Run r = run({traceFile(), "--summary"});
    QCOMPARE(r.exitCode, 0);
    const QStringList expected = {
        "section 0",
        "  in   fader position  2",
        "  out  ping  1",
        "  noise bytes  0",
        "  bad checksums  0",
        "  longest gap without a received frame  29.500 s from 10.500",
        "  restarts  1 at 41.000",
        "  state changes  1",
        "      10.000  Connecting",
        "section 1",
        "  noise bytes  2",
        "  bad checksums  1",
        "  longest gap without a received frame  -",
        "  restarts  0",
        "  state changes  0",
    };
    QCOMPARE(r.out, expected);
}

void tst_TraceCommand::summaryAsJson()
{
    const Run r = run({traceFile(), "--summary", "--json", "--section", "0"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out, QStringList({R"({"section":0,"in":{"fader position":2},"out":{"ping":1},)"
                                 R"("noiseBytes":0,"badChecksums":0,"longestGap":29.500000,)"
                                 R"("longestGapFrom":10.500000,"restarts":[41.000000],)"
                                 R"("states":[{"t":10.000100,"state":"Connecting"}]})"}));
}

void tst_TraceCommand::readsWhatThePluginWrites()
{
    auto ring = std::make_shared<FlightRecorder>(8);
    ring->recordEvent(2000000000, FlightRecorder::Event::State, 6);
    ring->record(2500000000, FlightRecorder::Kind::FrameIn, QByteArray::fromHex("0507030190a0"));
    auto link = std::make_shared<RecordingLink>(2, ring);
    FakeSettings settings;
    const QString path = m_dir->filePath(QStringLiteral("saved.jsonl"));
    QCOMPARE(TraceFile::save(path, TraceFile::header(settings, {link}), {link}), QString());
    const Run r = run({path});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(
        r.out,
        QStringList({"   2.000  section 2  event  state NoResponse",
                     "   2.500  section 2  in   fader position  device 3  fader 3  position 400"}));
}

void tst_TraceCommand::truncatedLastLineIsNamedAfterTheEntriesBeforeIt()
{
    QByteArray text = kHeader + '\n' + kEntries.at(0) + '\n' + kEntries.at(1) + '\n';
    text += kEntries.at(2).left(40);
    const QString path = write(text);
    const Run r = run({path});
    QCOMPARE(r.exitCode, 4);
    QCOMPARE(r.out, QStringList({"  10.000  section 0  event  portOpen /dev/ttymxc0 opened",
                                 "  10.000  section 0  event  state Connecting"}));
    QVERIFY2(r.err.endsWith(QStringLiteral("worksurface-tool: %1 line 4: not a trace entry (cut "
                                           "short or malformed)\n")
                                .arg(path)),
             qPrintable(r.err));
}

void tst_TraceCommand::emptyFileExitsWithFour()
{
    const QString path = write(QByteArray());
    const Run r = run({path});
    QCOMPARE(r.exitCode, 4);
    QVERIFY(r.out.isEmpty());
    QCOMPARE(r.err, QStringLiteral("worksurface-tool: %1 is empty\n").arg(path));
}

void tst_TraceCommand::fileFromANewerFormatIsRefused()
{
    QByteArray header = kHeader;
    header.replace("\"version\":1", "\"version\":2");
    const QString path = write(header + '\n' + kEntries.at(0) + '\n');
    const Run r = run({path});
    QCOMPARE(r.exitCode, 4);
    QVERIFY(r.out.isEmpty());
    QCOMPARE(r.err, QStringLiteral("worksurface-tool: %1 is trace format version 2; this tool "
                                   "reads version 1 and older\n")
                        .arg(path));
}

void tst_TraceCommand::fileThatIsNoTraceExitsWithFour()
{
    const QString path = write("{\"t\":1}\n");
    const Run r = run({path});
    QCOMPARE(r.exitCode, 4);
    QCOMPARE(r.err,
             QStringLiteral("worksurface-tool: %1 line 1: not a trace file header\n").arg(path));
}

void tst_TraceCommand::missingFileExitsWithFour()
{
    const Run r = run({m_dir->filePath(QStringLiteral("none.jsonl"))});
    QCOMPARE(r.exitCode, 4);
    QVERIFY(r.err.startsWith(QStringLiteral("worksurface-tool: cannot read ")));
}

void tst_TraceCommand::badFiltersAreUsageErrors()
{
    const QString path = traceFile();
    QCOMPARE(run({path, "--type", "teapot"}).err,
             QStringLiteral("worksurface-tool: bad --type: teapot\n"));
    QCOMPARE(run({path, "--section", "x"}).exitCode, 1);
    QCOMPARE(run({path, "--since", "yesterday"}).exitCode, 1);
    QCOMPARE(run({}).err, QStringLiteral("worksurface-tool: trace needs one FILE\n"));
}

void tst_TraceCommand::helpDescribesTheOptions()
{
    const Run r = run({"--help"});
    QCOMPARE(r.exitCode, 0);
    const QString help = r.out.join('\n');
    for (const char* option :
         {"--section", "--type", "--since", "--until", "--json", "--summary"}) {
        QVERIFY2(help.contains(QLatin1String(option)), option);
    }
    // The tool's own help lists the command.
    QProcess process;
    process.start(QStringLiteral(TARVIX_TOOL_PATH), {"--help"});
    QVERIFY(process.waitForFinished(kRunTimeout));
    QVERIFY(QString::fromLocal8Bit(process.readAllStandardOutput())
                .contains(QStringLiteral("\n  trace ")));
}

QTEST_GUILESS_MAIN(tst_TraceCommand)
#include "tst_tracecommand.moc"
