#pragma once

#include <QColor>
#include <QObject>
#include <atomic>
#include <cstdint>

namespace Velmora::Worksurface {

class IPot;
class Pot;

// The user-interface side's grip on the headphone pot and its light. A pot binding listens
// to potValueChanged, which the pot emits on the model thread while this handle is the one
// it has given out, reads the current value and sets the light's colour. The methods call
// the pot directly from the caller's thread and do nothing (value: 0) once the handle is
// detached.
//
// The handle keeps a plain pointer to its pot, cleared on detach, and is owned by a shared
// pointer whose deleter calls deleteLater().
class PotHandle : public QObject
{
    Q_OBJECT

public:
    explicit PotHandle(IPot* pot, QObject* parent = nullptr);
    ~PotHandle() override;

    PotHandle(const PotHandle&) = delete;
    PotHandle& operator=(const PotHandle&) = delete;

    // The pot this handle stands for; null once detached.
    IPot* pot() const;
    // Whether the handle still stands for the pot with this device id in this section.
    bool standsFor(uint8_t sectionIndex, uint8_t deviceId) const;

    // The pot's position, 0..511.
    quint16 value() const;
    // Taken by copy: the colour may come from a binding property that changes meanwhile.
    void setColor(QColor color);
    // Gives the handle back: the pot drops it, its light turns black, and the handle is cut
    // off.
    void detach();

signals:
    void potValueChanged(quint16 value);

private:
    // The pot cuts its handle off without a release when the pot itself goes away.
    friend class Pot;

    // Atomic: the pot clears it when it goes (on the model thread) while the user-interface
    // side may be calling through it.
    std::atomic<IPot*> m_pot;
};

}  // namespace Velmora::Worksurface
