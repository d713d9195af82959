#pragma once

#include <QObject>
#include <QString>

// Saving the sections' flight recorders from QML: Surface.saveTrace(path) writes every
// section's recent traffic and link events, merged in time order, to one trace file.
//
// A base of the Surface singleton, so that the singleton's own methods stay the ones it has
// always declared, in their order.
class SurfaceTraceSaver : public QObject
{
    Q_OBJECT

public:
    explicit SurfaceTraceSaver(QObject* parent = nullptr) : QObject(parent) {}

    // True once the file is written; false, with one warning naming the reason, when it
    // cannot be written or there is no surface.
    Q_INVOKABLE bool saveTrace(const QString& path) { return writeTrace(path, -1); }

protected:
    // Writes the trace of one section, or of every section for -1.
    virtual bool writeTrace(const QString& path, int section) = 0;
};
