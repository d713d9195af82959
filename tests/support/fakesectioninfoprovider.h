#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "base/isectioninfoprovider.h"

namespace Velmora::Worksurface {
class ISectionInfo;
}

// Plays the surface service's face that hands each section its information model: answers
// the model the test registered for a section index, null for any other index (as the
// service does for a fourth section), and records every index it was asked for.
class FakeSectionInfoProvider : public Velmora::Worksurface::ISectionInfoProvider
{
public:
    void set(uint8_t section, Velmora::Worksurface::ISectionInfo* info) { m_infos[section] = info; }

    Velmora::Worksurface::ISectionInfo* getForSection(uint8_t section) override
    {
        asked.push_back(section);
        const auto found = m_infos.find(section);
        return found == m_infos.end() ? nullptr : found->second;
    }

    std::vector<uint8_t> asked;

private:
    std::map<uint8_t, Velmora::Worksurface::ISectionInfo*> m_infos;
};
