#include "support/fakesectionconnection.h"

#include "serial/isectionstatelistener.h"

using namespace Velmora::Worksurface;

FakeSectionConnection::FakeSectionConnection(uint8_t sectionIndex, QStringList* callLog)
    : m_sectionIndex(sectionIndex), m_callLog(callLog)
{}

FakeSectionConnection::~FakeSectionConnection()
{
    log(QStringLiteral("destroyed"));
}

void FakeSectionConnection::log(const QString& what)
{
    if (m_callLog) {
        m_callLog->append(QStringLiteral("connection %1: %2").arg(m_sectionIndex).arg(what));
    }
}

void FakeSectionConnection::open()
{
    ++m_openCount;
    log(QStringLiteral("open"));
}

void FakeSectionConnection::close()
{
    ++m_closeCount;
    log(QStringLiteral("close"));
}

void FakeSectionConnection::startCalibration()
{
    ++m_calibrationCount;
    log(QStringLiteral("startCalibration"));
}

void FakeSectionConnection::stopCalibration()
{
    log(QStringLiteral("stopCalibration"));
}

void FakeSectionConnection::enqueueMessage(const SerialMessage& message)
{
    m_enqueued.push_back(message);
    log(QStringLiteral("enqueueMessage"));
}

void FakeSectionConnection::setStateListener(ISectionStateListener* listener)
{
    m_listener = listener;
    m_listenersSet.push_back(listener);
    log(listener ? QStringLiteral("setStateListener") : QStringLiteral("setStateListener null"));
}

bool FakeSectionConnection::reportState(uint8_t state)
{
    m_state = state;
    if (!m_listener) {
        return false;
    }
    m_listener->sectionStateChanged(m_sectionIndex, state);
    return true;
}

bool FakeSectionConnection::reportProgress(uint8_t percent)
{
    if (!m_listener) {
        return false;
    }
    m_listener->sectionUpdateProgress(m_sectionIndex, percent);
    return true;
}

bool FakeSectionConnection::reportSentMessageCount(uint64_t count)
{
    if (!m_listener) {
        return false;
    }
    m_listener->sentMessageCount(count);
    return true;
}
