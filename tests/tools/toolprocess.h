#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <memory>

// The built worksurface-tool as a child process, for the tests of its commands. The
// sections it talks to are pty section simulators in the test's own process, which answer
// on the test's event loop: the tool is waited for with the event loop running, for a
// condition, never for a fixed time.
class ToolProcess
{
public:
    struct Run
    {
        int exitCode = -1;  // -1 when it ended on a signal
        QProcess::ExitStatus exitStatus = QProcess::CrashExit;
        QStringList out;  // standard output, line by line
        QString err;
    };

    // Runs the tool to its end; a tool still running after timeoutMs is killed.
    static Run run(const QStringList& arguments, int timeoutMs = 60000);

    // Where the tool's standard output goes: read by the test through QProcess, or a pipe
    // that the test reads and then closes, as `worksurface-tool … | head -2` does.
    enum class Output
    {
        Captured,
        ClosablePipe,
    };

    // Starts the tool, with the section devices of the environment left out (the tests name
    // their devices with --ports).
    explicit ToolProcess(const QStringList& arguments, Output output = Output::Captured);
    ~ToolProcess();

    QProcess& process() { return *m_process; }
    qint64 pid() const { return m_process->processId(); }
    // Standard output and error so far, as read by readUntil().
    const QString& out() const { return m_out; }
    const QString& err() const { return m_err; }
    // Runs the event loop until what the tool wrote so far satisfies the condition, or the
    // tool has ended; whether the condition holds.
    bool readUntil(const std::function<bool(const QString& out, const QString& err)>& condition,
                   int timeoutMs = 10000);
    // Waits for the tool's end; what it wrote, all of it (readUntil()'s included).
    Run finish(int timeoutMs = 10000);
    // Any process of the tool: waits, with the event loop running (the simulators answer on
    // it), for its end; false if it still runs after timeoutMs.
    static bool waitForEnd(QProcess& process, int timeoutMs);
    // The run of a process that has ended, with all it wrote.
    static Run ended(const QProcess& process, const QString& out, const QString& err);
    // Output::ClosablePipe: the reader goes away; the tool's next write to standard output
    // finds the pipe closed.
    void closeOutput();

private:
    void read();
    void readPipe();

    std::unique_ptr<QTemporaryDir> m_pipeDir;
    int m_pipe = -1;  // the read end of the tool's standard output, for ClosablePipe
    std::unique_ptr<QProcess> m_process;
    QString m_out;
    QString m_err;
};

// Runs the event loop until the condition holds, looking every 5 ms; false if it still does
// not hold after timeoutMs. (QTest::qWaitFor sleeps 10 ms between rounds of events, which
// holds up every answer of a simulated section.)
bool waitFor(const std::function<bool()>& condition, int timeoutMs = 10000);
