#pragma once

#include <QString>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "base/isettings.h"

namespace Velmora::Worksurface {

// The in-memory worksurface configuration. QML sets the surface type, the console model
// and the debug switch through Surface.settings; everything else follows from the model.
// Nothing here is persisted.
class Settings : public ISettings
{
public:
    Settings() = default;

    uint8_t type() const override;
    void setType(uint8_t type) override;
    uint8_t mode() const override;
    void setMode(uint8_t mode) override;
    bool debugEnabled() const override;
    void setDebugEnabled(bool enabled) override;
    uint8_t maxResendCount() const override;
    uint8_t sectionCount() const override;
    uint8_t stripCount() const override;
    uint8_t sideRotaryCount() const override;
    uint8_t masterStripCount() const override;
    uint8_t masterSectionIndex() const override;
    QString serialPortName(uint8_t section) const override;
    QString firmwarePath() const override;
    int reconnectInterval() const override;
    void setReconnectInterval(int intervalMs) override;
    int traceCapacity() const override;
    void setTraceCapacity(int capacity) override;
    QString traceDirectory() const override;
    void setTraceDirectory(const QString& directory) override;
    bool linkThread() const override;
    void setLinkThread(bool enabled) override;
    int updateTimeout() const override;
    void setUpdateTimeout(int timeoutMs) override;

private:
    // A surface started before QML chooses a model has no sections: hardware, no model,
    // debug output on. Written from QML and read by the links wherever they run (the logger,
    // the updater's resend limit and image path, the port name on reopen, a trace's header),
    // so each is an atomic of its own.
    std::atomic<uint8_t> m_type{0};
    std::atomic<uint8_t> m_mode{0};
    std::atomic<uint8_t> m_debugEnabled{1};
    // Read by every link's supervision pass, written from QML.
    std::atomic<int> m_reconnectInterval{0};
    // Written from QML, read when the surface is built (on the surface thread).
    std::atomic<int> m_traceCapacity{4096};
    mutable std::mutex m_traceMutex;
    QString m_traceDirectory;
    // Written from QML, read when the surface is built.
    std::atomic<bool> m_linkThread{false};
    // Written from QML, read by an updater on the links' thread when an update begins.
    std::atomic<int> m_updateTimeout{0};
};

}  // namespace Velmora::Worksurface
