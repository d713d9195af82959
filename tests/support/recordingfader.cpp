#include "support/recordingfader.h"

using namespace Velmora::Worksurface;

RecordingFader::RecordingFader(uint8_t sectionIndex, uint8_t deviceId, FaderType type,
                               QStringList* callLog)
    : m_sectionIndex(sectionIndex), m_deviceId(deviceId), m_type(type), m_callLog(callLog)
{}

RecordingFader::~RecordingFader()
{
    if (m_callLog) {
        m_callLog->append(
            QStringLiteral("fader %1/%2: destroyed").arg(m_sectionIndex).arg(m_deviceId));
    }
}

void RecordingFader::log(const QString& what)
{
    calls << what;
    if (m_callLog) {
        m_callLog->append(
            QStringLiteral("fader %1/%2: %3").arg(m_sectionIndex).arg(m_deviceId).arg(what));
    }
}

bool RecordingFader::handleMessage(const SerialMessage& message)
{
    log(QStringLiteral("handleMessage %1").arg(message.type));
    return false;
}

void RecordingFader::setLinkReady(bool ready)
{
    log(QStringLiteral("setLinkReady %1").arg(ready ? "true" : "false"));
}

void RecordingFader::setPosition(uint16_t position)
{
    log(QStringLiteral("setPosition %1").arg(position));
}

void RecordingFader::setDetent(uint16_t position)
{
    log(QStringLiteral("setDetent %1").arg(position));
}

void RecordingFader::setBackstop(uint16_t position)
{
    log(QStringLiteral("setBackstop %1").arg(position));
}

void RecordingFader::setDriveMode(int32_t mode)
{
    log(QStringLiteral("setDriveMode %1").arg(mode));
}

void RecordingFader::setRestMode(int32_t mode)
{
    log(QStringLiteral("setRestMode %1").arg(mode));
}

void RecordingFader::setLockEnabled(bool enabled)
{
    log(QStringLiteral("setLockEnabled %1").arg(enabled ? "true" : "false"));
}

void RecordingFader::setLockPosition(uint16_t position)
{
    log(QStringLiteral("setLockPosition %1").arg(position));
}

std::shared_ptr<FaderHandle> RecordingFader::getHandle()
{
    log(QStringLiteral("getHandle"));
    return nullptr;
}

uint16_t RecordingFader::releaseHandle(FaderHandle*)
{
    log(QStringLiteral("releaseHandle"));
    return 0xFFFF;
}
