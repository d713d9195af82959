// The one main() of every benchmark program.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QtGlobal>

namespace {

// The links log each bootloader probe's answer while a surface comes up; a benchmark's
// output is its table. A benchmark that counts log lines captures them itself (LogCapture
// nests over this handler).
void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

}  // namespace

int main(int argc, char** argv)
{
    qInstallMessageHandler(&quiet);
    // Handles are deleted with deleteLater, the task pool's tick re-arms a QTimer, and the
    // pty and the serial port wait in the thread's event loop: all need the application
    // object.
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
