#include "surface/connectionfactory.h"

#include "base/isettings.h"
#include "base/logcategories.h"
#include "base/logger.h"
#include "serial/iserialconnection.h"
#include "serial/iserialconnectionfactory.h"
#include "serial/linkruntime.h"
#include "serial/sectionconnection.h"
#include "surface/tracefile.h"
#include "updater/sectionupdater.h"

namespace Velmora::Worksurface {

ConnectionFactory::ConnectionFactory(std::unique_ptr<ISerialConnectionFactory> serialFactory,
                                     std::shared_ptr<ITaskPool> taskPool,
                                     std::shared_ptr<Logger> logger, LinkRuntime* linkRuntime)
    : m_serialFactory(std::move(serialFactory)),
      m_taskPool(std::move(taskPool)),
      m_logger(std::move(logger)),
      m_linkRuntime(linkRuntime)
{}

ConnectionFactory::~ConnectionFactory() = default;

std::shared_ptr<ISectionConnection> ConnectionFactory::createConnection(
    uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
    const std::shared_ptr<ISerialMessageQueue>& queue, const std::shared_ptr<ISettings>& settings)
{
    if (m_linkRuntime == nullptr) {
        return createLink(sectionIndex, rootHandler, queue, settings);
    }
    return m_linkRuntime->makeLink(
        sectionIndex, rootHandler,
        [&](const std::shared_ptr<ISerialMessageHandler>& handlerOnLinkThread) {
            return createLink(sectionIndex, handlerOnLinkThread, queue, settings);
        });
}

std::shared_ptr<SectionConnection> ConnectionFactory::createLink(
    uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
    const std::shared_ptr<ISerialMessageQueue>& queue, const std::shared_ptr<ISettings>& settings)
{
    auto updater = std::make_unique<SectionUpdater>(m_taskPool, settings, m_logger);
    updater->setSectionIndex(sectionIndex);
    auto serial = m_serialFactory->createSerialConnection(sectionIndex, settings);
    // The recorder's ring is sized once, here, when connect() builds the surface.
    auto connection = std::make_shared<SectionConnection>(
        sectionIndex, rootHandler, queue, serial, m_taskPool, std::move(updater), m_logger,
        settings ? settings->traceCapacity() : FlightRecorder::kDefaultCapacity);
    serial->setDataReceiver(connection.get());
    connection->setReconnectSettings(settings);
    const QString traceDirectory = settings ? TraceFile::automaticDirectory(*settings) : QString();
    if (!traceDirectory.isEmpty() && m_logger) {
        // A failing link saves its own ring. The link holds this handler, so it holds its
        // link only weakly.
        const std::weak_ptr<SectionConnection> link = connection;
        const std::shared_ptr<const ISettings> readSettings = settings;
        // The trace's log lines are the link's.
        const std::shared_ptr<Logger> logger = m_logger->inCategory(lcLink());
        connection->setTraceHandler([link, readSettings, logger, traceDirectory]() {
            if (const auto self = link.lock()) {
                TraceFile::saveAutomatic(traceDirectory, *readSettings, self, logger);
            }
        });
    }
    return connection;
}

}  // namespace Velmora::Worksurface
