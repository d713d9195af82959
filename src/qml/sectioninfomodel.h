#pragma once

#include <QObject>
#include <QQmlParserStatus>

#include "base/isectioninfo.h"
#include "qml/sectionlinknotifier.h"

// What one hardware section reports about itself, for QML (`Surface.section(i)`): its
// firmware version and temperature, and the progress of a firmware update. The core
// writes through ISectionInfo only, so it never depends on QML types.
//
// It also shows the section's link: its state, the serial device it uses and why that
// device failed, and whether the last firmware update failed. These follow the links of
// the surface that runs now; the surface service resets them when a connect() builds a new
// one. Their change signals are declared in SectionLinkNotifier.
class SectionInfoModel : public SectionLinkNotifier,
                         public QQmlParserStatus,
                         public Velmora::Worksurface::ISectionInfo
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    Q_CLASSINFO("QML.Element", "SectionInfoModel")
    Q_CLASSINFO("QML.Creatable", "false")
    Q_CLASSINFO("QML.UncreatableReason", "Can't create SectionInfoModel from qml")
    Q_PROPERTY(bool updating READ updating NOTIFY updatingChanged)
    Q_PROPERTY(int updateProgress READ updateProgress NOTIFY updateProgressChanged)
    Q_PROPERTY(int version READ version NOTIFY versionChanged)
    Q_PROPERTY(int temperature READ temperature NOTIFY temperatureChanged)
    Q_PROPERTY(int linkState READ linkState NOTIFY linkStateChanged)
    Q_PROPERTY(QString portName READ portName NOTIFY portNameChanged)
    Q_PROPERTY(QString portError READ portError NOTIFY portErrorChanged)
    Q_PROPERTY(int lastUpdateFailure READ lastUpdateFailure NOTIFY lastUpdateFailureChanged)

public:
    // The section connection's states, with their values.
    enum LinkState
    {
        Connected = 0,
        Closed = 1,
        Connecting = 2,
        Updating = 3,
        Calibrating = 4,
        SerialError = 5,
        NoResponse = 6
    };
    Q_ENUM(LinkState)

    SectionInfoModel(int index, QObject* parent);

    int index() const { return m_index; }
    bool updating() const { return m_updating; }
    int updateProgress() const { return m_updateProgress; }
    int version() const { return m_version; }
    int temperature() const { return m_temperature; }
    int linkState() const { return m_linkState; }
    QString portName() const { return m_portName; }
    QString portError() const { return m_portError; }
    int lastUpdateFailure() const { return m_lastUpdateFailure; }

    // A new surface replaces the one this model followed: the link is Closed, no device is
    // known and no update has run. Version, temperature and progress keep their values.
    void resetLink();

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
    void setLinkState(uint8_t state) override;
    void setPort(const QString& portName, const QString& portError) override;
    void setUpdateResult(int failureReason) override;

    const int m_index;
    int m_version = 0;
    int m_temperature = 0;
    bool m_updating = false;
    int m_updateProgress = 0;
    int m_linkState = Closed;
    QString m_portName;
    QString m_portError;
    int m_lastUpdateFailure = -1;
};
