#include "framedecoder.h"

#include <utility>

using Velmora::Worksurface::SerialMessage;

FrameDecoder::FrameDecoder(Sink sink) : m_sink(std::move(sink)) {}

void FrameDecoder::feed(const QByteArray& data)
{
    if (data.isEmpty()) {
        return;
    }
    m_window = pending() + data;
    m_windowOffset = m_total - (m_window.size() - data.size());
    m_total += data.size();
    m_frames.clear();
    parse(data);

    // Everything before what the parser still holds was used up, either in a frame or as
    // discarded bytes: the gaps between the frames are the noise, in place.
    const int consumed = m_window.size() - pendingSize();
    int pos = 0;
    std::vector<Event> events;
    for (Event& frame : m_frames) {
        const int start = static_cast<int>(frame.offset - m_windowOffset);
        if (start > pos) {
            events.push_back(Event{m_windowOffset + pos, m_window.mid(pos, start - pos), true, {}});
        }
        pos = start + frame.bytes.size();
        events.push_back(std::move(frame));
    }
    if (consumed > pos) {
        events.push_back(Event{m_windowOffset + pos, m_window.mid(pos, consumed - pos), true, {}});
    }
    m_frames.clear();
    m_window.clear();
    for (const Event& event : events) {
        m_sink(event);
    }
}

void FrameDecoder::finish()
{
    const QByteArray rest = pending();
    clear();
    if (!rest.isEmpty()) {
        m_sink(Event{m_total - rest.size(), rest, true, {}});
    }
}

void FrameDecoder::messageReceived(const SerialMessage& message)
{
    // A frame is its length byte, type, device id, payload and checksum; the parser has
    // just consumed it, so it ends where the pending bytes begin.
    const int size = static_cast<int>(message.payload.size()) + 4;
    const int end = m_window.size() - pendingSize();
    const int start = end - size;
    m_frames.push_back(Event{m_windowOffset + start, m_window.mid(start, size), false, message});
}

void FrameDecoder::badDataReceived(const QByteArray& data)
{
    // Placed by feed() from the gaps between frames.
    Q_UNUSED(data);
}
