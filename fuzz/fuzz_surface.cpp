// Plays three arbitrary sections against a complete three-section worksurface, built by the
// surface builder from the real section, component and connection factories on fake serial
// lines: every section's bytes go through its link's parser (or its firmware updater) to
// the section's components, and what the surface sends goes back out through the queues.
// Task passes and clock jumps are interleaved with the bytes, and so are the operations the
// QML side drives (brightness, rest mode, calibration, start and stop, handles taken and
// used). Nothing may crash, hang or leave the link in a state outside its machine, and the
// pool's tasks must stay bounded by what the input asked for. Every link records all along,
// and at the end every record of every ring must become one line of a trace file.
//
// Input: a sequence of commands. Each command is one byte whose low three bits select it:
//   0..2  a chunk of 1..32 bytes for section 0..2 (length from the command's high bits)
//   3     a chunk of 1..256 bytes for the section chosen by the high bits (length from the
//         next byte); high bits 24..31 put it on the line through the section's
//         SectionControl.sendRaw() instead (odd: as a JS-style list of numbers, even: as
//         bytes), 31 after pulling the section out or plugging it back in
//   4     advance the clock by 0..255 ms, then tick the pool
//   5     advance the clock by a 16-bit number of milliseconds, then tick the pool
//   6     tick the pool without moving the clock, and deliver the handles' queued requests
//   7     a surface or handle operation chosen by the next byte
// The first byte also chooses whether the sections' firmware image exists, so that a
// section which answers the bootloader probe may receive a real update (bit 0), and the
// links' reconnect interval (bits 1 and 2: 0, 200, 400 or 600 ms), so that links restart
// by themselves between the bytes and clock jumps.

#include <QByteArray>
#include <QColor>
#include <QCoreApplication>
#include <QFile>
#include <QString>
#include <QTemporaryDir>
#include <QVariant>
#include <QVariantList>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "base/logger.h"
#include "bindings/surfaceconnection.h"
#include "qml/sectioninfomodel.h"
#include "serial/flightrecorder.h"
#include "serial/isectionconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "software/sectioncontrol.h"
#include "support/fakesectioninfoprovider.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialconnectionfactory.h"
#include "support/fakesettings.h"
#include "support/manualclock.h"
#include "surface/buttonhandle.h"
#include "surface/componentfactory.h"
#include "surface/connectionfactory.h"
#include "surface/faderhandle.h"
#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irotary.h"
#include "surface/ledhandle.h"
#include "surface/meterhandle.h"
#include "surface/pothandle.h"
#include "surface/rotaryhandle.h"
#include "surface/sectionfactory.h"
#include "surface/surface.h"
#include "surface/surfacebuilder.h"
#include "surface/tracefile.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

constexpr uint8_t kSections = 3;
constexpr uint8_t kMaster = 2;

ManualClock* g_clock = nullptr;
QString* g_firmwarePath = nullptr;

[[noreturn]] void violated(const char* what, long long value)
{
    std::fprintf(stderr, "surface invariant violated: %s (%lld)\n", what, value);
    std::abort();
}

// The links log every bad byte and unknown message; thousands of lines per second would
// only slow the search down.
void discardLog(QtMsgType, const QMessageLogContext&, const QString&) {}

