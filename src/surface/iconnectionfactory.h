#pragma once

#include <cstdint>
#include <memory>

namespace Velmora::Worksurface {

class ISectionConnection;
class ISerialMessageHandler;
class ISerialMessageQueue;
class ISettings;

// Assembles one section's link: serial connection, firmware updater and supervisor.
class IConnectionFactory
{
public:
    virtual ~IConnectionFactory() = default;
    virtual std::shared_ptr<ISectionConnection> createConnection(
        uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
        const std::shared_ptr<ISerialMessageQueue>& queue,
        const std::shared_ptr<ISettings>& settings) = 0;
};

}  // namespace Velmora::Worksurface
