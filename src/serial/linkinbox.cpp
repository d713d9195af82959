#include "serial/linkinbox.h"

#include <utility>

namespace Velmora::Worksurface {

int LinkInbox::controlGroup(uint8_t type)
{
    switch (type) {
        case MessageType::FaderPosition:
        case MessageType::FaderTouch:
            return 0;
        case MessageType::PotValue:
            return 1;
        default:
            return -1;
    }
}

bool LinkInbox::isBarrier(const Report& report)
{
    return report.kind != Report::Frame && report.kind != Report::Progress &&
           report.kind != Report::SentCount;
}

bool LinkInbox::add(Report report)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (isBarrier(report)) {
        m_lastNewsSeq = m_nextSeq;
    } else if (report.kind == Report::Frame) {
        const int group = controlGroup(report.frame.type);
        if (group >= 0) {
            const auto slot = static_cast<std::size_t>(group);
            const uint8_t device = report.frame.deviceId;
            uint64_t& last = m_lastControlSeq[slot][device];
            const bool isPosition = report.frame.type != MessageType::FaderTouch;
            if (isPosition) {
                uint64_t& waiting = m_waitingSeq[slot][device];
                if (m_reports.size() >= kBehind && waiting >= m_frontSeq &&
                    waiting > m_lastNewsSeq && last == waiting) {
                    m_reports[static_cast<std::size_t>(waiting - m_frontSeq)].frame =
                        std::move(report.frame);
                    ++m_coalesced;
                    return false;
                }
                waiting = m_nextSeq;
            }
            last = m_nextSeq;
        }
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
