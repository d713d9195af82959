#include "toolprocess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QSignalSpy>
#include <QTimer>

bool waitFor(const std::function<bool()>& condition, int timeoutMs)
{
    if (condition()) {
        return true;
    }
    QElapsedTimer timer;
    timer.start();
    QEventLoop loop;
    QTimer poll;
    poll.setTimerType(Qt::PreciseTimer);
    poll.setInterval(5);
    bool met = false;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        met = condition();
        if (met || timer.elapsed() >= timeoutMs) {
            loop.quit();
        }
    });
    poll.start();
    loop.exec();
    return met || condition();
}

ToolProcess::Run ToolProcess::run(const QStringList& arguments, int timeoutMs)
{
    ToolProcess tool(arguments);
    return tool.finish(timeoutMs);
}

ToolProcess::ToolProcess(const QStringList& arguments, Output output)
    : m_process(std::make_unique<QProcess>())
{
    // QSignalSpy on finished() in finish().
    qRegisterMetaType<QProcess::ExitStatus>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("TARVIX_WORKSURFACE_SERIAL_PORTS"));
    m_process->setProcessEnvironment(environment);
    if (output == Output::ClosablePipe) {
        // A named pipe: QProcess hands the tool a file, and this end is the test's to close.
        // Opened for reading first, so that the tool's open for writing does not wait.
        m_pipeDir = std::make_unique<QTemporaryDir>();
        const QByteArray path = m_pipeDir->filePath(QStringLiteral("stdout")).toLocal8Bit();
        if (::mkfifo(path.constData(), 0600) == 0) {
            m_pipe = ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        }
        m_process->setStandardOutputFile(QString::fromLocal8Bit(path));
    }
    m_process->start(QStringLiteral(TARVIX_TOOL_PATH), arguments);
}

ToolProcess::~ToolProcess()
{
    if (m_process->state() != QProcess::NotRunning) {
        m_process->kill();
        m_process->waitForFinished(5000);
    }
    closeOutput();
}

void ToolProcess::closeOutput()
{
    if (m_pipe >= 0) {
        ::close(m_pipe);
        m_pipe = -1;
    }
}

void ToolProcess::read()
{
    readPipe();
    if (m_process->isReadable()) {
        m_out += QString::fromLocal8Bit(m_process->readAllStandardOutput());
        m_err += QString::fromLocal8Bit(m_process->readAllStandardError());
    }
}

void ToolProcess::readPipe()
{
    if (m_pipe < 0) {
        return;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(m_pipe, buffer, sizeof buffer);
        if (got <= 0) {
            return;
        }
        m_out += QString::fromLocal8Bit(buffer, static_cast<int>(got));
    }
}

bool ToolProcess::readUntil(
    const std::function<bool(const QString& out, const QString& err)>& condition, int timeoutMs)
{
    waitFor(
        [&] {
            read();
            return condition(m_out, m_err) || m_process->state() == QProcess::NotRunning;
        },
        timeoutMs);
    read();
    return condition(m_out, m_err);
}

ToolProcess::Run ToolProcess::finish(int timeoutMs)
{
    if (!waitForEnd(*m_process, timeoutMs)) {
        return Run();
    }
    read();
    return ended(*m_process, m_out, m_err);
}

bool ToolProcess::waitForEnd(QProcess& process, int timeoutMs)
{
    if (process.state() != QProcess::NotRunning) {
        QSignalSpy finished(&process,
                            QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
        finished.wait(timeoutMs);
    }
    return process.state() == QProcess::NotRunning;
}

ToolProcess::Run ToolProcess::ended(const QProcess& process, const QString& out, const QString& err)
{
    Run result;
    result.exitStatus = process.exitStatus();
    // A process killed by a signal has no exit code (Qt reports 0 for it).
    if (result.exitStatus == QProcess::NormalExit) {
        result.exitCode = process.exitCode();
    }
    result.out = out.split('\n');
    if (!result.out.isEmpty() && result.out.last().isEmpty()) {
        result.out.removeLast();
    }
    result.err = err;
    return result;
}
