#pragma once

#include <QString>
#include <memory>

class QLoggingCategory;

namespace Velmora::Worksurface {

class ISettings;

// The plugin's log: one Qt log line per call, the text exactly as given, in the logger's
// area category (base/logcategories.h). Debug lines are written only while the settings
// say debug output is on; with it on, the application's logging rules can still turn any
// level of a category off.
//
// Code that is given a Logger logs through it and nothing else; a class whose logger may
// be absent checks for it in one private helper, not at every line. A class that logs for
// an area of its own takes its share with inCategory() when it is built. The few classes
// that have no Logger (the serial ports' open and error reports, the software link's
// bad-data report, the rotary's and the fader binding's warnings, the firmware path
// listing) write through Qt's qCDebug()/qCWarning()/qCCritical() in their area's category;
// their lines keep the exact text these format (quoted strings, spacing) and are not gated
// by the debug setting.
class Logger
{
public:
    // A logger for the surface service's own lines.
    explicit Logger(std::shared_ptr<ISettings> settings);
    Logger(std::shared_ptr<ISettings> settings, const QLoggingCategory& category);

    // A logger on the same debug switch that writes in another area's category.
    std::shared_ptr<Logger> inCategory(const QLoggingCategory& category) const;
    const QLoggingCategory& category() const;

    void debug(const QString& text) const;
    // Whether debug() writes anything: a caller whose debug line takes formatting asks first.
    bool debugOn() const;
    void critical(const QString& text) const;
    void info(const QString& text) const;
    void warning(const QString& text) const;

private:
    std::shared_ptr<ISettings> m_settings;
    const QLoggingCategory* m_category;
};

}  // namespace Velmora::Worksurface
