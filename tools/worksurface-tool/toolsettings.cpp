#include "toolsettings.h"

ToolSettings::ToolSettings(uint8_t mode, const QString& firmwarePath, bool debug)
    : m_firmwarePath(firmwarePath)
{
    setMode(mode);
    setDebugEnabled(debug);
}

QString ToolSettings::firmwarePath() const
{
    return m_firmwarePath;
}
