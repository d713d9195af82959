#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <vector>

#include "serial/serialmessage.h"
#include "serial/serialmessageparser.h"

// A parser that records what it reports and, on every call, accounts for every byte it
// was fed: each byte must end up in exactly one place, in stream order -- inside a
// delivered frame (which must be the very bytes the message re-encodes to), in the bad
// data, or still pending. It also checks the reporting rules: at most one bad-data
// report per chunk, after that chunk's messages, and never more pending bytes than the
// largest partial frame the link waits for. The first violation is kept in error().
class RecordingParser : public Velmora::Worksurface::SerialMessageParser
{
public:
    struct Event
    {
        enum Kind
        {
            Message,
            BadData
        };
        Kind kind;
        Velmora::Worksurface::SerialMessage message;  // for Message
        QByteArray data;                              // for BadData
        int call;                                     // index of the feed() call
    };

    // The most bytes a call can leave pending: the largest frame that is waited for is
    // 25 bytes long (a 26-byte one is never waited for), so at most 24 of it can be there.
    static constexpr int kMaximumPending = 24;

    // Feeds one chunk through parse() and checks the accounting.
    void feed(const QByteArray& chunk);
    // clear(), with the forgotten pending bytes accounted as dropped on purpose.
    void restart();

    const std::vector<Event>& events() const { return m_events; }
    std::vector<Velmora::Worksurface::SerialMessage> messages() const;
    // The wire bytes of every delivered message, concatenated.
    QByteArray deliveredFrames() const;
    // Every bad-data report, concatenated, and one by one.
    QByteArray badData() const;
    QList<QByteArray> badDataReports() const;
    const QByteArray& input() const { return m_input; }
    int calls() const { return m_calls; }
    // Empty while every rule held.
    QString error() const { return m_error; }

protected:
    void messageReceived(const Velmora::Worksurface::SerialMessage& message) override;
    void badDataReceived(const QByteArray& data) override;

private:
    void fail(const QString& what);

    std::vector<Event> m_events;
    QByteArray m_input;
    // Input bytes before this position are accounted for.
    int m_accounted = 0;
    // Bad bytes the current call must report, found from the gaps between frames.
    QByteArray m_expectedBad;
    QByteArray m_reportedBad;
    int m_badReportsThisCall = 0;
    int m_calls = 0;
    bool m_inParse = false;
    QString m_error;
};
