#pragma once

#include <QObject>
#include <atomic>
#include <cstdint>

namespace Velmora::Worksurface {

class IMeter;
class Meter;

// The user-interface side's grip on one of the master section's level meters. A meter
// binding sets the level and the peak through it; the calls go to the meter directly from
// the caller's thread and do nothing once the handle is detached.
//
// The handle keeps a plain pointer to its meter, cleared on detach, and is owned by a
// shared pointer whose deleter calls deleteLater(). It has no signals.
class MeterHandle : public QObject
{
    Q_OBJECT

public:
    explicit MeterHandle(IMeter* meter, QObject* parent = nullptr);
    ~MeterHandle() override;

    MeterHandle(const MeterHandle&) = delete;
    MeterHandle& operator=(const MeterHandle&) = delete;

    // The meter this handle stands for; null once detached.
    IMeter* meter() const;
    // Whether the handle still stands for the meter with this device id in this section.
    bool standsFor(uint8_t sectionIndex, uint8_t deviceId) const;

    void setLevel(uint8_t level);
    void setPeak(uint8_t peak);
    // Gives the handle back: the meter drops it and the handle is cut off.
    void detach();

private:
    // The meter cuts its handle off without a release when the meter itself goes away.
    friend class Meter;

    // Atomic: the meter clears it when it goes (on the model thread) while the user-interface
    // side may be calling through it.
    std::atomic<IMeter*> m_meter;
};

}  // namespace Velmora::Worksurface
