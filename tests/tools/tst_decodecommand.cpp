// worksurface-tool decode end to end, beyond the command's every-day runs in
// tst_worksurfacetool: a reader of its output that goes away while the capture goes on.
// The built tool runs as a child process.

#include <QFile>
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
    void aLongNoiseRunIsWrappedAsAHexDump();
    void aLongNoiseRunStaysOneObjectInJson();

private:
    QString writeCapture(const QByteArray& bytes);

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

QString tst_DecodeCommand::writeCapture(const QByteArray& bytes)
{
    const QString path = m_dir->filePath(QStringLiteral("capture.bin"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) {
        qFatal("cannot write the capture");
    }
    return path;
}

namespace {

// Bytes no frame begins with (a frame's length is 3 to 25): the parser discards every one.
QByteArray noiseOfSize(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(0xf0 + i % 16);
    }
    return bytes;
}

}  // namespace

void tst_DecodeCommand::aLongNoiseRunIsWrappedAsAHexDump()
{
    // A fader move, 2,000 bytes of noise, a button press.
    const QByteArray noise = noiseOfSize(2000);
    const QByteArray capture = PtySectionSimulator::encodeFrame(7, 3, QByteArray::fromHex("018f")) +
                               noise +
                               PtySectionSimulator::encodeFrame(20, 40, QByteArray::fromHex("01"));
    const ToolProcess::Run r = ToolProcess::run({"decode", writeCapture(capture)});
    QCOMPARE(r.exitCode, 0);
    // 16 bytes a line, each line with the offset of its first byte.
    QCOMPARE(r.out.size(), 1 + 125 + 1);
    QCOMPARE(r.out.first(),
             QStringLiteral(
                 "       0  section 0  in   fader position  device 3  fader 3  position 399"));
    QByteArray shown;
    for (int line = 0; line < 125; ++line) {
        const QString expected =
            QStringLiteral("%1  section 0  in   noise  ").arg(6 + 16 * line, 8);
        const QString& text = r.out.at(1 + line);
        QVERIFY2(text.startsWith(expected), qPrintable(text));
        const QByteArray bytes = QByteArray::fromHex(text.mid(expected.size()).toLatin1());
        QCOMPARE(bytes.size(), 16);
        shown += bytes;
    }
    QCOMPARE(shown, noise);
    QCOMPARE(r.out.last(),
             QStringLiteral("    2006  section 0  in   button  device 40  layer up  pressed"));
}

void tst_DecodeCommand::aLongNoiseRunStaysOneObjectInJson()
{
    const QByteArray noise = noiseOfSize(40);
    const QByteArray capture =
        noise + PtySectionSimulator::encodeFrame(20, 40, QByteArray::fromHex("01"));
    const ToolProcess::Run r = ToolProcess::run({"decode", "--json", writeCapture(capture)});
    QCOMPARE(r.exitCode, 0);
    QCOMPARE(r.out.size(), 2);
    QCOMPARE(r.out.first(), QStringLiteral(R"({"offset":0,"section":0,"dir":"in","noise":"%1"})")
                                .arg(QString::fromLatin1(noise.toHex())));
}

QTEST_GUILESS_MAIN(tst_DecodeCommand)
#include "tst_decodecommand.moc"
