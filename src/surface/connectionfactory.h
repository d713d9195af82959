#pragma once

#include <memory>

#include "surface/iconnectionfactory.h"

namespace Velmora::Worksurface {

class ISerialConnectionFactory;
class ITaskPool;
class Logger;

class LinkRuntime;
class SectionConnection;

// Wires one section's link: the serial connection of the configured kind, the firmware
// updater, and the supervising section connection that receives the line's bytes.
//
// Given the link runtime, it has each link made on the links' own thread instead and hands
// out its QML-thread face (LinkThreadConnection); the task pool is then the links' pool,
// running on that thread.
class ConnectionFactory : public IConnectionFactory
{
public:
    ConnectionFactory(std::unique_ptr<ISerialConnectionFactory> serialFactory,
                      std::shared_ptr<ITaskPool> taskPool, std::shared_ptr<Logger> logger,
                      LinkRuntime* linkRuntime = nullptr);
    ~ConnectionFactory() override;

    std::shared_ptr<ISectionConnection> createConnection(
        uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
        const std::shared_ptr<ISerialMessageQueue>& queue,
        const std::shared_ptr<ISettings>& settings) override;

private:
    std::shared_ptr<SectionConnection> createLink(
        uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
        const std::shared_ptr<ISerialMessageQueue>& queue,
        const std::shared_ptr<ISettings>& settings);

    std::unique_ptr<ISerialConnectionFactory> m_serialFactory;
    std::shared_ptr<ITaskPool> m_taskPool;
    std::shared_ptr<Logger> m_logger;
    LinkRuntime* const m_linkRuntime;
};

}  // namespace Velmora::Worksurface
