#pragma once

#include <QByteArray>

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

// Splits a section's byte stream into checksum-verified frames. There is no start marker,
// so after bad data the parser resynchronises byte by byte; every discarded byte is
// reported once. Owners (the section connection, the software link) decide what a bad
// byte means.
class SerialMessageParser
{
public:
    virtual ~SerialMessageParser() = default;

    // Appends the chunk and delivers every complete frame, in stream order.
    void parse(const QByteArray& data);
    // Forgets pending bytes (the link was restarted).
    void clear();
    // Bytes received but not yet consumed.
    int pendingSize() const;

protected:
    virtual void messageReceived(const SerialMessage& message) = 0;
    // At most once per parse() call, with every byte discarded in that call.
    virtual void badDataReceived(const QByteArray& data) = 0;
};

}  // namespace Velmora::Worksurface
