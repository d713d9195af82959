#include "serial/linkinbox.h"

#include <utility>

namespace Velmora::Worksurface {

bool LinkInbox::coalesces(const SerialMessage& frame)
{
    return frame.type == MessageType::FaderPosition || frame.type == MessageType::PotValue;
}

std::size_t LinkInbox::coalescingSlot(uint8_t type)
{
    return type == MessageType::FaderPosition ? 0 : 1;
}

bool LinkInbox::add(Report report)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (report.kind != Report::Frame) {
        m_lastNewsSeq = m_nextSeq;
    } else if (coalesces(report.frame)) {
        const uint8_t device = report.frame.deviceId;
        uint64_t& waiting = m_waitingSeq[coalescingSlot(report.frame.type)][device];
        if (m_reports.size() >= kBehind && waiting >= m_frontSeq && waiting > m_lastNewsSeq &&
            m_lastFrameSeq[device] == waiting) {
            m_reports[static_cast<std::size_t>(waiting - m_frontSeq)].frame =
                std::move(report.frame);
            ++m_coalesced;
            return false;
        }
        waiting = m_nextSeq;
        m_lastFrameSeq[device] = m_nextSeq;
    } else {
        m_lastFrameSeq[report.frame.deviceId] = m_nextSeq;
    }
    m_reports.push_back(std::move(report));
    ++m_nextSeq;
    return true;
}

bool LinkInbox::take(Report& report)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_reports.empty()) {
        return false;
    }
    report = std::move(m_reports.front());
    m_reports.pop_front();
    ++m_frontSeq;
    return true;
}

std::size_t LinkInbox::size() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports.size();
}

uint64_t LinkInbox::coalescedCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_coalesced;
}

}  // namespace Velmora::Worksurface
