#include "support/ptysectionlink.h"

#include <algorithm>
#include <utility>

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
      controlHandler(std::make_shared<FakeSerialMessageHandler>(QStringLiteral("controls"))),
      serial(std::make_shared<HardwareSerialConnection>(sectionIndex, portName))
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

    auto sectionUpdater = std::make_unique<SectionUpdater>(pool, settings, logger);
    sectionUpdater->setSectionIndex(sectionIndex);
    updater = sectionUpdater.get();
    section = std::make_shared<FailureRecordingSectionConnection>(
        sectionIndex, root, queue, serial, pool, std::move(sectionUpdater), logger);
    section->setStateListener(&listener);
    serial->setDataReceiver(section.get());
}

PtySectionLink::~PtySectionLink()
{
    // The port must not deliver into a section connection on its way out.
    serial->setDataReceiver(nullptr);
    serial->close();
}
