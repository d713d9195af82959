// worksurface-tool decode end to end, beyond the command's every-day runs in
// tst_worksurfacetool: a reader of its output that goes away while the capture goes on.
// The built tool runs as a child process.

#include <QTemporaryDir>
#include <QtTest>
#include <memory>

#include "support/ptysectionsimulator.h"
#include "toolprocess.h"

class tst_DecodeCommand : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void aClosedOutputEndsDecodeBeforeItsInputEnds();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_DecodeCommand::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void tst_DecodeCommand::cleanup()
{
    m_dir.reset();
}

void tst_DecodeCommand::aClosedOutputEndsDecodeBeforeItsInputEnds()
{
    // `cat /dev/ttyUSB0 | worksurface-tool decode | head -1`: standard input never ends, the
    // reader of the output goes away. Standard input is read in 64 KiB pieces: each write
    // below is one piece of fader moves.
    const QByteArray piece =
        PtySectionSimulator::encodeFrame(7, 3, QByteArray::fromHex("018f")).repeated(10923);
    ToolProcess tool({"decode"}, ToolProcess::Output::ClosablePipe);
    tool.process().write(piece);
    QVERIFY(tool.readUntil([](const QString& out, const QString&) {
        return out.contains(QLatin1String("fader position"));
    }));
    tool.closeOutput();
    // Its lines find no reader: decode ends, with its input still open.
    tool.process().write(piece);
    const ToolProcess::Run r = tool.finish();
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 0);
}

QTEST_GUILESS_MAIN(tst_DecodeCommand)
#include "tst_decodecommand.moc"
