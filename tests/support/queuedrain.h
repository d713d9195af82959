#pragma once

#include <QtGlobal>
#include <vector>

#include "serial/serialmessagequeue.h"
#include "support/manualclock.h"
#include "support/sentmessage.h"

// Plays the section connection's drain of a real queue under the manual clock, and tells
// when each message became due, to the nanosecond: from the clock's current time up to
// untilNs it finds, by bisection on the queue's own due test, the earliest instant at which
// a message is due, takes it there, and goes on from that instant. The result is in the
// order the queue gives messages out; each atNs is the message's release time (or the
// starting time, for a message that was already due then). The clock is left at untilNs.
// Move the clock only forward between drains, and only while no task pool tick is running.
std::vector<SentMessage> drainReleased(Velmora::Worksurface::SerialMessageQueue& queue,
                                       ManualClock& clock, qint64 untilNs);
