#pragma once

#include <QByteArray>

namespace Velmora::Worksurface {

// A consumer of raw bytes from a serial connection.
class ISerialDataReceiver
{
public:
    virtual ~ISerialDataReceiver() = default;
    virtual void dataReceived(const QByteArray& data) = 0;
};

}  // namespace Velmora::Worksurface
