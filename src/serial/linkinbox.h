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
// replaces the waiting one only when nothing else of the same control came after it (a
// fader's touch or release: its position and touch reports share the fader's device id) and
// no news that the model acts on (state, link ready, port, update result). Reports of other
// controls, an update's progress and the sent-message count do not hold it back: they are
// told in their order among themselves, and only the stale position in between is skipped.
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
    // The controls whose positions coalesce: faders (position and touch reports) and the pot.
    // -1 for a frame of any other control.
    static int controlGroup(uint8_t type);
    // Whether a report holds back the coalescing of a position queued before it.
    static bool isBarrier(const Report& report);

    mutable std::mutex m_mutex;
    std::deque<Report> m_reports;
    // Every report gets the next number; the front of the queue holds number m_frontSeq.
    uint64_t m_frontSeq = 1;
    uint64_t m_nextSeq = 1;
    // The number of the last news the model acts on, of the last report of each fader and of
    // the pot, and of the waiting position of each (0: none), by control group and device id.
    uint64_t m_lastNewsSeq = 0;
    std::array<std::array<uint64_t, 256>, 2> m_lastControlSeq{};
    std::array<std::array<uint64_t, 256>, 2> m_waitingSeq{};
    uint64_t m_coalesced = 0;
};

}  // namespace Velmora::Worksurface
