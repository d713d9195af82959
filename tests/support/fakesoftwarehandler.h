#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <vector>

#include "serial/isoftwareserialmessagehandler.h"
#include "serial/serialmessage.h"

// A software control stand-in: records every message it is offered (with a shared call log
// to check the order in which several handlers were asked) and takes those its rule
// accepts.
class FakeSoftwareHandler : public Velmora::Worksurface::ISoftwareSerialMessageHandler
{
public:
    struct Offer
    {
        uint8_t sectionIndex;
        Velmora::Worksurface::SerialMessage message;
    };

    // Takes nothing until told otherwise. `name` and `callLog` are for order checks.
    explicit FakeSoftwareHandler(QString name = QString(), QStringList* callLog = nullptr);

    bool handleSoftwareMessage(uint8_t sectionIndex,
                               const Velmora::Worksurface::SerialMessage& message) override;

    void takeAll(bool take);
    // Takes a message when the rule says so.
    void setRule(std::function<bool(uint8_t, const Velmora::Worksurface::SerialMessage&)> rule);
    // Takes messages of one type for one device, in any section.
    void takeOnly(uint8_t type, uint8_t deviceId);
    // Runs while a message is offered, before the answer is given.
    void setReaction(
        std::function<void(uint8_t, const Velmora::Worksurface::SerialMessage&)> reaction);

    const std::vector<Offer>& offers() const { return m_offers; }
    int offerCount() const { return static_cast<int>(m_offers.size()); }
    void clear() { m_offers.clear(); }

private:
    QString m_name;
    QStringList* m_callLog;
    std::function<bool(uint8_t, const Velmora::Worksurface::SerialMessage&)> m_rule;
    std::function<void(uint8_t, const Velmora::Worksurface::SerialMessage&)> m_reaction;
    std::vector<Offer> m_offers;
};
