#pragma once

#include <QString>
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

// A section the command works on, with its device as the user named it (or as the plugin
// would find it).
struct SectionDevice
{
    uint8_t index = 0;
    QString device;
};

// What every command works with: the parsed options, standard output, the console's
// logger, the task pool the links run on (started for the commands that open links) and
// the moment the tool started, from which monitor and exercise count their times.
class ToolContext
{
public:
    explicit ToolContext(const ToolCommandLine::Options& options);
    ~ToolContext();

    ToolContext(const ToolContext&) = delete;
    ToolContext& operator=(const ToolContext&) = delete;

    const ToolCommandLine::Options& options() const { return m_options; }
    ToolOutput& output() { return *m_output; }
    // Nanoseconds since the tool started, for a time on the monotonic clock.
    qint64 sinceStartNs(qint64 nowNs) const { return nowNs - m_startNs; }

    // The links' task pool runs from startLinks() to stopLinks().
    void startLinks();
    void stopLinks();

    // The asked-for sections with their devices.
    std::vector<SectionDevice> sections() const;
    // The model's settings; with a firmware path, those of a flash (the file named on the
    // command line, the update's time-out from --timeout).
    std::shared_ptr<Velmora::Worksurface::ISettings> settings(const QString& firmware) const;
    // A section's link, wired as the plugin wires it, not yet open.
    std::unique_ptr<SectionSession> session(const SectionDevice& section,
                                            const QString& firmware = QString());

    // Runs the event loop until the condition holds or the time is up; true when it holds.
    static bool waitUntil(const std::function<bool()>& condition, int timeoutMs);
    // The probe and the ping answer of open sessions, all at once within one time-out
    // each: "application", "bootloader", "garbled" (bytes came, but no answer) or "silent".
    std::vector<QString> awaitApplication(const std::vector<SectionSession*>& sessions) const;

private:
    const ToolCommandLine::Options m_options;
    std::unique_ptr<ToolOutput> m_output;
    std::shared_ptr<Velmora::Worksurface::TaskPool> m_pool;
    std::shared_ptr<Velmora::Worksurface::Logger> m_logger;
    const qint64 m_startNs;
};
