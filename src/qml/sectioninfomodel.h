#pragma once

#include <QObject>
#include <QQmlParserStatus>

#include "base/isectioninfo.h"

// What one hardware section reports about itself, for QML (`Surface.section(i)`): its
// firmware version and temperature, and the progress of a firmware update. The core
// writes through ISectionInfo only, so it never depends on QML types.
class SectionInfoModel : public QObject,
                         public QQmlParserStatus,
                         public Velmora::Worksurface::ISectionInfo
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    Q_PROPERTY(bool updating READ updating NOTIFY updatingChanged)
    Q_PROPERTY(int updateProgress READ updateProgress NOTIFY updateProgressChanged)
    Q_PROPERTY(int version READ version NOTIFY versionChanged)
    Q_PROPERTY(int temperature READ temperature NOTIFY temperatureChanged)

public:
    SectionInfoModel(int index, QObject* parent);

    int index() const { return m_index; }
    bool updating() const { return m_updating; }
    int updateProgress() const { return m_updateProgress; }
    int version() const { return m_version; }
    int temperature() const { return m_temperature; }

    void classBegin() override {}
    void componentComplete() override {}

signals:
    void updatingChanged();
    void updateProgressChanged();
    void versionChanged();
    void temperatureChanged();

private:
    // Only the core writes these, through the interface.
    void updateInfo(uint8_t version, uint8_t temperature) override;
    void setUpdating(bool updating) override;
    void setUpdateProgress(uint8_t percent) override;

    const int m_index;
    int m_version = 0;
    int m_temperature = 0;
    bool m_updating = false;
    int m_updateProgress = 0;
};
