#include "support/fakeserialconnectionfactory.h"

#include "support/fakeserialconnection.h"

using namespace Velmora::Worksurface;

FakeSerialConnectionFactory::FakeSerialConnectionFactory() : m_record(std::make_shared<Record>()) {}

FakeSerialConnectionFactory::~FakeSerialConnectionFactory() = default;

std::shared_ptr<ISerialConnection> FakeSerialConnectionFactory::createSerialConnection(
    uint8_t sectionIndex, const std::shared_ptr<ISettings>& settings)
{
    auto line = std::make_shared<FakeSerialConnection>();
    m_record->push_back({sectionIndex, settings, line});
    return line;
}
