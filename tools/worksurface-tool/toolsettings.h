#pragma once

#include <QString>
#include <cstdint>

#include "base/settings.h"

// The plugin's settings for one console model, except that the firmware image is the file
// named on the command line: the tool never looks in the plugin's own places for it.
// Debug lines of the core are off unless asked for.
class ToolSettings : public Velmora::Worksurface::Settings
{
public:
    ToolSettings(uint8_t mode, const QString& firmwarePath, bool debug);

    QString firmwarePath() const override;

private:
    QString m_firmwarePath;
};
