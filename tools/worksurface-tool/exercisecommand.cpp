#include "exercisecommand.h"

#include <memory>

#include "exitcode.h"
#include "sectionsession.h"
#include "serial/iserialmessagesender.h"
#include "serial/serialmessage.h"
#include "surface/deviceidtable.h"
#include "surface/messagecatalog.h"
#include "toolcontext.h"
#include "toolsettings.h"

using namespace Velmora::Worksurface;

namespace {

// How long the last writes get to leave the port before it closes; after Ctrl-C, the dark
// LEDs.
constexpr int kExerciseDrainMs = 200;

}  // namespace

ExerciseCommand::ExerciseCommand(ToolContext& context)
    : m_context(context),
      m_printer(context.output(), TrafficPrinter::Position::Time, false),
      m_report(context.output())
{}

int ExerciseCommand::run()
{
    int code = ExitCode::Success;
    // Every section is opened and probed at once (one time-out in all); the pattern then
    // goes to one section after another, for the eye to follow.
    std::vector<std::unique_ptr<SectionSession>> all;
    std::vector<SectionSession*> open;
    for (const SectionDevice& section : m_context.sections()) {
        all.push_back(m_context.session(section));
        if (all.back()->open(true)) {
            open.push_back(all.back().get());
        }
    }
    const std::vector<QString> answers = m_context.awaitApplication(open);
    std::size_t next = 0;
    for (auto& s : all) {
        QString state;
        if (next < open.size() && open[next] == s.get()) {
            state = answers[next++];
            if (state != QLatin1String("application")) {
                ExitCode::keepFirst(code, ExitCode::NoAnswer);
            }
        } else {
            state = QStringLiteral("port-error  ") + s->portError();
            ExitCode::keepFirst(code, ExitCode::PortError);
        }
        if (state != QLatin1String("application")) {
            s->close();
            ReportPrinter::notExercised(s->index(), s->device(), state);
            continue;
        }
        if (m_watcher.isInterrupted()) {
            s->close();
            continue;
        }
        ExitCode::keepFirst(code, exercise(*s));
        if (m_watcher.isInterrupted()) {
            break;
        }
    }
    return code;
}

int ExerciseCommand::exercise(SectionSession& s)
{
    const uint8_t index = s.index();
    const ToolSettings model(m_context.options().mode, QString(), false);
    m_printer.setScope(index, MessageCatalog::scopeFor(model, index));
    s.onTraffic = [this, index](qint64 nowNs, bool incoming, const FrameDecoder::Event& event) {
        if (!incoming) {
            m_printer.print(m_context.sinceStartNs(nowNs), index, incoming, event);
        }
    };
    const Controls controls = controlsOf(index);
    const bool alive = runPattern(s, controls);
    if (m_watcher.isInterrupted()) {
        // Stopped early: nothing stays lit.
        darken(s, controls);
    }
    // Let the last writes leave the port before it closes.
    ToolContext::waitUntil([] { return false; }, kExerciseDrainMs);
    s.onTraffic = nullptr;
    s.close();
    if (m_watcher.isInterrupted()) {
        m_report.exerciseInterrupted(index, ExitCode::Interrupted);
        return ExitCode::Interrupted;
    }
    if (!alive) {
        ReportPrinter::stoppedAnswering(index);
        return ExitCode::NoAnswer;
    }
    return ExitCode::Success;
}

ExerciseCommand::Controls ExerciseCommand::controlsOf(uint8_t section) const
{
    const ToolSettings model(m_context.options().mode, QString(), false);
    Controls c;
    for (int i = 0; i < model.stripCount(); ++i) {
        c.faders.push_back(DeviceIdTable::fader(FaderType::Fader, i));
        c.leds.push_back(DeviceIdTable::led(LedType::MuteButton, i));
        c.leds.push_back(DeviceIdTable::led(LedType::SoloButton, i));
        c.rgbLeds.push_back(DeviceIdTable::rgbLed(RgbLedType::UnderscreenRotaryButton, i));
    }
    if (model.masterSectionIndex() != section) {
        return c;
    }
    c.faders.push_back(DeviceIdTable::fader(FaderType::MasterFader, 0));
    for (LedType type :
         {LedType::MasterMuteButton, LedType::LayerDownButton, LedType::LayerUpButton,
          LedType::NextSnapsthotButton, LedType::PreviousSnapshotButton, LedType::OverviewButton,
          LedType::SpillsetButton}) {
        c.leds.push_back(DeviceIdTable::led(type, 0));
    }
    for (int k = 0; k < model.sideRotaryCount(); ++k) {
        c.rgbLeds.push_back(DeviceIdTable::rgbLed(RgbLedType::SideRotaryButton, k));
    }
    for (RgbLedType type :
         {RgbLedType::NameLogo, RgbLedType::MainLogo, RgbLedType::HeadphoneLogo,
          RgbLedType::SnapshotLogo, RgbLedType::DashboardLogo, RgbLedType::OverviewLogo}) {
        c.rgbLeds.push_back(DeviceIdTable::rgbLed(type, 0));
    }
    c.meters.push_back(DeviceIdTable::meter(MeterType::MasterLeft));
    c.meters.push_back(DeviceIdTable::meter(MeterType::MasterRight));
    return c;
}

bool ExerciseCommand::runPattern(SectionSession& s, const Controls& c)
{
    m_alive = true;
    ISerialMessageSender& sender = s.sender();
    for (uint16_t position : {uint16_t{0}, uint16_t{511}, uint16_t{0}}) {
        step(s, [&] {
            for (uint8_t id : c.faders) {
                sender.sendFaderPosition(id, position);
            }
        });
    }
    for (std::size_t i = 0; i <= c.leds.size(); ++i) {
        step(s, [&] {
            if (i > 0) {
                sender.sendLed(c.leds[i - 1], 0, 0, 0);
            }
            if (i < c.leds.size()) {
                sender.sendLed(c.leds[i], 255, 0, 0);
            }
        });
    }
    for (uint32_t colour : {0xFF0000u, 0x00FF00u, 0x0000FFu, 0x000000u}) {
        step(s, [&] {
            for (uint8_t id : c.rgbLeds) {
                sender.sendColor(id, colour, 0, 0);
            }
        });
    }
    if (!c.meters.empty()) {
        for (uint8_t level : {0, 6, 12, 18, 24, 18, 12, 6, 0}) {
            step(s, [&] {
                for (uint8_t id : c.meters) {
                    sender.sendMeterLevel(id, level);
                }
            });
        }
    }
    return m_alive;
}

void ExerciseCommand::step(SectionSession& s, const std::function<void()>& queue)
{
    if (!m_alive || m_watcher.isInterrupted()) {
        return;
    }
    queue();
    // A link whose device went away empties its queue into nothing.
    m_alive =
        ToolContext::waitUntil([&] { return s.queuedMessages() == 0 || m_watcher.isInterrupted(); },
                               m_context.options().timeoutMs) &&
        s.serialIsOpen();
    ToolContext::waitUntil([&] { return m_watcher.isInterrupted(); }, m_context.options().stepMs);
}

void ExerciseCommand::darken(SectionSession& s, const Controls& c)
{
    // The queue may still hold part of a step; the dark frames go out at once, ahead of it.
    for (uint8_t id : c.leds) {
        s.sendDirect(SerialMessage(MessageType::Led, id, {0, 0}));
    }
    for (uint8_t id : c.rgbLeds) {
        s.sendDirect(SerialMessage(MessageType::RgbColor, id, {0, 0, 0, 0}));
    }
}
