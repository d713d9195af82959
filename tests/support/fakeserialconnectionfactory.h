#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "serial/iserialconnectionfactory.h"

class FakeSerialConnection;

// Hands the connection factory a FakeSerialConnection for every section and keeps a record
// of what it made. The record is shared, so the test keeps it after the factory itself has
// been handed over to (and dropped with) the connection factory.
class FakeSerialConnectionFactory : public Velmora::Worksurface::ISerialConnectionFactory
{
public:
    struct Made
    {
        uint8_t sectionIndex;
        std::shared_ptr<Velmora::Worksurface::ISettings> settings;
        std::shared_ptr<FakeSerialConnection> line;
    };
    using Record = std::vector<Made>;

    FakeSerialConnectionFactory();
    ~FakeSerialConnectionFactory() override;

    std::shared_ptr<Velmora::Worksurface::ISerialConnection> createSerialConnection(
        uint8_t sectionIndex,
        const std::shared_ptr<Velmora::Worksurface::ISettings>& settings) override;

    std::shared_ptr<Record> record() const { return m_record; }

private:
    std::shared_ptr<Record> m_record;
};
