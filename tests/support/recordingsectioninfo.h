#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>

#include "base/isectioninfo.h"

// Stands where a section writes what it reports about itself (the QML section model):
// records every call as one line, in order ("updateInfo 10 34", "setUpdating true",
// "setUpdateProgress 42").
class RecordingSectionInfo : public Velmora::Worksurface::ISectionInfo
{
public:
    void updateInfo(uint8_t version, uint8_t temperature) override
    {
        calls << QStringLiteral("updateInfo %1 %2").arg(version).arg(temperature);
    }
    void setUpdating(bool updating) override
    {
        calls << QStringLiteral("setUpdating %1").arg(updating ? "true" : "false");
    }
    void setUpdateProgress(uint8_t percent) override
    {
        calls << QStringLiteral("setUpdateProgress %1").arg(percent);
    }

    QStringList calls;
};
