#include "serial/serialmessageparser.h"

namespace Velmora::Worksurface {

namespace {

constexpr int kMinimumFrameSize = 4;
constexpr int kMaximumFrameSize = 26;

}  // namespace

void SerialMessageParser::parse(const QByteArray& data)
{
    m_pending.append(data);

    QByteArray bad;
    // Bad bytes are always dropped from the front of what is left, so between two frames
    // they form one contiguous run: it is copied out in one go when a frame is found or
    // the loop ends.
    int badRunStart = -1;
    auto closeBadRun = [&]() {
        if (badRunStart >= 0) {
            bad.append(m_pending.constData() + badRunStart, m_consumed - badRunStart);
            bytesJudged(Verdict::Noise, m_pending.constData() + badRunStart,
                        m_consumed - badRunStart);
            badRunStart = -1;
        }
    };

    while (m_pending.size() - m_consumed >= kMinimumFrameSize) {
        const int available = m_pending.size() - m_consumed;
        const auto* frame = reinterpret_cast<const uint8_t*>(m_pending.constData()) + m_consumed;
        const int size = frame[0] + 1;

        // A partial frame is waited for, except the largest one: a frame that announces 26
        // bytes is only taken when it has arrived whole (no message type comes near that
        // size, so a length byte of 25 is far more likely noise than a frame in flight).
        if (size > available && size < kMaximumFrameSize) {
            break;
        }

        bool accepted = false;
        if (size >= kMinimumFrameSize && size <= kMaximumFrameSize && size <= available &&
            frame[1] < MessageType::NoMessage) {
            unsigned int sum = 0;
            for (int i = 0; i < size - 1; ++i) {
                sum += frame[i];
            }
            accepted = static_cast<uint8_t>(sum) == frame[size - 1];
        }

        if (!accepted) {
            // Resynchronise on the very next byte: a valid frame may start inside this one.
            if (badRunStart < 0) {
                badRunStart = m_consumed;
                if (size >= kMinimumFrameSize && size <= kMaximumFrameSize && size <= available &&
                    frame[1] < MessageType::NoMessage) {
                    // Only the checksum failed: most likely a frame mangled on the line.
                    bytesJudged(Verdict::BadChecksum, reinterpret_cast<const char*>(frame), size);
                }
            }
            ++m_consumed;
            continue;
        }

        const uint8_t type = frame[1];
        SerialMessage message(type, frame[2], std::vector<uint8_t>(frame + 3, frame + size - 1),
                              type == MessageType::Echo);
        closeBadRun();
        bytesJudged(Verdict::Frame, reinterpret_cast<const char*>(frame), size);
        m_consumed += size;
        // The owner may clear the parser or feed it more data from inside the callback;
        // everything the loop needs is read again from the members afterwards.
        messageReceived(message);
    }
    closeBadRun();

    if (m_consumed > 0) {
        m_pending.remove(0, m_consumed);
        m_consumed = 0;
    }

    if (!bad.isEmpty()) {
        badDataReceived(bad);
    }
}

void SerialMessageParser::clear()
{
    m_pending.clear();
    m_consumed = 0;
}

int SerialMessageParser::pendingSize() const
{
    return m_pending.size() - m_consumed;
}

QByteArray SerialMessageParser::pending() const
{
    return m_pending.mid(m_consumed);
}

}  // namespace Velmora::Worksurface
