#include "support/queuedrain.h"

std::vector<SentMessage> drainReleased(Velmora::Worksurface::SerialMessageQueue& queue,
                                       ManualClock& clock, qint64 untilNs)
{
    std::vector<SentMessage> released;
    qint64 from = clock.nowNs();
    while (from <= untilNs) {
        clock.setNs(untilNs);
        if (queue.hasNoDueMessage()) {
            break;
        }
        // Whether anything is due only grows with time while the queue is left alone, so
        // the first due instant in [from, untilNs] can be bisected.
        qint64 low = from;
        qint64 high = untilNs;
        while (low < high) {
            const qint64 middle = low + (high - low) / 2;
            clock.setNs(middle);
            if (queue.hasNoDueMessage()) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        clock.setNs(low);
        released.push_back(SentMessage{queue.takeNextMessage(), low});
        from = low;
    }
    clock.setNs(untilNs);
    return released;
}
