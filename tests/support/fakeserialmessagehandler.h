#pragma once

#include <QString>
#include <QStringList>
#include <functional>
#include <utility>
#include <vector>

#include "serial/iserialmessagehandler.h"
#include "serial/serialmessage.h"

// A component stand-in on a section's root handler: records every message it is offered
// and every link-ready change, and takes the messages its rule accepts (none by default).
// Several handlers can share one call log to check the order in which they were asked.
class FakeSerialMessageHandler : public Velmora::Worksurface::ISerialMessageHandler
{
public:
    explicit FakeSerialMessageHandler(QString name = QString(), QStringList* callLog = nullptr)
        : m_name(std::move(name)), m_callLog(callLog)
    {}

    bool handleMessage(const Velmora::Worksurface::SerialMessage& message) override
    {
        m_offered.push_back(message);
        if (m_callLog) {
            m_callLog->append(m_name);
        }
        const bool taken = m_rule && m_rule(message);
        if (taken) {
            m_taken.push_back(message);
        }
        return taken;
    }

    bool takesMessage(const Velmora::Worksurface::SerialMessage& message) const override
    {
        return m_rule && m_rule(message);
    }

    void setLinkReady(bool ready) override
    {
        m_linkReady.push_back(ready);
        if (m_callLog) {
            m_callLog->append(m_name +
                              (ready ? QStringLiteral(":ready") : QStringLiteral(":notready")));
        }
    }

    void setRule(std::function<bool(const Velmora::Worksurface::SerialMessage&)> rule)
    {
        m_rule = std::move(rule);
    }
    void takeAll(bool take)
    {
        m_rule = [take](const Velmora::Worksurface::SerialMessage&) { return take; };
    }
    // Takes every message addressed to one device id.
    void takeDevice(uint8_t deviceId)
    {
        m_rule = [deviceId](const Velmora::Worksurface::SerialMessage& message) {
            return message.deviceId == deviceId;
        };
    }

    const std::vector<Velmora::Worksurface::SerialMessage>& offered() const { return m_offered; }
    const std::vector<Velmora::Worksurface::SerialMessage>& taken() const { return m_taken; }
    int offerCount() const { return static_cast<int>(m_offered.size()); }
    // Every setLinkReady() value, in order.
    const std::vector<bool>& linkReadyCalls() const { return m_linkReady; }
    void clear()
    {
        m_offered.clear();
        m_taken.clear();
        m_linkReady.clear();
    }

private:
    QString m_name;
    QStringList* m_callLog;
    std::function<bool(const Velmora::Worksurface::SerialMessage&)> m_rule;
    std::vector<Velmora::Worksurface::SerialMessage> m_offered;
    std::vector<Velmora::Worksurface::SerialMessage> m_taken;
    std::vector<bool> m_linkReady;
};
