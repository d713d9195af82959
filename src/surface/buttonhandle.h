#pragma once

#include <QObject>
#include <atomic>
#include <cstdint>

namespace Velmora::Worksurface {

class IButton;
class Button;

// The user-interface side's grip on one push switch of a section. A button binding listens
// to buttonPressed and buttonReleased; the button emits them on the model thread, only on
// a change of state and only while this handle is the one it has given out.
//
// The handle keeps a plain pointer to its button, cleared on detach; a detached handle
// does nothing. It is owned by a shared pointer whose deleter calls deleteLater(). The
// signal order is part of the QML-facing contract.
class ButtonHandle : public QObject
{
    Q_OBJECT

public:
    explicit ButtonHandle(IButton* button, QObject* parent = nullptr);
    ~ButtonHandle() override;

    ButtonHandle(const ButtonHandle&) = delete;
    ButtonHandle& operator=(const ButtonHandle&) = delete;

    // The button this handle stands for; null once detached.
    IButton* button() const;
    // Whether the handle still stands for the button with this device id in this section.
    bool standsFor(uint8_t sectionIndex, uint8_t deviceId) const;
    // Gives the handle back: the button drops it and the handle is cut off from it.
    void detach();

signals:
    void buttonPressed();
    void buttonReleased();

private:
    // The button cuts its handle off without a release when the button itself goes away.
    friend class Button;

    // Atomic: the button clears it when it goes (on the model thread) while the user-interface
    // side may be calling through it.
    std::atomic<IButton*> m_button;
};

}  // namespace Velmora::Worksurface
