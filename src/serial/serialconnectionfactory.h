#pragma once

#include <QString>
#include <cstdint>
#include <memory>

#include "serial/iserialconnectionfactory.h"

namespace Velmora::Worksurface {

class ISerialConnection;
class ISettings;
class ISoftwareControllerConnection;

// Picks each section's serial connection from the surface type: the in-process software
// link for a QML-simulated surface, otherwise the section's real serial port.
//
// The port name normally comes from the console's table in the settings. For bench setups
// with USB serial adapters (and for tests) the environment variable
// TARVIX_WORKSURFACE_SERIAL_PORTS can override it: a comma-separated list of device paths,
// entry i for section i. It is read each time a connection is created, that is, each time
// a surface is built; an empty or missing entry keeps the settings' name.
class SerialConnectionFactory : public ISerialConnectionFactory
{
public:
    static constexpr const char* kPortsVariable = "TARVIX_WORKSURFACE_SERIAL_PORTS";

    SerialConnectionFactory(std::shared_ptr<ISettings> settings,
                            std::shared_ptr<ISoftwareControllerConnection> controller);

    // Uses the settings it is given, which the surface service passes as the same object
    // the factory was built with.
    std::shared_ptr<ISerialConnection> createSerialConnection(
        uint8_t sectionIndex, const std::shared_ptr<ISettings>& settings) override;

    // The device a hardware section is opened on: the environment's entry for the section
    // if it names one, else the settings' name.
    static QString serialPortName(uint8_t sectionIndex, const ISettings& settings);

private:
    std::shared_ptr<ISettings> m_settings;
    std::shared_ptr<ISoftwareControllerConnection> m_controller;
};

}  // namespace Velmora::Worksurface
