#include "tooloutput.h"

#include <unistd.h>
#include <cerrno>
#include <cstdio>

#include "base/jsonline.h"
#include "interruptwatcher.h"

namespace {

bool g_stdoutClosed = false;

}  // namespace

ToolOutput::ToolOutput(bool json) : m_json(json) {}

bool ToolOutput::isTerminal()
{
    return ::isatty(STDOUT_FILENO) == 1;
}

void ToolOutput::text(const QString& line)
{
    raw(line.toLocal8Bit() + '\n');
}

void ToolOutput::json(const JsonLine& line)
{
    raw(line.toJson() + '\n');
}

void ToolOutput::raw(const QByteArray& bytes)
{
    if (g_stdoutClosed) {
        return;
    }
    errno = 0;
    const std::size_t size = static_cast<std::size_t>(bytes.size());
    const bool written = std::fwrite(bytes.constData(), 1, size, stdout) == size;
    if (std::fflush(stdout) == 0 && written) {
        return;
    }
    // A full disk or a terminal's trouble loses lines and the command goes on; a reader
    // that went away reads nothing more, ever.
    if (errno == EPIPE) {
        g_stdoutClosed = true;
        InterruptWatcher::outputClosed();
    }
    std::clearerr(stdout);
}

bool ToolOutput::isClosed()
{
    return g_stdoutClosed;
}

void ToolOutput::note(const QString& line)
{
    const QByteArray bytes = line.toLocal8Bit() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stderr);
    std::fflush(stderr);
}

void ToolOutput::cannotRead(const QString& file, const QString& why)
{
    note(QStringLiteral("worksurface-tool: cannot read %1: %2").arg(file, why));
}
