#pragma once

#include <cstdint>
#include <memory>

namespace Velmora::Worksurface {

class ISerialConnection;
class ISettings;

class ISerialConnectionFactory
{
public:
    virtual ~ISerialConnectionFactory() = default;
    virtual std::shared_ptr<ISerialConnection> createSerialConnection(
        uint8_t sectionIndex, const std::shared_ptr<ISettings>& settings) = 0;
};

}  // namespace Velmora::Worksurface
