#include "serial/serialconnectionfactory.h"

#include <QByteArray>
#include <QList>
#include <utility>

#include "base/isettings.h"
#include "base/logcategories.h"
#include "base/logger.h"
#include "serial/hardwareserialconnection.h"
#include "serial/softwareserialconnection.h"

namespace Velmora::Worksurface {

SerialConnectionFactory::SerialConnectionFactory(
    std::shared_ptr<ISettings> settings, std::shared_ptr<ISoftwareControllerConnection> controller)
    : m_settings(std::move(settings)), m_controller(std::move(controller))
{}

std::shared_ptr<ISerialConnection> SerialConnectionFactory::createSerialConnection(
    uint8_t sectionIndex, const std::shared_ptr<ISettings>& settings)
{
    const std::shared_ptr<ISettings>& source = settings ? settings : m_settings;
    if (!source) {
        return nullptr;
    }
    if (source->type() == static_cast<uint8_t>(SurfaceType::Software)) {
        return std::make_shared<SoftwareSerialConnection>(
            sectionIndex, m_controller, std::make_shared<Logger>(source, lcLink()));
    }
    return std::make_shared<HardwareSerialConnection>(sectionIndex,
                                                      serialPortName(sectionIndex, *source));
}

QString SerialConnectionFactory::serialPortName(uint8_t sectionIndex, const ISettings& settings)
{
    const QByteArray value = qgetenv(kPortsVariable);
    if (!value.isEmpty()) {
        const QList<QByteArray> entries = value.split(',');
        if (sectionIndex < entries.size()) {
            const QString entry = QString::fromLocal8Bit(entries.at(sectionIndex)).trimmed();
            if (!entry.isEmpty()) {
                return entry;
            }
        }
    }
    return settings.serialPortName(sectionIndex);
}

}  // namespace Velmora::Worksurface
