// worksurface-tool trace --summary end to end: the longest gap without a received frame
// counts the silence before a restart and at the end of the trace, not only the time
// between two frames. The built tool reads trace files written here.

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

#include "toolprocess.h"

namespace {

const QByteArray kHeader =
    R"({"format":"tarvix-worksurface-trace","version":1,"plugin":"1.0","model":"K60","surfaceType":"hardware","ports":[{"section":0,"port":"/dev/ttymxc0"}],"capacity":4096,"t0":"2026-11-25T03:00:00.000Z"})";

QByteArray frameIn(double t)
{
    return QStringLiteral(
               R"({"t":%1,"section":0,"dir":"in","type":7,"typeName":"fader position","device":3,"control":"fader 3","value":400,"hex":"0507030190a0"})")
        .arg(t, 0, 'f', 6)
        .toUtf8();
}

QByteArray pingOut(double t)
{
    return QStringLiteral(
               R"({"t":%1,"section":0,"dir":"out","type":0,"typeName":"ping","device":0,"control":"section","hex":"03000003"})")
        .arg(t, 0, 'f', 6)
        .toUtf8();
}

QByteArray linkEvent(double t, const char* name)
{
    return QStringLiteral(R"({"t":%1,"section":0,"event":"%2"})")
        .arg(t, 0, 'f', 6)
        .arg(QLatin1String(name))
        .toUtf8();
}

// Frames 0.201 s apart up to 2.970 s, then pings without an answer.
QList<QByteArray> framesThenSilence()
{
    return {frameIn(2.568), frameIn(2.769), frameIn(2.970),
            pingOut(3.0),   pingOut(5.0),   pingOut(7.0)};
}

}  // namespace

class tst_TraceSummary : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void theSilenceBeforeARestartIsAGap();
    void aRestartBeginsTheNextGap();
    void theSilenceAtTheEndOfTheTraceIsAGap();
    void theSilenceBeforeARestartIsAGapInJson();

private:
    QString write(const QList<QByteArray>& entries);
    static QString gapLine(const ToolProcess::Run& r);

    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_TraceSummary::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

QString tst_TraceSummary::write(const QList<QByteArray>& entries)
{
    const QString path = m_dir->filePath(QStringLiteral("trace.jsonl"));
    QFile file(path);
    const QByteArray text = kHeader + '\n' + entries.join('\n') + '\n';
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
        qFatal("cannot write the trace file");
    }
    return path;
}

QString tst_TraceSummary::gapLine(const ToolProcess::Run& r)
{
    for (const QString& line : r.out) {
        if (line.startsWith(QLatin1String("  longest gap"))) {
            return line;
        }
    }
    return QString();
}

void tst_TraceSummary::theSilenceBeforeARestartIsAGap()
{
    // The link heard nothing from 2.970 s on and restarted at 9 s; the section answers
    // again after it.
    const ToolProcess::Run r = ToolProcess::run(
        {"trace",
         write(framesThenSilence() +
               QList<QByteArray>{linkEvent(9.0, "restart"), frameIn(9.1), frameIn(9.2)}),
         "--summary"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(gapLine(r),
             QStringLiteral("  longest gap without a received frame  6.030 s from 2.970"));
}

void tst_TraceSummary::aRestartBeginsTheNextGap()
{
    // The restart did not bring the section back: from the restart to the end of the trace
    // (16 s) is the longer silence, longer than the one from 2.970 s to the restart.
    const ToolProcess::Run r = ToolProcess::run(
        {"trace",
         write(framesThenSilence() +
               QList<QByteArray>{linkEvent(9.0, "restart"), pingOut(11.0), pingOut(16.0)}),
         "--summary"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(gapLine(r),
             QStringLiteral("  longest gap without a received frame  7.000 s from 9.000"));
}

void tst_TraceSummary::theSilenceAtTheEndOfTheTraceIsAGap()
{
    // No restart: the trace was saved 20 s in, with nothing received since 2.970 s.
    const ToolProcess::Run r = ToolProcess::run(
        {"trace", write(framesThenSilence() + QList<QByteArray>{pingOut(20.0)}), "--summary"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(gapLine(r),
             QStringLiteral("  longest gap without a received frame  17.030 s from 2.970"));
}

void tst_TraceSummary::theSilenceBeforeARestartIsAGapInJson()
{
    const ToolProcess::Run r = ToolProcess::run(
        {"trace",
         write(framesThenSilence() + QList<QByteArray>{linkEvent(9.0, "restart"), frameIn(9.1)}),
         "--summary", "--json"});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out.size(), 1);
    QVERIFY2(r.out.first().contains(
                 QLatin1String(R"("longestGap":6.030000,"longestGapFrom":2.970000,)")),
             qPrintable(r.out.first()));
}

QTEST_GUILESS_MAIN(tst_TraceSummary)
#include "tst_tracesummary.moc"
