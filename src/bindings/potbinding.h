#pragma once

#include <QColor>
#include <QObject>
#include <memory>

#include "bindings/bindingbase.h"

namespace Velmora::Worksurface {
class PotHandle;
}  // namespace Velmora::Worksurface

// Attaches a view to the headphone level pot and its light. The pot's 0..511 position is
// shown to the view on a stepped dB scale (whole dB), so a view hears of a turn only when
// the shown value moves by a step.
class PotBinding : public BindingBase
{
    Q_OBJECT
    Q_CLASSINFO("QML.Element", "PotBinding")
    Q_PROPERTY(PotType type READ type WRITE setType NOTIFY typeChanged)
    Q_PROPERTY(QColor color READ color WRITE setColor NOTIFY colorChanged)

public:
    // Which pot of the section; `index` plays no part.
    // Based on int: QML may write any number, which then names no control.
    enum PotType : int
    {
        None = 0,
        Headphone = 1,  // pot 0
    };
    Q_ENUM(PotType)

    explicit PotBinding(QObject* parent = nullptr);
    ~PotBinding() override;

    PotType type() const { return m_type; }
    // Takes effect at once, even before componentComplete().
    void setType(PotType type);
    QColor color() const { return m_color; }
    void setColor(const QColor& color);

    // The view's scale for a pot position: whole dB, following the channel-fader law's
    // breakpoints up to +5 dB and reaching +11 dB above 500.
    static float convertForUi(quint16 position);

signals:
    void typeChanged();
    void colorChanged();
    // `value` on the view's dB scale, `proportion` the raw position as a fraction of the
    // full travel.
    void potTurned(float value, float proportion);

public slots:
    void convertPotValueToUiScaleAndInformPotHasBeenTurned(quint16 new_position);

protected:
    void updateBinding() override;

private:
    void releaseHandle();

    PotType m_type = None;
    std::weak_ptr<Velmora::Worksurface::PotHandle> m_handle;
    float m_lastUiValue = 0.0f;
    QColor m_color = QColor(Qt::transparent);
};
