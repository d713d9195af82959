#include "toolcontext.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <climits>

#include "base/logger.h"
#include "sectionsession.h"
#include "serial/serialconnectionfactory.h"
#include "tasks/monotonicclock.h"
#include "tasks/taskpool.h"
#include "tooloutput.h"
#include "toolsettings.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

ToolContext::ToolContext(const ToolCommandLine::Options& options)
    : m_options(options),
      m_output(std::make_unique<ToolOutput>(options.json)),
      m_startNs(MonotonicClock::nowNs())
{
    m_logger = std::make_shared<Logger>(settings(QString()));
}

ToolContext::~ToolContext()
{
    stopLinks();
}

void ToolContext::startLinks()
{
    if (!m_pool) {
        m_pool = std::make_shared<TaskPool>();
        m_pool->start();
    }
}

void ToolContext::stopLinks()
{
    if (m_pool) {
        m_pool->stop();
    }
}

std::shared_ptr<ISettings> ToolContext::settings(const QString& firmware) const
{
    auto result = std::make_shared<ToolSettings>(m_options.mode, firmware, m_options.verbose);
    if (!firmware.isEmpty()) {
        // flash: an update whose bootloader stops answering ends after the same time-out,
        // where the tool can tell which block the section stopped at.
        result->setUpdateTimeout(m_options.timeoutMs);
    }
    return result;
}

std::vector<SectionDevice> ToolContext::sections() const
{
    const ToolSettings model(m_options.mode, QString(), false);
    std::vector<SectionDevice> result;
    for (uint8_t index = 0; index < model.sectionCount(); ++index) {
        if (m_options.section >= 0 && index != m_options.section) {
            continue;
        }
        QString device;
        if (index < m_options.ports.size()) {
            device = m_options.ports.at(index).trimmed();
        }
        if (device.isEmpty()) {
            // The plugin's own naming: the environment's entry, else the model's device.
            device = SerialConnectionFactory::serialPortName(index, model);
        }
        result.push_back({index, device});
    }
    return result;
}

std::unique_ptr<SectionSession> ToolContext::session(const SectionDevice& section,
                                                     const QString& firmware)
{
    startLinks();
    return std::make_unique<SectionSession>(section.index, section.device, settings(firmware),
                                            m_pool, m_logger);
}

bool ToolContext::waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    // The task pool sleeps through ticks with nothing due, so the loop may have nothing to
    // wake it before the time-out (no link open yet): this timer does.
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.start(timeoutMs);
    while (!condition()) {
        if (timer.elapsed() >= timeoutMs) {
            return condition();
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

std::vector<QString> ToolContext::awaitApplication(
    const std::vector<SectionSession*>& sessions) const
{
    // Per section: the updater's probe comes first (a bootloader acknowledges it, an
    // application answers that it is none), and only then does the link ping. Every
    // section runs through this at the same time, each with its own time-out per step.
    const qint64 timeoutNs = m_options.timeoutMs * kNsPerMs;
    std::vector<QString> states(sessions.size());
    std::vector<qint64> deadlines(sessions.size(), MonotonicClock::nowNs() + timeoutNs);
    std::vector<bool> probed(sessions.size(), false);
    const auto settle = [&] {
        bool all = true;
        const qint64 now = MonotonicClock::nowNs();
        for (std::size_t i = 0; i < sessions.size(); ++i) {
            SectionSession& s = *sessions[i];
            if (!states[i].isEmpty()) {
                continue;
            }
            if (!probed[i] && s.updaterState() != SectionUpdater::Exchanging) {
                if (s.updaterState() == SectionUpdater::InBootloader) {
                    states[i] = QStringLiteral("bootloader");
                    continue;
                }
                probed[i] = true;
                deadlines[i] = now + timeoutNs;
            }
            if (probed[i] && s.hasVersion()) {
                states[i] = QStringLiteral("application");
                continue;
            }
            if (now >= deadlines[i]) {
                // Bytes that came without an answer: a section on another baud rate, a
                // wrong device, a line picking up noise; not a dead line.
                states[i] = s.bytesReceivedCount() > 0 ? QStringLiteral("garbled")
                                                       : QStringLiteral("silent");
                continue;
            }
            all = false;
        }
        return all;
    };
    waitUntil(settle, INT_MAX);
    return states;
}
