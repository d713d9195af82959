#include "support/bindingtestrig.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QEvent>

#include "base/settings.h"
#include "software/qmlcontrollerconnection.h"
#include "support/deferreddeletes.h"

using namespace Velmora::Worksurface;

namespace {

// Far enough from zero that the links' own start-up timing is not special.
constexpr qint64 kOriginNs = 1000LL * 1000000LL;

}  // namespace

BindingTestRig::DeferredDeleteFlusher::~DeferredDeleteFlusher()
{
    flushDeferredDeletes();
}

BindingTestRig::BindingTestRig(uint8_t mode, bool install)
    : clock(kOriginNs), fixture(clock, mode), connection(fixture.sharedController(), nullptr)
{
    fixture.sectionSide().setReaction([this](uint8_t section, const SerialMessage& message) {
        if (message.type != MessageType::Ping) {
            m_frames.push_back(Frame{clock.nowMs(), section, message});
        }
    });
    fixture.start();
    // The pot asks its section for its position every second until the section answers;
    // answer at once (position 0) so that the requests do not mix with the bindings'
    // frames. A test moves the pot with another report of its own.
    // (The section sends its value in a variable-length frame.)
    fixture.controller().sendToPlugin(fixture.settings().masterSectionIndex(),
                                      SerialMessage(MessageType::PotValue, 0, {0, 0}, true));
    // Unbound faders park themselves at the bottom shortly after start-up.
    fixture.runForMs(300);
    if (install) {
        installSurface();
    }
    // Whatever the links sent on their own while starting is not the bindings' doing.
    m_frames.clear();
}

BindingTestRig::~BindingTestRig()
{
    fixture.sectionSide().setReaction({});
}

void BindingTestRig::installSurface()
{
    fixture.installInto(connection);
}

QStringList BindingTestRig::takeFrames()
{
    fixture.drain();
    return takeFramesSoFar();
}

QStringList BindingTestRig::takeFramesSoFar()
{
    QStringList lines;
    for (const Frame& one : m_frames) {
        lines << describe(one.section, one.message);
    }
    m_frames.clear();
    return lines;
}

QStringList BindingTestRig::takeReleaseFrames(qint64 releasedAtMs)
{
    fixture.runForMs(150);
    QStringList lines;
    for (const Frame& one : m_frames) {
        const qint64 afterMs = one.atMs - releasedAtMs;
        const bool inWindow = afterMs >= 100 && afterMs < 150;
        lines << describe(one.section, one.message) +
                     (inWindow ? QStringLiteral(" in the release window")
                               : QStringLiteral(" at +%1 ms").arg(afterMs));
    }
    m_frames.clear();
    return lines;
}

QString BindingTestRig::frame(uint8_t section, uint8_t type, uint8_t deviceId,
                              const char* payloadHex)
{
    const QByteArray bytes = QByteArray::fromHex(payloadHex);
    return describe(
        section, SerialMessage(type, deviceId, std::vector<uint8_t>(bytes.cbegin(), bytes.cend())));
}

QString BindingTestRig::describe(uint8_t section, const SerialMessage& message)
{
    const QByteArray payload(reinterpret_cast<const char*>(message.payload.data()),
                             static_cast<int>(message.payload.size()));
    return QStringLiteral("section %1 type %2 device %3 payload %4")
        .arg(section)
        .arg(message.type)
        .arg(message.deviceId)
        .arg(QString::fromLatin1(payload.toHex()));
}
