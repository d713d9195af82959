// worksurface-tool monitor end to end, beyond the command's every-day runs in
// tst_worksurfacetool: a reader of its output that goes away. The built tool runs as a
// child process against pty section simulators in this process.

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <memory>

#include "support/ptysectionsimulator.h"
#include "toolprocess.h"

class tst_MonitorCommand : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void aClosedOutputEndsMonitorAsCtrlCDoes();
    void followAsJsonSaysItWaitsForALostDevice();
    void followFindsTheDeviceTheGivenNameLeadsToNow();
    void aLostDeviceIsNamedAsGivenAndAsFound_data();
    void aLostDeviceIsNamedAsGivenAndAsFound();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<PtySectionSimulator> m_sim;
};

void tst_MonitorCommand::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_sim = std::make_unique<PtySectionSimulator>();
    QVERIFY2(m_sim->isOpen(), qPrintable(m_sim->errorString()));
    m_sim->setVersionReport(34, 41);
}

void tst_MonitorCommand::cleanup()
{
    m_sim.reset();
    m_dir.reset();
}

void tst_MonitorCommand::aClosedOutputEndsMonitorAsCtrlCDoes()
{
    // `monitor | head -1`: the reader takes the first line and goes away.
    ToolProcess tool({"monitor", "--section", "0", "--ports", m_sim->slavePath()},
                     ToolProcess::Output::ClosablePipe);
    QVERIFY(tool.readUntil([](const QString& out, const QString&) {
        return out.contains(QLatin1String("version 34 temperature 41"));
    }));
    tool.closeOutput();
    // The line for this finds no reader.
    m_sim->sendFaderPosition(3, 399);
    const ToolProcess::Run r = tool.finish();
    QCOMPARE(r.exitStatus, QProcess::NormalExit);
    QCOMPARE(r.exitCode, 0);
    QVERIFY2(r.err.endsWith(QLatin1String("monitor ended\n")), qPrintable(r.err));
}

void tst_MonitorCommand::followAsJsonSaysItWaitsForALostDevice()
{
    ToolProcess tool(
        {"monitor", "--follow", "--json", "--section", "0", "--ports", m_sim->slavePath()});
    QVERIFY(tool.readUntil([](const QString& out, const QString&) {
        return out.contains(QLatin1String("\"temperature\":41"));
    }));
    const QString device = m_sim->slavePath();
    m_sim->hangUp();
    // The loss, then what text says as "; waiting for it".
    const QRegularExpression events(
        QStringLiteral(
            R"(\{"t":\d+\.\d{3},"section":0,"event":"lost","error":"Device gone: %1"\}\n)"
            R"(\{"t":\d+\.\d{3},"section":0,"event":"waiting"\}\n)")
            .arg(QRegularExpression::escape(device)));
    QVERIFY2(
        tool.readUntil([&](const QString& out, const QString&) { return out.contains(events); }),
        qPrintable(tool.out()));
    QCOMPARE(tool.process().state(), QProcess::Running);
    ::kill(static_cast<pid_t>(tool.pid()), SIGINT);
    QCOMPARE(tool.finish().exitCode, 0);
}

void tst_MonitorCommand::followFindsTheDeviceTheGivenNameLeadsToNow()
{
    // The section is named as /dev/serial/by-id names an adapter: a link to its node. The
    // adapter comes back under another node, and its name leads there.
    PtySectionSimulator back;
    QVERIFY2(back.isOpen(), qPrintable(back.errorString()));
    back.setVersionReport(35, 42);
    const QString name = m_dir->filePath(QStringLiteral("usb-section0"));
    QVERIFY(QFile::link(m_sim->slavePath(), name));
    ToolProcess tool({"monitor", "--follow", "--section", "0", "--ports", name});
    QVERIFY(tool.readUntil([](const QString& out, const QString&) {
        return out.contains(QLatin1String("version 34 temperature 41"));
    }));
    m_sim->hangUp();
    QVERIFY2(tool.readUntil([](const QString&, const QString& err) {
        return err.contains(QLatin1String("; waiting for it"));
    }),
             qPrintable(tool.err()));
    // Another section on the node the name led to before: not the one monitored.
    PtySectionSimulator stranger;
    QVERIFY2(stranger.isOpen(), qPrintable(stranger.errorString()));
    QVERIFY(QFile::remove(name));
    QVERIFY(QFile::link(back.slavePath(), name));

    QVERIFY2(tool.readUntil([](const QString& out, const QString& err) {
        return err.contains(QLatin1String("section 0  device back")) &&
               out.contains(QLatin1String("version 35 temperature 42"));
    }),
             qPrintable(tool.out() + tool.err()));
    QVERIFY(stranger.receivedBytes().isEmpty());
    ::kill(static_cast<pid_t>(tool.pid()), SIGINT);
    QCOMPARE(tool.finish().exitCode, 0);
}

void tst_MonitorCommand::aLostDeviceIsNamedAsGivenAndAsFound_data()
{
    QTest::addColumn<bool>("json");
    QTest::newRow("text") << false;
    QTest::newRow("json") << true;
}

void tst_MonitorCommand::aLostDeviceIsNamedAsGivenAndAsFound()
{
    QFETCH(bool, json);
    const QString name = m_dir->filePath(QStringLiteral("usb-section0"));
    QVERIFY(QFile::link(m_sim->slavePath(), name));
    QStringList arguments{"monitor", "--section", "0", "--ports", name};
    if (json) {
        arguments << QStringLiteral("--json");
    }
    ToolProcess tool(arguments);
    QVERIFY(tool.readUntil([](const QString& out, const QString&) {
        return out.contains(QLatin1String("temperature")) && out.contains(QLatin1String("41"));
    }));
    const QString device = m_sim->slavePath();
    m_sim->hangUp();
    const ToolProcess::Run r = tool.finish();
    QCOMPARE(r.exitCode, 2);
    // The name the user gave, and the device it led to.
    const QString error = QStringLiteral("Device gone: %1 (%2)").arg(name, device);
    if (json) {
        QVERIFY2(
            r.out.join('\n').contains(QStringLiteral(R"("event":"lost","error":"%1"})").arg(error)),
            qPrintable(r.out.join('\n')));
    } else {
        QVERIFY2(r.err.contains(QStringLiteral("  section 0  device lost: %1\n").arg(error)),
                 qPrintable(r.err));
    }
}

QTEST_GUILESS_MAIN(tst_MonitorCommand)
#include "tst_monitorcommand.moc"
