// worksurface-tool flash end to end, beyond the command's every-day runs in
// tst_worksurfacetool: a reader that goes away in the middle of a transfer, the words for a
// file that cannot be read, and the image note of a flash that never got the port. The
// built tool runs as a child process against a pty section simulator in this process.

#include <QCryptographicHash>
#include <QFile>
#include <QSerialPort>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

#include "support/ptysectionsimulator.h"
#include "toolprocess.h"
#include "updater/bootloaderpacket.h"

using namespace Velmora::Worksurface;

namespace {

// Image bytes that differ from their neighbours and from the 0xFF padding.
QByteArray imageOfSize(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 7 + 3) % 251);
    }
    return bytes;
}

}  // namespace

class tst_FlashCommand : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void aClosedOutputResetsTheSectionAndEndsAsCtrlCDoes();
    void aClosedOutputEndsATextFlashAsWell();
    void aMissingFileIsNamedWithTheReason();
    void theImageIsNotedOnlyOnceAPortIsTheFlashs();

private:
    QString writeImage(const QByteArray& image);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<PtySectionSimulator> m_sim;
};

void tst_FlashCommand::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_sim->isOpen(), qPrintable(m_sim->errorString()));
}

void tst_FlashCommand::cleanup()
{
    m_sim.reset();
    m_dir.reset();
}

QString tst_FlashCommand::writeImage(const QByteArray& image)
{
    const QString path = m_dir->filePath(QStringLiteral("worksurface-new.bin"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(image) != image.size()) {
        qFatal("cannot write the test image");
    }
    return path;
}

void tst_FlashCommand::aClosedOutputResetsTheSectionAndEndsAsCtrlCDoes()
{
    // `flash … --json | head -2`: the reader takes two progress lines and goes away while
    // the image is still being written.
    const QByteArray image = imageOfSize(256 * 1024);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    ToolProcess tool({"flash", path, "--json", "--section", "0", "--ports", m_sim->slavePath()},
                     ToolProcess::Output::ClosablePipe);
    QVERIFY(
        tool.readUntil([](const QString& out, const QString&) { return out.count('\n') >= 2; }));
    QVERIFY2(m_sim->image().size() < image.size(), "the transfer ended before the reader left");
    tool.closeOutput();

    const ToolProcess::Run r = tool.finish(20000);
    // Not killed by its own output: the section is reset and the tool ends as on Ctrl-C.
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 9);
    QVERIFY(waitFor([&] { return m_sim->commandCount(BootloaderCommand::Reset) == 1; }));
    QCOMPARE(m_sim->mode(), PtySectionSimulator::Mode::Application);
    QVERIFY(m_sim->image().size() < image.size());
}

void tst_FlashCommand::aClosedOutputEndsATextFlashAsWell()
{
    const QString path = writeImage(imageOfSize(256 * 1024));
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    ToolProcess tool({"flash", path, "--section", "0", "--ports", m_sim->slavePath()},
                     ToolProcess::Output::ClosablePipe);
    QVERIFY(tool.readUntil(
        [](const QString& out, const QString&) { return out.contains(QLatin1String("  0 %")); }));
    tool.closeOutput();
    const ToolProcess::Run r = tool.finish(20000);
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 9);
    QVERIFY(waitFor([&] { return m_sim->commandCount(BootloaderCommand::Reset) == 1; }));
}

void tst_FlashCommand::aMissingFileIsNamedWithTheReason()
{
    const QString missing = m_dir->filePath(QStringLiteral("nope.bin"));
    const ToolProcess::Run r =
        ToolProcess::run({"flash", missing, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(r.exitCode, 4);
    // The reason in the words decode and trace use.
    QCOMPARE(r.err, QStringLiteral("worksurface-tool: cannot read %1: No such file or directory\n")
                        .arg(missing));
    QCOMPARE(
        r.out,
        QStringList({QStringLiteral("section 0  failed  cannot read %1 (exit 4)").arg(missing)}));
    QVERIFY(m_sim->receivedBytes().isEmpty());
}

void tst_FlashCommand::theImageIsNotedOnlyOnceAPortIsTheFlashs()
{
    const QByteArray image = imageOfSize(100);
    const QString path = writeImage(image);
    m_sim->setMode(PtySectionSimulator::Mode::Bootloader);
    QSerialPort holder(m_sim->slavePath());
    QVERIFY(holder.open(QIODevice::ReadWrite));
    const ToolProcess::Run held =
        ToolProcess::run({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(held.exitCode, 2);
    // Nothing was written: nothing is said about the image.
    QVERIFY2(!held.err.contains(QLatin1String("sha256")), qPrintable(held.err));
    QCOMPARE(held.out,
             QStringList({QStringLiteral("section 0  failed  port error: in use by pid %1 "
                                         "(exit 2)")
                              .arg(QCoreApplication::applicationPid())}));
    holder.close();

    // The port free, the note comes before anything is written.
    m_sim->setVersionReport(35, 40);
    const ToolProcess::Run free =
        ToolProcess::run({"flash", path, "--section", "0", "--ports", m_sim->slavePath()});
    QCOMPARE(free.exitCode, 0);
    QCOMPARE(
        free.err,
        QStringLiteral("image %1  100 bytes  sha256 %2\n")
            .arg(path, QString::fromLatin1(
                           QCryptographicHash::hash(image, QCryptographicHash::Sha256).toHex())));
}

QTEST_GUILESS_MAIN(tst_FlashCommand)
#include "tst_flashcommand.moc"
