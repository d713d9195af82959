#pragma once

#include <QString>
#include <cstdint>
#include <map>

#include "base/isettings.h"

// An ISettings whose every answer the test sets directly. Defaults are those of the real
// settings for a console with no model chosen, except the firmware path, which is empty
// until a test points it at a file of its own.
class FakeSettings : public Velmora::Worksurface::ISettings
{
public:
    uint8_t type() const override { return m_type; }
    void setType(uint8_t type) override { m_type = type; }
    uint8_t mode() const override { return m_mode; }
    void setMode(uint8_t mode) override { m_mode = mode; }
    bool debugEnabled() const override { return m_debugEnabled; }
    void setDebugEnabled(bool enabled) override { m_debugEnabled = enabled; }
    uint8_t maxResendCount() const override { return m_maxResendCount; }
    uint8_t sectionCount() const override { return m_sectionCount; }
    uint8_t stripCount() const override { return m_stripCount; }
    uint8_t sideRotaryCount() const override { return m_sideRotaryCount; }
    uint8_t masterStripCount() const override { return m_masterStripCount; }
    uint8_t masterSectionIndex() const override { return m_masterSectionIndex; }
    QString serialPortName(uint8_t section) const override;
    QString firmwarePath() const override { return m_firmwarePath; }
    int reconnectInterval() const override { return m_reconnectInterval; }
    void setReconnectInterval(int intervalMs) override
    {
        m_reconnectInterval = intervalMs < 0 ? 0 : intervalMs;
    }
    int traceCapacity() const override { return m_traceCapacity; }
    void setTraceCapacity(int capacity) override { m_traceCapacity = capacity < 0 ? 0 : capacity; }
    QString traceDirectory() const override { return m_traceDirectory; }
    void setTraceDirectory(const QString& directory) override { m_traceDirectory = directory; }
    int updateTimeout() const override { return m_updateTimeout; }
    void setUpdateTimeout(int timeoutMs) override
    {
        m_updateTimeout = timeoutMs < 0 ? 0 : timeoutMs;
    }

    void setMaxResendCount(uint8_t count) { m_maxResendCount = count; }
    void setSectionCount(uint8_t count) { m_sectionCount = count; }
    void setStripCount(uint8_t count) { m_stripCount = count; }
    void setSideRotaryCount(uint8_t count) { m_sideRotaryCount = count; }
    void setMasterStripCount(uint8_t count) { m_masterStripCount = count; }
    void setMasterSectionIndex(uint8_t index) { m_masterSectionIndex = index; }
    // A section without a name set answers an empty string.
    void setSerialPortName(uint8_t section, const QString& name) { m_portNames[section] = name; }
    void setFirmwarePath(const QString& path) { m_firmwarePath = path; }

private:
    uint8_t m_type = 0;
    uint8_t m_mode = 0;
    bool m_debugEnabled = true;
    uint8_t m_maxResendCount = 5;
    uint8_t m_sectionCount = 0;
    uint8_t m_stripCount = 10;
    uint8_t m_sideRotaryCount = 6;
    uint8_t m_masterStripCount = 1;
    uint8_t m_masterSectionIndex = 255;
    std::map<uint8_t, QString> m_portNames;
    QString m_firmwarePath;
    int m_reconnectInterval = 0;
    int m_updateTimeout = 0;
    int m_traceCapacity = 4096;
    QString m_traceDirectory;
};
