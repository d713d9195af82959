#include "support/ptysectionlink.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <algorithm>
#include <utility>

#include "serial/linkthreadconnection.h"
#include "software/qmlcontrollerconnection.h"
#include "support/linkplacement.h"

using namespace Velmora::Worksurface;

PtySectionLink::PtySectionLink(uint8_t sectionIndex, const QString& portName,
                               std::shared_ptr<ISettings> settings_,
                               std::shared_ptr<TaskPool> pool_)
    : sectionIndex(sectionIndex),
      settings(std::move(settings_)),
      logger(std::make_shared<Logger>(settings)),
      pool(std::move(pool_)),
      root(std::make_shared<RootSerialMessageHandler>()),
      queue(std::make_shared<SerialMessageQueue>()),
      versionHandler(std::make_shared<FakeSerialMessageHandler>(QStringLiteral("version"))),
      controlHandler(std::make_shared<FakeSerialMessageHandler>(QStringLiteral("controls")))
{
    versionHandler->setRule([](const SerialMessage& message) {
        return message.type == MessageType::Ping && message.deviceId == 0;
    });
    controlHandler->setRule([this](const SerialMessage& message) {
        return std::find(controlDeviceIds.begin(), controlDeviceIds.end(), message.deviceId) !=
               controlDeviceIds.end();
    });
    root->addHandler(versionHandler);
    root->addHandler(controlHandler);

    // Made where it runs, as the connection factory makes a link.
    const auto makeLink = [this, sectionIndex,
                           portName](const std::shared_ptr<ISerialMessageHandler>& handler) {
        serial = std::make_shared<HardwareSerialConnection>(sectionIndex, portName);
        auto sectionUpdater = std::make_unique<SectionUpdater>(pool, settings, logger);
        sectionUpdater->setSectionIndex(sectionIndex);
        updater = sectionUpdater.get();
        section = std::make_shared<FailureRecordingSectionConnection>(
            sectionIndex, handler, queue, serial, pool, std::move(sectionUpdater), logger);
        serial->setDataReceiver(section.get());
        return std::static_pointer_cast<SectionConnection>(section);
    };

    if (!linkThreadRequested()) {
        makeLink(root);
        section->setStateListener(&listener);
        face = section;
        return;
    }

    // As the service builds a surface with its links on the surface thread: the thread
    // started, the build's pool made there, the link made there through the runtime, the
    // build ended. This link has no software line; the build's controller stand-in serves
    // nobody.
    const bool callerPoolRuns = pool && pool->isRunning();
    runtime = std::make_unique<LinkRuntime>(logger);
    runtime->start();
    // Driven by hand when the caller's pool is.
    runtime->beginBuild(
        true, std::make_shared<QmlControllerConnection>(),
        callerPoolRuns ? LinkRuntime::BuildPool::RunsItself : LinkRuntime::BuildPool::DrivenByHand);
    pool = runtime->buildPool();
    face = runtime->makeLink(sectionIndex, root, makeLink);
    runtime->endBuild(true);
    face->setStateListener(&listener);
}

PtySectionLink::~PtySectionLink()
{
    const auto closePort = [this]() {
        // The port must not deliver into a section connection on its way out.
        serial->setDataReceiver(nullptr);
        serial->close();
    };
    if (!runtime) {
        closePort();
        return;
    }
    // On the link's thread, as the service lets its links go: the port closed, this object's
    // shares let go there, then the stop closes and releases the link (its pool last), and
    // the thread ends before the face and the runtime go.
    runtime->runOnLinkThread([this, closePort]() {
        closePort();
        updater = nullptr;
        section.reset();
        serial.reset();
        pool.reset();
    });
    runtime->stop(true);
    face.reset();
    runtime.reset();
}

void PtySectionLink::open()
{
    face->open();
    if (runtime) {
        onLinkThread([]() {});
    }
}

void PtySectionLink::runPendingTasks()
{
    onLinkThread([this]() { pool->runPendingTasks(); });
}

bool PtySectionLink::hasPendingAutoUpdate()
{
    return onLinkThread([this]() { return updater->hasPendingAutoUpdate(); });
}

uint8_t PtySectionLink::lastPacketCommand()
{
    return onLinkThread([this]() { return updater->lastPacket().command; });
}

bool PtySectionLink::isUpdating()
{
    return onLinkThread([this]() { return updater->isActive(); });
}

bool PtySectionLink::linkWhereTheModeSays() const
{
    return linksWhereTheModeSays({face}, runtime ? &runtime->thread() : nullptr);
}

bool PtySectionLink::waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    // How often `done` is looked at: it may ask the link's thread, which then stops for it.
    constexpr int kLookEveryMs = 5;
    QElapsedTimer elapsed;
    elapsed.start();
    bool look = true;
    QTimer lookAgain;
    QObject::connect(&lookAgain, &QTimer::timeout, [&look]() { look = true; });
    lookAgain.start(kLookEveryMs);
    for (;;) {
        if (look) {
            if (done()) {
                return true;
            }
            if (elapsed.hasExpired(timeoutMs)) {
                return false;
            }
            look = false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

void PtySectionLink::takeWhatTheLinkTold()
{
    // The link's reports wait in this thread's queue once the link's thread has run past
    // them; delivered directly, as they would be told at once with the link here.
    QCoreApplication::sendPostedEvents();
}
