#pragma once

#include <QByteArray>
#include <QtGlobal>
#include <functional>
#include <vector>

#include "serial/serialmessageparser.h"

// Splits a section's byte stream into frames and noise with the link's own parser, and
// tells where in the stream each lies: frames with their exact bytes, and the bytes the
// parser discarded as one noise run per gap between frames. Events come in stream order.
class FrameDecoder : public Velmora::Worksurface::SerialMessageParser
{
public:
    struct Event
    {
        qint64 offset = 0;  // of the first byte, counted from the start of the stream
        QByteArray bytes;   // the frame's or the noise's bytes as received
        bool noise = false;
        Velmora::Worksurface::SerialMessage message;  // for a frame
    };
    using Sink = std::function<void(const Event&)>;

    explicit FrameDecoder(Sink sink);

    void feed(const QByteArray& data);
    // End of the stream: bytes still waiting for the rest of a frame are reported as noise.
    void finish();
    // Bytes fed so far.
    qint64 totalBytes() const { return m_total; }

protected:
    void messageReceived(const Velmora::Worksurface::SerialMessage& message) override;
    void badDataReceived(const QByteArray& data) override;

private:
    Sink m_sink;
    qint64 m_total = 0;
    // The bytes one feed() works on: what was pending before it, then its data.
    QByteArray m_window;
    qint64 m_windowOffset = 0;
    std::vector<Event> m_frames;
};
