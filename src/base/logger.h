#pragma once

#include <QString>
#include <memory>

namespace Velmora::Worksurface {

class ISettings;

// The plugin's log: one Qt log line per call, the text exactly as given. Debug lines are
// written only while the settings say debug output is on.
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
