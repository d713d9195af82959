#pragma once

#include <QString>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "serial/isectionstatelistener.h"

// Stands where the surface listens to a section connection: records every state change,
// progress report and sent-message count, in order.
class RecordingStateListener : public Velmora::Worksurface::ISectionStateListener
{
public:
    struct Report
    {
        uint8_t sectionIndex;
        uint8_t value;
        bool operator==(const Report& other) const
        {
            return sectionIndex == other.sectionIndex && value == other.value;
        }
    };

    void sectionStateChanged(uint8_t sectionIndex, uint8_t state) override
    {
        m_stateReports.push_back({sectionIndex, state});
        if (m_onStateChanged) {
            m_onStateChanged(sectionIndex, state);
        }
    }
    void sectionUpdateProgress(uint8_t sectionIndex, uint8_t value) override
    {
        m_progressReports.push_back({sectionIndex, value});
    }
    void sentMessageCount(uint64_t count) override { m_sentCounts.push_back(count); }
    void sectionPortChanged(uint8_t, const QString& portName, const QString& portError) override
    {
        m_portReports.push_back(portName + QLatin1Char('|') + portError);
    }
    void sectionUpdateResult(uint8_t, int failureReason) override
    {
        m_updateResults.push_back(failureReason);
    }
    // Each port report as "name|error".
    const std::vector<QString>& portReports() const { return m_portReports; }
    const std::vector<int>& updateResults() const { return m_updateResults; }

    // The states alone, in the order they were reported.
    std::vector<uint8_t> states() const
    {
        std::vector<uint8_t> result;
        for (const Report& report : m_stateReports) {
            result.push_back(report.value);
        }
        return result;
    }
    const std::vector<Report>& stateReports() const { return m_stateReports; }
    // 255 when nothing was reported.
    uint8_t lastState() const
    {
        return m_stateReports.empty() ? uint8_t{255} : m_stateReports.back().value;
    }
    int stateChangeCount() const { return static_cast<int>(m_stateReports.size()); }

    const std::vector<Report>& progressReports() const { return m_progressReports; }
    int progressCount() const { return static_cast<int>(m_progressReports.size()); }

    const std::vector<uint64_t>& sentCounts() const { return m_sentCounts; }
    int sentCountReports() const { return static_cast<int>(m_sentCounts.size()); }

    // Runs after each recorded state change.
    void setOnStateChanged(std::function<void(uint8_t, uint8_t)> onStateChanged)
    {
        m_onStateChanged = std::move(onStateChanged);
    }

    void clear()
    {
        m_stateReports.clear();
        m_progressReports.clear();
        m_sentCounts.clear();
        m_portReports.clear();
        m_updateResults.clear();
    }

private:
    std::vector<Report> m_stateReports;
    std::vector<Report> m_progressReports;
    std::vector<uint64_t> m_sentCounts;
    std::vector<QString> m_portReports;
    std::vector<int> m_updateResults;
    std::function<void(uint8_t, uint8_t)> m_onStateChanged;
};
