#include "qml/sectioninfomodel.h"

#include <algorithm>

SectionInfoModel::SectionInfoModel(int index, QObject* parent) : QObject(parent), m_index(index) {}

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
