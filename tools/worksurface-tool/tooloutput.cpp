#include "tooloutput.h"

#include <unistd.h>
#include <cstdio>

#include "base/jsonline.h"

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
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
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
