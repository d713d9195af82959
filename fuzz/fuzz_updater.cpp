// Feeds untrusted section bytes to the firmware updater in every state of its exchange.
//
// Input layout:
//   byte 0  which state to drive the updater into first (a scripted, well-formed prefix)
//   byte 1  which firmware file the settings name (a small image, none, an empty file or a
//           directory), so the failure paths are reached too
//   rest    a sequence of commands: a length byte L, then
//             L < 0xF0: the next (L % 64) + 1 bytes are one received chunk
//             0xFD:     the pending auto-update task runs (as if its second had passed)
//             0xFE:     start again
//             0xFF:     the updater's state is checked and nothing is fed
//
// After every call the receive buffer must stay within its bound, the state must be one of
// the four the updater knows, and progress must never exceed 100. A loop that stops
// consuming would show up as a libFuzzer time-out.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>
#include <QtGlobal>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/logger.h"
#include "support/fakesettings.h"
#include "tasks/itaskpool.h"
#include "updater/bootloaderpacket.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

namespace {

// Keeps scheduled one-shot tasks weakly, as the real pool does, and runs them on demand.
class ManualTaskPool : public ITaskPool
{
public:
    void scheduleOnce(uint64_t, const std::shared_ptr<ITask>& task) override
    {
        m_once.push_back(task);
    }
    std::shared_ptr<ITaskHandle> schedulePeriodic(uint64_t, const std::shared_ptr<ITask>&) override
    {
        return nullptr;
    }
    void runDue()
    {
        std::vector<std::weak_ptr<ITask>> due;
        due.swap(m_once);
        for (const auto& weak : due) {
            if (const auto task = weak.lock()) {
                task->run();
            }
        }
    }

private:
    std::vector<std::weak_ptr<ITask>> m_once;
};

// A section that answers nothing: it only checks what the updater reports.
class SilentListener : public ISectionUpdaterListener
{
public:
    void updaterStateChanged() override {}
    void updateProgress(uint8_t percent) override
    {
        if (percent > 100) {
            __builtin_trap();
        }
    }
    void sendBootloaderPacket(const BootloaderPacket& packet) override
    {
        lastSent = packet.command;
        // Encoding must cope with whatever the updater sends.
        (void)encodeBootloaderPacket(packet);
    }
    void failed(int reason) override
    {
        if (reason < 0 || reason > 2) {
            __builtin_trap();
        }
    }

    uint8_t lastSent = BootloaderCommand::NoPacket;
};

void dropMessages(QtMsgType, const QMessageLogContext&, const QString&) {}

struct Environment
{
    QTemporaryDir dir;
    QString image;
    QString empty;
    QString directory;
    QString missing;
};

Environment* g_env = nullptr;

const QByteArray kAck = QByteArray::fromHex("cc");
const QByteArray kNak = QByteArray::fromHex("33");
const QByteArray kSuccess = QByteArray::fromHex("034040");

void check(const SectionUpdater& updater)
{
    if (updater.pendingByteCount() > SectionUpdater::kMaxPendingBytes) {
        __builtin_trap();
    }
    const int32_t state = updater.state();
    if (state != 0 && state != 1 && state != 3 && state != 4) {
        __builtin_trap();
    }
    if (updater.isActive() != (state != 4)) {
        __builtin_trap();
    }
}

// Brings the updater into one of its states with a well-formed exchange.
void drive(SectionUpdater& updater, SilentListener& listener, ManualTaskPool& pool, uint8_t which)
{
    switch (which % 9) {
        case 0:  // never started: no listener
            return;
        case 1:  // AutoBaud pending
            updater.start(&listener);
            return;
        case 2:  // Ping pending
            updater.start(&listener);
            updater.dataReceived(kAck);
            return;
        case 3:  // Download pending
            updater.start(&listener);
            updater.dataReceived(kAck + kAck);
            return;
        case 4:  // waiting for the first status reply
            updater.start(&listener);
            updater.dataReceived(kAck + kAck + kAck + kAck);
            return;
        case 5:  // first block sent, waiting for its status reply
            updater.start(&listener);
            updater.dataReceived(kAck + kAck + kAck + kAck + kSuccess + kAck + kAck);
            return;
        case 6:  // idle after NotBootLoader
            updater.start(&listener);
            updater.dataReceived(QByteArray::fromHex("aa"));
            return;
        case 7:  // failed on resends, Reset pending
            updater.start(&listener);
            updater.dataReceived(kAck + kAck + kNak + kNak + kNak + kNak + kNak + kNak);
            return;
        default:  // Reset acknowledged, auto-update pending; then AutoBaud sent again
            updater.start(&listener);
            updater.dataReceived(kAck + kAck + kNak + kNak + kNak + kNak + kNak + kNak + kAck);
            pool.runDue();
            return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qInstallMessageHandler(&dropMessages);
    g_env = new Environment;
    if (!g_env->dir.isValid()) {
        __builtin_trap();
    }
    g_env->image = g_env->dir.filePath(QStringLiteral("image.bin"));
    g_env->empty = g_env->dir.filePath(QStringLiteral("empty.bin"));
    g_env->directory = g_env->dir.filePath(QStringLiteral("folder.bin"));
    g_env->missing = g_env->dir.filePath(QStringLiteral("missing.bin"));
    QFile image(g_env->image);
    QFile empty(g_env->empty);
    if (!image.open(QIODevice::WriteOnly) || !empty.open(QIODevice::WriteOnly) ||
        !QDir().mkpath(g_env->directory)) {
        __builtin_trap();
    }
    QByteArray bytes(300, '\0');
    for (int i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 13 + 1);
    }
    image.write(bytes);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    auto settings = std::make_shared<FakeSettings>();
    switch (data[1] % 4) {
        case 0:
            settings->setFirmwarePath(g_env->image);
            break;
        case 1:
            settings->setFirmwarePath(g_env->missing);
            break;
        case 2:
            settings->setFirmwarePath(g_env->empty);
            break;
        default:
            settings->setFirmwarePath(g_env->directory);
            break;
    }
    settings->setDebugEnabled((data[1] & 0x80) != 0);
    auto pool = std::make_shared<ManualTaskPool>();
    auto logger = std::make_shared<Logger>(settings);
    SilentListener listener;
    SectionUpdater updater(pool, settings, logger);

    drive(updater, listener, *pool, data[0]);
    check(updater);

    size_t pos = 2;
    while (pos < size) {
        const uint8_t command = data[pos++];
        if (command == 0xFD) {
            pool->runDue();
        } else if (command == 0xFE) {
            updater.start(&listener);
        } else if (command == 0xFF) {
            // check only
        } else {
            const size_t length = (command % 64) + 1;
            const size_t take = length < size - pos ? length : size - pos;
            updater.dataReceived(
                QByteArray(reinterpret_cast<const char*>(data + pos), static_cast<int>(take)));
            pos += take;
        }
        check(updater);
    }
    return 0;
}