class Input
{
public:
    Input(const uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    bool atEnd() const { return m_pos >= m_size; }
    uint8_t byte() { return atEnd() ? 0 : m_data[m_pos++]; }
    QByteArray bytes(std::size_t count)
    {
        count = std::min(count, m_size - m_pos);
        QByteArray result(reinterpret_cast<const char*>(m_data + m_pos), static_cast<int>(count));
        m_pos += count;
        return result;
    }

private:
    const uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_pos = 0;
};

// The QML side's grip on a few controls, taken and used as the input says.
struct Handles
{
    std::shared_ptr<FaderHandle> fader;
    std::shared_ptr<RotaryHandle> rotary;
    std::shared_ptr<LedHandle> led;
    std::shared_ptr<ButtonHandle> button;
    std::shared_ptr<PotHandle> pot;
    std::shared_ptr<MeterHandle> meter;
};

void operate(Surface& surface, const std::shared_ptr<FakeSerialConnectionFactory::Record>& lines,
             Handles& handles, Input& input)
{
    const uint8_t operation = input.byte();
    const uint8_t argument = input.byte();
    const int section = argument % (kSections + 1);  // 3 names no section
    const int index = argument >> 2;                 // 0..63, mostly out of range
    switch (operation % 16) {
        case 0:
            surface.setSurfaceBrightness(argument);
            break;
        case 1:
            surface.setSurfaceOverBrightness(argument);
            break;
        case 2:
            surface.setFaderRestMode(argument & 1 ? RestMode::KeepCurrent : RestMode::ForceMinimum);
            break;
        case 3:
            surface.calibrate();
            break;
        case 4:
            surface.stop();
            break;
        case 5:
            surface.start();
            break;
        case 6:
            if (const auto fader = surface.fader(1 + (operation >> 7), section, index % 12)) {
                handles.fader = fader->getHandle();
            }
            break;
        case 7:
            if (handles.fader) {
                const uint16_t position = static_cast<uint16_t>((argument << 2) | (operation >> 6));
                switch ((operation >> 4) % 4) {
                    case 0:
                        emit handles.fader->internalSendFaderPosition(position);
                        break;
                    case 1:
                        emit handles.fader->internalSendFaderLockEnabled(argument & 1);
                        emit handles.fader->internalSendFaderLockPosition(position);
                        break;
                    case 2:
                        emit handles.fader->internalSendFaderDetent(position);
                        emit handles.fader->internalSendFaderBackstop(position);
                        break;
                    case 3:
                        handles.fader->setMode(argument & 1);
                        break;
                }
            }
            break;
        case 8:
            handles.fader.reset();
            break;
        case 9:
            if (const auto rotary = surface.rotary(1 + (operation >> 7), section, index % 12)) {
                handles.rotary = rotary->getHandle();
                handles.rotary->setColor(QColor::fromRgb(argument * 0x010203u & 0xffffffu));
            }
            break;
        case 10:
            if (handles.rotary) {
                handles.rotary->setFlashEnabled(operation & 0x80);
                handles.rotary->setFlashInterval(argument * 4);
            }
            break;
        case 11:
            if (const auto led = surface.led(1 + (operation >> 4) % 10, section, index % 12)) {
                handles.led = led->getHandle();
                handles.led->setOn(argument);
                handles.led->setFlashEnabled(operation & 0x80);
                handles.led->setFlashInterval(argument * 4);
            } else {
                handles.led.reset();
            }
            break;
        case 12:
            if (const auto button = surface.button(1 + (operation >> 4) % 12, section, index)) {
                handles.button = button->getHandle();
            } else {
                handles.button.reset();
            }
            break;
        case 13:
            if (const auto pot = surface.pot(1, section)) {
                handles.pot = pot->getHandle();
                handles.pot->setColor(QColor(argument, 0, 255 - argument));
            } else {
                handles.pot.reset();
            }
            break;
        case 14:
            if (const auto meter = surface.meter(1 + (operation >> 7), section)) {
                handles.meter = meter->getHandle();
                handles.meter->setLevel(argument);
                handles.meter->setPeak(static_cast<uint8_t>(argument + operation));
            }
            break;
        case 15:
            // A section's port may vanish: its next open (or restart) fails.
            lines->at(std::size_t(argument % kSections)).line->setOpenResult(operation & 0x80);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    // The task pool's timer needs an application object; nothing here runs its event loop.
    static int argc = 1;
    static char name[] = "fuzz_surface";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    qInstallMessageHandler(&discardLog);
    static ManualClock clock(kStartNs);
    g_clock = &clock;

    // A small firmware image (two blocks) for the sections that answer as a bootloader.
    static QTemporaryDir dir;
    static QString path = dir.path() + QStringLiteral("/worksurface.bin");
    QFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QByteArray(100, '\x5a'));
        file.close();
    }
    g_firmwarePath = &path;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    g_clock->setNs(kStartNs);
    Input input(data, size);

    auto settings = std::make_shared<FakeSettings>();
    settings->setSectionCount(kSections);
    settings->setMasterSectionIndex(kMaster);
    settings->setDebugEnabled(false);
    const uint8_t setup = input.byte();
    if (setup & 1) {
        settings->setFirmwarePath(*g_firmwarePath);
    }
    settings->setReconnectInterval((setup & 0x06) * 100);
    auto logger = std::make_shared<Logger>(settings);
    auto pool = std::make_shared<TaskPool>();
    SectionInfoModel models[] = {SectionInfoModel(0, nullptr), SectionInfoModel(1, nullptr),
                                 SectionInfoModel(2, nullptr)};
    FakeSectionInfoProvider provider;
    for (auto& model : models) {
        provider.set(static_cast<uint8_t>(model.index()), &model);
    }

