#include <QCoreApplication>
#include <csignal>
#include <cstdio>

#include "worksurfacetool.h"

namespace {

bool g_verbose = false;

// The link's log lines are the console's; on the bench they are shown only with --verbose.
void messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(type);
    Q_UNUSED(context);
    if (g_verbose) {
        std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
        std::fflush(stderr);
    }
}

}  // namespace

int main(int argc, char* argv[])
{
    // A reader of standard output that goes away (`| head`) must not kill a flash in the
    // middle of a transfer: the write fails with EPIPE instead, and ToolOutput ends the
    // command as Ctrl-C does.
    std::signal(SIGPIPE, SIG_IGN);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("worksurface-tool"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARVIX_TOOL_VERSION));
    g_verbose = QCoreApplication::arguments().contains(QStringLiteral("--verbose"));
    qInstallMessageHandler(messageHandler);
    WorksurfaceTool tool;
    return tool.run(QCoreApplication::arguments());
}
