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
    // Bytes received but not yet consumed. Inside messageReceived() this already excludes
    // the frame being delivered and every byte before it.
    int pendingSize() const;
    // A copy of the bytes received but not yet consumed.
    QByteArray pending() const;

protected:
    // What the parser made of received bytes, for a flight recorder.
    enum class Verdict
    {
        Frame,        // a frame, just before messageReceived() gets it
        BadChecksum,  // what looked like a frame but failed its checksum; its bytes are
                      // then skipped byte by byte and also reported as Noise
        Noise,        // one run of skipped bytes, in stream order among the frames
    };
    // Called for each verdict in stream order with the bytes it concerns; must not feed or
    // clear the parser. Does nothing unless an owner records.
    virtual void bytesJudged(Verdict verdict, const char* bytes, int size)
    {
        Q_UNUSED(verdict);
        Q_UNUSED(bytes);
        Q_UNUSED(size);
    }

    virtual void messageReceived(const SerialMessage& message) = 0;
    // At most once per parse() call, with every byte discarded in that call.
    virtual void badDataReceived(const QByteArray& data) = 0;

private:
    // Received bytes; the first m_consumed of them are already used up. Consumed bytes are
    // cut off once per parse() call, never one at a time, so that resynchronising through
    // a flood of noise stays linear in its size.
    QByteArray m_pending;
    int m_consumed = 0;
};

}  // namespace Velmora::Worksurface