    // Every link records, into rings small enough to wrap on long inputs.
    settings->setTraceCapacity(256);
    std::shared_ptr<Surface> surface;
    std::shared_ptr<FakeSerialConnectionFactory::Record> lines;
    {
        auto serial = std::make_unique<FakeSerialConnectionFactory>();
        lines = serial->record();
        SectionFactory sectionFactory(&provider, std::make_unique<ComponentFactory>(pool));
        ConnectionFactory connectionFactory(std::move(serial), pool, logger);
        surface = SurfaceBuilder::build(settings, sectionFactory, connectionFactory);
    }
    if (!surface || surface->connections().size() != kSections) {
        violated("surface not built", 0);
    }
    const std::size_t initialTasks = pool->taskCount();
    surface->start();

    // The software side of each section, as a QML page plays it: raw bytes from a
    // SectionControl reach the same link through the software controller.
    auto controller = std::make_shared<QmlControllerConnection>();
    for (uint8_t s = 0; s < kSections; ++s) {
        controller->setDataReceiver(s, lines->at(s).line->dataReceiver());
    }
    SurfaceConnection softwareSide(controller, nullptr);
    SectionControl played[kSections];
    for (uint8_t s = 0; s < kSections; ++s) {
        played[s].setConnection(&softwareSide);
        played[s].setSectionIndex(s);
    }

    Handles handles;
    std::size_t commands = 0;
    while (!input.atEnd()) {
        ++commands;
        const uint8_t command = input.byte();
        switch (command & 0x07) {
            case 0:
            case 1:
            case 2:
                lines->at(command & 0x03).line->pushData(input.bytes(1 + (command >> 3)));
                break;
            case 3: {
                const unsigned which = command >> 3;
                const std::size_t section = which % kSections;
                const QByteArray chunk = input.bytes(1 + std::size_t(input.byte()));
                if (which < 24) {
                    lines->at(section).line->pushData(chunk);
                    break;
                }
                if (which == 31) {
                    played[section].setPlugged(!played[section].plugged());
                }
                if (which % 2 == 1) {
                    QVariantList numbers;
                    for (const char c : chunk) {
                        numbers.append(static_cast<int>(static_cast<uint8_t>(c)));
                    }
                    played[section].sendRaw(QVariant(numbers));
                } else {
                    played[section].sendRaw(QVariant(chunk));
                }
                break;
            }
            case 4:
                g_clock->advanceMs(input.byte());
                pool->runPendingTasks();
                break;
            case 5: {
                const qint64 high = input.byte();
                g_clock->advanceMs((high << 8) | input.byte());
                pool->runPendingTasks();
                break;
            }
            case 6:
                pool->runPendingTasks();
                QCoreApplication::sendPostedEvents();
                break;
            case 7:
                operate(*surface, lines, handles, input);
                break;
        }
        for (const auto& connection : surface->connections()) {
            if (connection->state() > ISectionConnection::NoResponse) {
                violated("link state out of range", connection->state());
            }
        }
        for (const auto& model : models) {
            if (model.updateProgress() < 0 || model.updateProgress() > 100) {
                violated("update progress out of range", model.updateProgress());
            }
            if (model.linkState() < 0 || model.linkState() > SectionInfoModel::NoResponse) {
                violated("model link state out of range", model.linkState());
            }
        }
        // A command adds a handful of tasks at most: a supervision task per section (an
        // open, or a restart that a clock jump brought about), the flash tasks of the LED
        // or rotary it touched (a cancelled one stays listed until it falls due) and an
        // auto-update task per section.
        if (pool->taskCount() > initialTasks + (commands + 1) * 16) {
            violated("tasks", static_cast<long long>(pool->taskCount()));
        }
        // What reached the lines is not needed; keep memory flat on long inputs.
        for (const auto& made : *lines) {
            made.line->clearRecords();
        }
    }

    // Whatever the sections sent, their traces can be written: every record becomes one
    // line of a trace file.
    for (const auto& connection : surface->connections()) {
        const auto recorder = connection->recorder();
        if (!recorder) {
            violated("link without a recorder", connection->sectionIndex());
        }
        for (const auto& record : recorder->snapshot(connection->sectionIndex())) {
            const QByteArray line = TraceFile::recordLine(record);
            if (line.isEmpty() || line.contains('\n')) {
                violated("trace line", line.size());
            }
        }
    }

    handles = Handles{};
    QCoreApplication::sendPostedEvents();
    controller->clearDataReceivers();
    surface.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
