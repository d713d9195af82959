#include "support/fakesettings.h"

QString FakeSettings::serialPortName(uint8_t section) const
{
    const auto it = m_portNames.find(section);
    return it == m_portNames.end() ? QString() : it->second;
}
