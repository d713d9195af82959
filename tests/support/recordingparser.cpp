#include "support/recordingparser.h"

#include "support/serialframes.h"

using namespace Velmora::Worksurface;
using Velmora::Worksurface::MessageType::Echo;

void RecordingParser::feed(const QByteArray& chunk)
{
    m_input.append(chunk);
    m_expectedBad.clear();
    m_reportedBad.clear();
    m_badReportsThisCall = 0;
    m_inParse = true;
    parse(chunk);
    m_inParse = false;

    const int end = m_input.size() - pendingSize();
    if (end < m_accounted) {
        fail(QStringLiteral("call %1: pending bytes overlap a delivered frame").arg(m_calls));
    } else {
        m_expectedBad.append(m_input.mid(m_accounted, end - m_accounted));
        m_accounted = end;
    }
    if (m_reportedBad != m_expectedBad) {
        fail(QStringLiteral("call %1: bad data reported %2, dropped %3")
                 .arg(m_calls)
                 .arg(QString::fromLatin1(m_reportedBad.toHex()))
                 .arg(QString::fromLatin1(m_expectedBad.toHex())));
    }
    if (m_badReportsThisCall > 1) {
        fail(QStringLiteral("call %1: %2 bad-data reports").arg(m_calls).arg(m_badReportsThisCall));
    }
    if (pending() != m_input.mid(m_accounted)) {
        fail(QStringLiteral("call %1: pending bytes are not the end of the input").arg(m_calls));
    }
    if (pendingSize() > kMaximumPending) {
        fail(QStringLiteral("call %1: %2 bytes pending").arg(m_calls).arg(pendingSize()));
    }
    ++m_calls;
}

void RecordingParser::restart()
{
    clear();
    m_accounted = m_input.size();
}

std::vector<SerialMessage> RecordingParser::messages() const
{
    std::vector<SerialMessage> result;
    for (const Event& event : m_events) {
        if (event.kind == Event::Message) {
            result.push_back(event.message);
        }
    }
    return result;
}

QByteArray RecordingParser::deliveredFrames() const
{
    QByteArray result;
    for (const Event& event : m_events) {
        if (event.kind == Event::Message) {
            result.append(SerialFrames::wireBytes(event.message));
        }
    }
    return result;
}

QByteArray RecordingParser::badData() const
{
    QByteArray result;
    for (const Event& event : m_events) {
        if (event.kind == Event::BadData) {
            result.append(event.data);
        }
    }
    return result;
}

QList<QByteArray> RecordingParser::badDataReports() const
{
    QList<QByteArray> result;
    for (const Event& event : m_events) {
        if (event.kind == Event::BadData) {
            result.append(event.data);
        }
    }
    return result;
}

void RecordingParser::messageReceived(const SerialMessage& message)
{
    m_events.push_back(Event{Event::Message, message, QByteArray(), m_calls});
    if (!m_inParse) {
        fail(QStringLiteral("message outside parse()"));
        return;
    }
    if (m_badReportsThisCall > 0) {
        fail(QStringLiteral("call %1: message after the bad-data report").arg(m_calls));
    }
    if (!message.isValid() || message.zeroFill || message.payload.size() > 22 ||
        message.variableLength != (message.type == Echo)) {
        fail(
            QStringLiteral("call %1: malformed message of type %2").arg(m_calls).arg(message.type));
        return;
    }

    // The frame ends where the pending bytes begin.
    const QByteArray frame = SerialFrames::wireBytes(message);
    const int end = m_input.size() - pendingSize();
    const int start = end - frame.size();
    if (start < m_accounted) {
        fail(QStringLiteral("call %1: frame overlaps bytes already accounted for").arg(m_calls));
        return;
    }
    if (m_input.mid(start, frame.size()) != frame) {
        fail(QStringLiteral("call %1: message %2 does not re-encode to its bytes %3")
                 .arg(m_calls)
                 .arg(QString::fromLatin1(frame.toHex()))
                 .arg(QString::fromLatin1(m_input.mid(start, frame.size()).toHex())));
        return;
    }
    // Where the frame has the type's usual length, the plugin's own encoder must give
    // the same bytes back.
    if ((message.type == Echo || message.payload.size() + 3 == MessageBaseLength(message.type)) &&
        encode(message) != frame) {
        fail(QStringLiteral("call %1: encode() differs from the received frame %2")
                 .arg(m_calls)
                 .arg(QString::fromLatin1(frame.toHex())));
    }
    m_expectedBad.append(m_input.mid(m_accounted, start - m_accounted));
    m_accounted = end;
}

void RecordingParser::badDataReceived(const QByteArray& data)
{
    m_events.push_back(Event{Event::BadData, SerialMessage(), data, m_calls});
    if (!m_inParse) {
        fail(QStringLiteral("bad data outside parse()"));
        return;
    }
    if (data.isEmpty()) {
        fail(QStringLiteral("call %1: empty bad-data report").arg(m_calls));
    }
    ++m_badReportsThisCall;
    m_reportedBad.append(data);
}

void RecordingParser::fail(const QString& what)
{
    if (m_error.isEmpty()) {
        m_error = what;
    }
}
