#pragma once

#include <QString>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

// What one link on its own thread has to tell the QML thread, in the order it happened:
// the frames the section's components take and the link's news (link ready, state, port,
// update progress and result, sent count). The link adds from its thread, the QML thread
// takes from the front; each report the link adds is taken by one wake-up of the QML
// thread, so the link's reports keep their place among everything else that thread does.
//
// While the QML thread keeps up, every report is kept. Once it is behind by kBehind reports
// or more (its event loop held by a long script, a dialog, a debugger), a fader position or
// a pot value replaces the one of the same fader or pot still waiting, instead of queueing
// behind it: the QML thread then catches up with the latest position, not with every stale
// one, and the memory a stalled QML thread costs stays bounded by what must not be lost
// (presses, releases, touches, rotary steps and the link's news, all kept). A position
// replaces the waiting one only when nothing else of the same device id, and no news of the
// link, came after it, so no report is ever seen out of its order with another of the same
// device.
class LinkInbox
{
public:
    // The link's reports awaiting the QML thread from which positions coalesce.
    static constexpr std::size_t kBehind = 256;

    struct Report
    {
        enum Kind : uint8_t
        {
            Frame,
            LinkReady,
            State,
            Progress,
            SentCount,
            Port,
            UpdateResult,
        };

        Kind kind = Frame;
        uint8_t sectionIndex = 0;
        // The link-ready flag, the state, the progress or the update's failure reason.
        int value = 0;
        uint64_t sentCount = 0;
        SerialMessage frame;
        QString portName;
        QString portError;
    };

    // Link thread. True when the report was queued and the QML thread must take one more;
    // false when it replaced a waiting position.
    bool add(Report report);
    // QML thread: the oldest report. False when none is waiting.
    bool take(Report& report);

    std::size_t size() const;
    // Positions that replaced a waiting one, since the inbox was made.
    uint64_t coalescedCount() const;

private:
    static bool coalesces(const SerialMessage& frame);
    // The slot of a coalescing frame's type among kCoalescingTypes.
    static std::size_t coalescingSlot(uint8_t type);

    mutable std::mutex m_mutex;
    std::deque<Report> m_reports;
    // Every report gets the next number; the front of the queue holds number m_frontSeq.
    uint64_t m_frontSeq = 1;
    uint64_t m_nextSeq = 1;
    // The number of the last news (any report that is not a frame), of the last frame of each
    // device id, and of the waiting position of each coalescing type and device id (0: none).
    uint64_t m_lastNewsSeq = 0;
    std::array<uint64_t, 256> m_lastFrameSeq{};
    std::array<std::array<uint64_t, 256>, 2> m_waitingSeq{};
    uint64_t m_coalesced = 0;
};

}  // namespace Velmora::Worksurface
