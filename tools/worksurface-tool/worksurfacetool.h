#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "toolcommandline.h"

class SectionSession;
class ToolOutput;

namespace Velmora::Worksurface {
class ISettings;
class Logger;
class TaskPool;
}  // namespace Velmora::Worksurface

// The bench tool's commands: ports, probe, flash, monitor, decode and exercise, on the
// same core as the plugin. run() parses the command line and returns the exit code.
class WorksurfaceTool
{
public:
    WorksurfaceTool();
    ~WorksurfaceTool();

    int run(const QStringList& arguments);

private:
    // The asked-for sections with their devices.
    std::vector<std::pair<uint8_t, QString>> sections() const;
    std::shared_ptr<Velmora::Worksurface::ISettings> settings(const QString& firmware) const;
    std::unique_ptr<SectionSession> session(uint8_t index, const QString& device,
                                            const QString& firmware = QString());

    int flash();

    // Runs the event loop until the condition holds or the time is up; true when it holds.
    static bool waitUntil(const std::function<bool()>& condition, int timeoutMs);
    // Why the image cannot be flashed (empty, not a binary image, too large), or empty.
    QString imageProblem(const QByteArray& head, qint64 size) const;

    ToolCommandLine::Options m_options;
    std::unique_ptr<ToolOutput> m_output;
    std::shared_ptr<Velmora::Worksurface::TaskPool> m_pool;
    std::shared_ptr<Velmora::Worksurface::Logger> m_logger;
    qint64 m_startNs = 0;
};
