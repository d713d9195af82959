#pragma once

#include <QObject>
#include <QString>
#include <functional>
#include <utility>

// The change signals of a section's link as QML sees it on Surface.section(i): its state,
// its serial device and why the device failed, and how the last firmware update ended.
//
// They sit in this base of SectionInfoModel so that the model's own signals stay the four
// it has always declared, in their order (QML code and tools index them); the properties
// that these signals notify are the model's.
class SectionLinkNotifier : public QObject
{
    Q_OBJECT

public:
    explicit SectionLinkNotifier(QObject* parent = nullptr) : QObject(parent) {}

    // Writes this section's flight recorder to a trace file: true once written; false, with
    // one warning naming the reason, when it cannot be written or the section has no link.
    Q_INVOKABLE bool saveTrace(const QString& path)
    {
        return m_traceSaver ? m_traceSaver(path) : false;
    }

    // Set by the surface service, which knows the section's link.
    void setTraceSaver(std::function<bool(const QString&)> saver)
    {
        m_traceSaver = std::move(saver);
    }

signals:
    void linkStateChanged();
    void portNameChanged();
    void portErrorChanged();
    void lastUpdateFailureChanged();
    // A firmware update of the section failed: 0 the firmware file is missing or
    // unreadable, 1 the bootloader kept refusing a packet, 2 the bootloader reported an
    // error status.
    void updateFailed(int reason);

private:
    std::function<bool(const QString&)> m_traceSaver;
};
