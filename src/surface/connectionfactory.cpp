#include "surface/connectionfactory.h"

#include "serial/iserialconnection.h"
#include "serial/iserialconnectionfactory.h"
#include "serial/sectionconnection.h"
#include "updater/sectionupdater.h"

namespace Velmora::Worksurface {

ConnectionFactory::ConnectionFactory(std::unique_ptr<ISerialConnectionFactory> serialFactory,
                                     std::shared_ptr<ITaskPool> taskPool,
                                     std::shared_ptr<Logger> logger)
    : m_serialFactory(std::move(serialFactory)),
      m_taskPool(std::move(taskPool)),
      m_logger(std::move(logger))
{}

ConnectionFactory::~ConnectionFactory() = default;

std::shared_ptr<ISectionConnection> ConnectionFactory::createConnection(
    uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
    const std::shared_ptr<ISerialMessageQueue>& queue, const std::shared_ptr<ISettings>& settings)
{
    auto updater = std::make_unique<SectionUpdater>(m_taskPool, settings, m_logger);
    auto serial = m_serialFactory->createSerialConnection(sectionIndex, settings);
    auto connection = std::make_shared<SectionConnection>(sectionIndex, rootHandler, queue, serial,
                                                          m_taskPool, std::move(updater), m_logger);
    serial->setDataReceiver(connection.get());
    connection->setReconnectSettings(settings);
    return connection;
}

}  // namespace Velmora::Worksurface
