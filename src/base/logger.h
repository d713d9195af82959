#pragma once

#include <QString>
#include <memory>

namespace Velmora::Worksurface {

class ISettings;

// The plugin's log: one Qt log line per call, the text exactly as given. Debug lines are
// written only while the settings say debug output is on.
//
// Code that is given a Logger logs through it and nothing else; a class whose logger may
// be absent checks for it in one private helper, not at every line. The few classes that
// have no Logger (the serial ports' open and error reports, the software link's bad-data
// report, the rotary's and the fader binding's warnings, the firmware path listing) write
// through Qt's own qDebug()/qWarning()/qCritical(); their lines keep the exact text these
// format (quoted strings, spacing) and are not gated by the debug setting.
class Logger
{
public:
    explicit Logger(std::shared_ptr<ISettings> settings);

    void debug(const QString& text) const;
    void critical(const QString& text) const;
    void info(const QString& text) const;
    void warning(const QString& text) const;

private:
    std::shared_ptr<ISettings> m_settings;
};

}  // namespace Velmora::Worksurface
