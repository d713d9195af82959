#pragma once

#include <QObject>
#include <memory>

#include "bindings/bindingbase.h"

namespace Velmora::Worksurface {
class MeterHandle;
}  // namespace Velmora::Worksurface

// Attaches a view to one of the master section's level meters. `level` and `peak` are
// 0..255 on the console's meter scale, where 135 and below show nothing.
//
// Without a reachable surface the binding keeps whatever handle it holds, even when it
// is made inactive.
class MeterBinding : public BindingBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "MeterBinding")
    Q_PROPERTY(MeterType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(int level READ level WRITE setLevel NOTIFY levelChanged)
    Q_PROPERTY(int peak READ peak WRITE setPeak NOTIFY peakChanged)

public:
    // Which meter of the section; `index` plays no part.
    // Based on int: QML may write any number, which then names no control.
    enum MeterType : int
    {
        None = 0,
        MasterLeft = 1,   // meter 0
        MasterRight = 2,  // meter 1
    };
    Q_ENUM(MeterType)

    // The bottom of the meter scale: every value up to it shows an empty meter.
    static constexpr int Floor = 135;

    explicit MeterBinding(QObject* parent = nullptr);
    ~MeterBinding() override;

    MeterType type() const { return m_type; }
    // Takes effect at once, even before componentComplete().
    void setType(MeterType type);
    int level() const { return m_level; }
    // Cut to the low 8 bits, then raised to at least Floor.
    void setLevel(int level);
    int peak() const { return m_peak; }
    // Cut to the low 8 bits, then raised to at least Floor.
    void setPeak(int peak);

signals:
    void typeChanged();
    void levelChanged();
    void peakChanged();

protected:
    void updateBinding() override;

private:
    static int toMeterScale(int value);
    void releaseHandle();

    MeterType m_type = None;
    std::weak_ptr<Velmora::Worksurface::MeterHandle> m_handle;
    int m_level = Floor;
    int m_peak = Floor;
};
