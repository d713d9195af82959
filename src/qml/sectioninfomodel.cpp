#include "qml/sectioninfomodel.h"

#include <algorithm>

SectionInfoModel::SectionInfoModel(int index, QObject* parent)
    : SectionLinkNotifier(parent), m_index(index)
{}

void SectionInfoModel::updateInfo(uint8_t version, uint8_t temperature)
{
    if (version != m_version) {
        m_version = version;
        emit versionChanged();
    }
    if (temperature != m_temperature) {
        m_temperature = temperature;
        emit temperatureChanged();
    }
}

void SectionInfoModel::setUpdating(bool updating)
{
    if (updating == m_updating) {
        return;
    }
    m_updating = updating;
    emit updatingChanged();
    if (!updating) {
        // An update that ended always shows as complete.
        static_cast<ISectionInfo*>(this)->setUpdateProgress(100);
    }
}

void SectionInfoModel::setUpdateProgress(uint8_t percent)
{
    const int clamped = std::min<int>(percent, 100);
    if (clamped != m_updateProgress) {
        m_updateProgress = clamped;
        emit updateProgressChanged();
    }
}

void SectionInfoModel::setLinkState(uint8_t state)
{
    if (state != m_linkState) {
        m_linkState = state;
        emit linkStateChanged();
    }
}

void SectionInfoModel::setPort(const QString& portName, const QString& portError)
{
    if (portName != m_portName) {
        m_portName = portName;
        emit portNameChanged();
    }
    if (portError != m_portError) {
        m_portError = portError;
        emit portErrorChanged();
    }
}

void SectionInfoModel::setUpdateResult(int failureReason)
{
    const int failure = failureReason < 0 ? -1 : failureReason;
    if (failure != m_lastUpdateFailure) {
        m_lastUpdateFailure = failure;
        emit lastUpdateFailureChanged();
    }
    if (failure >= 0) {
        // Every failure is told, also one with the same reason as the last.
        emit updateFailed(failure);
    }
}

void SectionInfoModel::resetLink()
{
    setLinkState(Closed);
    setPort(QString(), QString());
    if (m_lastUpdateFailure != -1) {
        m_lastUpdateFailure = -1;
        emit lastUpdateFailureChanged();
    }
}
