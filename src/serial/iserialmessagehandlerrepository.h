#pragma once

#include <memory>

namespace Velmora::Worksurface {

class ISerialMessageHandler;

class ISerialMessageHandlerRepository
{
public:
    virtual ~ISerialMessageHandlerRepository() = default;
    // Appends the handler unless that same object is already registered.
    virtual void addHandler(const std::shared_ptr<ISerialMessageHandler>& handler) = 0;
};

}  // namespace Velmora::Worksurface
