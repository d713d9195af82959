// Plays an arbitrary section against one section link: received bytes in chunks of any
// size, task passes at times moved on by amounts from the input, updater state changes,
// calibration, queue traffic, closes and reopens, a line that vanishes or refuses to open,
// and changes of the reconnect interval, so that the link's own reconnection attempts
// interleave with all of that. The link must never crash or hang, its parser must never
// hold more than one partial frame, what it keeps (tasks, queue entries) must stay bounded
// by what the input asked for, and it must make at most one reconnection attempt per tick.
// Its flight recorder records all along, in a ring small enough to wrap: what it gives back
// stays within its capacity and in time order, and a trace is asked for once per outage.
//
// Input: a sequence of commands. Each command is one byte whose low three bits select it,
// followed by its arguments:
//   0..3  a chunk of 1..32 received bytes (length from the next byte)
//   4     advance the clock by a 16-bit number of milliseconds, then tick the pool
//   5     advance the clock by 0..255 ms, then tick the pool
//   6     set the updater's flags from the next byte and let it report its state
//   7     a control operation chosen by the next byte (enqueue, calibration, close, open,
//         progress, a line that refuses to open; with bit 3 set, stopping calibration
//         becomes a new reconnect interval of 10 times the next byte in ms, 255 meaning -1,
//         and closing becomes the line vanishing under the link)
// The component on the section's root handler takes messages for even device ids.

#include <QByteArray>
#include <QCoreApplication>
#include <QString>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/logger.h"
#include "serial/isectionconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessage.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesettings.h"
#include "support/manualclock.h"
#include "support/recordingstatelistener.h"
#include "tasks/taskpool.h"

using namespace Velmora::Worksurface;

namespace {

// One partial frame at most: a frame is at most 26 bytes, and one that long is never waited
// for.
constexpr int kMaxPending = 25;

ManualClock* g_clock = nullptr;

[[noreturn]] void violated(const char* what, long long value)
{
    std::fprintf(stderr, "section link invariant violated: %s (%lld)\n", what, value);
    std::abort();
}

// The link logs every bad byte and unknown message; thousands of lines per second would
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

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    // The task pool's timer needs an application object; nothing here runs its event loop.
    static int argc = 1;
    static char name[] = "fuzz_sectionconnection";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    qInstallMessageHandler(&discardLog);
    static ManualClock clock(kStartNs);
    g_clock = &clock;
    return 0;
}

namespace {
constexpr int kTraceCapacity = 64;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    g_clock->setNs(kStartNs);

    auto settings = std::make_shared<FakeSettings>();
    settings->setDebugEnabled(false);
    auto logger = std::make_shared<Logger>(settings);
    auto root = std::make_shared<RootSerialMessageHandler>();
    auto component = std::make_shared<FakeSerialMessageHandler>();
    component->setRule([](const SerialMessage& message) { return message.deviceId % 2 == 0; });
    root->addHandler(component);
    auto queue = std::make_shared<SerialMessageQueue>();
    auto line = std::make_shared<FakeSerialConnection>();
    auto pool = std::make_shared<TaskPool>();
    auto fakeUpdater = std::make_unique<FakeSectionUpdater>();
    FakeSectionUpdater* updater = fakeUpdater.get();
    RecordingStateListener listener;
    // Recording on, with a small ring so that long inputs wrap it many times.
    auto link = std::make_shared<SectionConnection>(3, root, queue, line, pool,
                                                    std::move(fakeUpdater), logger, kTraceCapacity);
    int traceRequests = 0;
    link->setTraceHandler([&traceRequests]() { ++traceRequests; });
    line->setDataReceiver(link.get());
    link->setStateListener(&listener);
    link->setReconnectSettings(settings);
    link->open();

    std::size_t commands = 0;
    std::size_t ticks = 0;
    Input input(data, size);
    while (!input.atEnd()) {
        ++commands;
        const uint8_t command = input.byte();
        switch (command & 0x07) {
            case 0:
            case 1:
            case 2:
            case 3:
                link->dataReceived(input.bytes(1 + (input.byte() & 0x1F)));
                if (link->pendingSize() > kMaxPending) {
                    violated("bytes pending in the parser", link->pendingSize());
                }
                break;
            case 4: {
                const qint64 high = input.byte();
                const qint64 ms = (high << 8) | input.byte();
                g_clock->advanceMs(ms);
                pool->runPendingTasks();
                ++ticks;
                break;
            }
            case 5:
                g_clock->advanceMs(input.byte());
                pool->runPendingTasks();
                ++ticks;
                break;
            case 6: {
                const uint8_t flags = input.byte();
                updater->setActive(flags & 0x01);
                updater->setUpdating(flags & 0x02);
                link->updaterStateChanged();
                break;
            }
            case 7: {
                const uint8_t operation = input.byte();
                switch (operation & 0x07) {
                    case 0: {
                        const uint8_t type = input.byte() % MessageType::NoMessage;
                        const uint8_t deviceId = input.byte();
                        link->enqueueMessage(
                            SerialMessage(type, deviceId, {input.byte(), input.byte()}));
                        break;
                    }
                    case 1:
                        link->startCalibration();
                        break;
                    case 2:
                        if (operation & 0x08) {
                            const uint8_t tenths = input.byte();
                            settings->setReconnectInterval(tenths == 255 ? -1 : tenths * 10);
                        } else {
                            link->stopCalibration();
                        }
                        break;
                    case 3:
                        if (operation & 0x08) {
                            // The device went away: the line closes by itself.
                            line->setOpen(false);
                        } else {
                            link->close();
                        }
                        break;
                    case 4:
                        link->open();
                        break;
                    case 5:
                        link->updateProgress(input.byte());
                        break;
                    case 6:
                        // The port may vanish: the next open (or restart) fails.
                        line->setOpenResult((operation & 0x08) == 0);
                        break;
                    case 7: {
                        const uint8_t deviceId = input.byte();
                        const uint8_t level = input.byte();
                        queue->sendLed(deviceId, level, 0, input.byte());
                        break;
                    }
                }
                break;
            }
        }
        if (link->state() > ISectionConnection::NoResponse) {
            violated("state out of range", link->state());
        }
        // One supervision task per open that got through, and one open per command at most
        // (a restart is an open too, and takes at least one command to bring about).
        if (pool->taskCount() > commands + 1) {
            violated("supervision tasks", static_cast<long long>(pool->taskCount()));
        }
        // Reconnection reopens from within a pass and never twice in one tick.
        if (link->reconnectAttempts() > ticks) {
            violated("reconnection attempts", static_cast<long long>(link->reconnectAttempts()));
        }
        // Coalescing: one entry per (type, device id) at most.
        if (queue->size() > std::size_t{MessageType::NoMessage} * 256) {
            violated("queue entries", static_cast<long long>(queue->size()));
        }
    }

    // The ring gives back at most its capacity, in time order, every entry whole.
    const auto records = link->recorder()->snapshot(3);
    if (records.size() > std::size_t{kTraceCapacity}) {
        violated("trace entries", static_cast<long long>(records.size()));
    }
    for (std::size_t i = 1; i < records.size(); ++i) {
        if (records[i].tUs < records[i - 1].tUs) {
            violated("trace out of time order", static_cast<long long>(i));
        }
    }
    // A trace is asked for once per outage at most: an outage takes at least one command.
    if (static_cast<std::size_t>(traceRequests) > commands + 1) {
        violated("trace requests", traceRequests);
    }

    line->setDataReceiver(nullptr);
    return 0;
}
