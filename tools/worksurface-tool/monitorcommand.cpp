#include "monitorcommand.h"

#include <climits>

#include "base/jsonline.h"
#include "exitcode.h"
#include "reportprinter.h"
#include "sectionsession.h"
#include "serial/isectionconnection.h"
#include "surface/messagecatalog.h"
#include "tasks/monotonicclock.h"
#include "toolcontext.h"
#include "toolsettings.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

namespace {

// How often monitor's links probe again for a section that has not answered yet, and
// reopen a device that went away.
constexpr int kMonitorReconnectMs = 1000;

// The link's states in the words monitor prints.
QString linkStateName(uint8_t state)
{
    switch (state) {
        case ISectionConnection::Connected:
            return QStringLiteral("connected");
        case ISectionConnection::Closed:
            return QStringLiteral("closed");
        case ISectionConnection::Connecting:
            return QStringLiteral("connecting");
        case ISectionConnection::Updating:
            return QStringLiteral("updating");
        case ISectionConnection::Calibrating:
            return QStringLiteral("calibrating");
        case ISectionConnection::SerialError:
            return QStringLiteral("serial-error");
        case ISectionConnection::NoResponse:
            return QStringLiteral("no-response");
        default:
            return QStringLiteral("state %1").arg(state);
    }
}

}  // namespace

MonitorCommand::MonitorCommand(ToolContext& context)
    : m_context(context),
      m_printer(context.output(), TrafficPrinter::Position::Time, context.options().raw)
{
    const ToolCommandLine::Options& options = context.options();
    m_printer.setFilter(options.types, options.devices, options.dir);
    m_printer.setTimeMode(options.time);
}

MonitorCommand::~MonitorCommand() = default;

int MonitorCommand::run()
{
    const int code = openSections();
    if (m_sections.empty()) {
        return code;
    }
    QStringList names;
    for (const auto& w : m_sections) {
        names << QString::number(w->session->index());
    }
    ReportPrinter::monitoring(names);
    ToolContext::waitUntil([this] { return look(); }, INT_MAX);
    for (const auto& w : m_sections) {
        SectionSession& s = *w->session;
        s.flushTraffic();
        s.onTraffic = nullptr;
        s.onLinkState = nullptr;
        s.close();
    }
    ReportPrinter::monitorEnded();
    return m_lost ? ExitCode::PortError : code;
}

int MonitorCommand::openSections()
{
    const ToolCommandLine::Options& options = m_context.options();
    const ToolSettings model(options.mode, QString(), false);
    int code = ExitCode::Success;
    for (const SectionDevice& section : m_context.sections()) {
        auto w = std::make_unique<Watched>();
        w->session = m_context.session(section);
        SectionSession& s = *w->session;
        const uint8_t index = section.index;
        m_printer.setScope(index, MessageCatalog::scopeFor(model, index));
        s.onTraffic = [this, index](qint64 nowNs, bool incoming, const FrameDecoder::Event& e) {
            m_printer.print(m_context.sinceStartNs(nowNs), index, incoming, e);
        };
        if (options.listenOnly) {
            s.setListenOnly(true);
        } else {
            // A section powered up after the monitor started, or one whose device comes
            // back, is found by probing again.
            s.setReconnectIntervalMs(kMonitorReconnectMs);
        }
        if (!s.open(true)) {
            ReportPrinter::portError(index, section.device, s.portError());
            ExitCode::keepFirst(code, ExitCode::PortError);
            continue;
        }
        Watched* watched = w.get();
        s.onLinkState = [this, watched](qint64 nowNs, uint8_t state) {
            tellLinkState(*watched, nowNs, state);
        };
        m_sections.push_back(std::move(w));
    }
    return code;
}

void MonitorCommand::tellLinkState(Watched& w, qint64 nowNs, uint8_t state)
{
    // The ordinary start (the probe answered at once) shows as the first ping; every
    // change after it, and a late section's arrival, is told.
    const bool first = !w.up;
    if (state == ISectionConnection::Connected) {
        w.up = true;
    }
    if (first && (state == ISectionConnection::Connecting ||
                  (state == ISectionConnection::Connected && !w.reprobing))) {
        return;
    }
    m_printer.event(m_context.sinceStartNs(nowNs), w.session->index(),
                    QStringLiteral("link %1").arg(linkStateName(state)), "link",
                    JsonLine().add("state", linkStateName(state)));
}

bool MonitorCommand::look()
{
    const qint64 atNs = m_context.sinceStartNs(MonotonicClock::nowNs());
    for (const auto& w : m_sections) {
        lookAt(*w, atNs);
    }
    return m_lost || m_watcher.isInterrupted();
}

void MonitorCommand::lookAt(Watched& w, qint64 atNs)
{
    SectionSession& s = *w.session;
    if (!w.noted && s.updaterState() == SectionUpdater::InBootloader) {
        w.noted = true;
        ReportPrinter::leftInBootloader(s.index());
    }
    if (!w.reprobing && !w.up && s.reconnectAttempts() > 0) {
        w.reprobing = true;
        m_printer.event(atNs, s.index(),
                        QStringLiteral("no answer to the probe yet; probing again every %1 s")
                            .arg(kMonitorReconnectMs / 1000),
                        "waiting", JsonLine());
    }
    const bool isOpen = s.serialIsOpen();
    if (w.open && !isOpen) {
        w.open = false;
        const QString error = s.serialError();
        m_printer.event(
            atNs, s.index(),
            QStringLiteral("device lost: %1%2")
                .arg(error, waitsForLostDevices() ? QStringLiteral("; waiting for it") : QString()),
            "lost", JsonLine().add("error", error));
        if (waitsForLostDevices()) {
            // Text says it on the lost line; JSON in an event of its own.
            m_printer.event(atNs, s.index(), QString(), "waiting", JsonLine());
        } else {
            m_lost = true;
        }
    } else if (!w.open && isOpen) {
        w.open = true;
        m_printer.event(atNs, s.index(), QStringLiteral("device back"), "back", JsonLine());
    }
}

bool MonitorCommand::waitsForLostDevices() const
{
    // A listener that sends nothing never brings its link up again.
    return m_context.options().follow && !m_context.options().listenOnly;
}
