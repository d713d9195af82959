#include "serial/flightrecorder.h"

#include <algorithm>
#include <cstring>

namespace Velmora::Worksurface {

FlightRecorder::FlightRecorder(int capacity) : m_capacity(std::clamp(capacity, 0, kMaxCapacity))
{
    if (m_capacity > 0) {
        m_slots.resize(static_cast<std::size_t>(m_capacity));
        m_texts.resize(kTextSlots);
    }
}

uint64_t FlightRecorder::written() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_written;
}

FlightRecorder::Slot& FlightRecorder::nextSlotLocked()
{
    Slot& slot = m_slots[static_cast<std::size_t>(m_written % static_cast<uint64_t>(m_capacity))];
    ++m_written;
    return slot;
}

void FlightRecorder::record(int64_t nowNs, Kind kind, const char* bytes, int size)
{
    if (m_capacity == 0) {
        return;
    }
    const int64_t tUs = nowNs / 1000;
    std::lock_guard<std::mutex> lock(m_mutex);
    int offset = 0;
    do {
        const int chunk = std::min(size - offset, kSlotBytes);
        Slot& slot = nextSlotLocked();
        slot.tUs = tUs;
        slot.portText = 0;
        slot.errorText = 0;
        slot.value = 0;
        slot.kind = static_cast<uint8_t>(kind);
        slot.event = 0;
        slot.size = static_cast<uint8_t>(chunk > 0 ? chunk : 0);
        slot.continuation = offset > 0 ? 1 : 0;
        if (chunk > 0) {
            std::memcpy(slot.data, bytes + offset, static_cast<std::size_t>(chunk));
        }
        offset += kSlotBytes;
    } while (offset < size);
}

uint32_t FlightRecorder::keepTextLocked(const QString& text)
{
    if (text.isEmpty()) {
        return 0;
    }
    const uint32_t id = m_nextText++;
    if (m_nextText == 0) {
        m_nextText = 1;
    }
    Text& slot = m_texts[id % kTextSlots];
    slot.id = id;
    slot.text = text;
    return id;
}

void FlightRecorder::recordEvent(int64_t nowNs, Event event, int value, const QString& port,
                                 const QString& error)
{
    if (m_capacity == 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    Slot& slot = nextSlotLocked();
    slot.tUs = nowNs / 1000;
    slot.portText = keepTextLocked(port);
    slot.errorText = keepTextLocked(error);
    slot.value = value;
    slot.kind = static_cast<uint8_t>(Kind::Event);
    slot.event = static_cast<uint8_t>(event);
    slot.size = 0;
    slot.continuation = 0;
}

std::vector<FlightRecorder::Record> FlightRecorder::snapshot(int section) const
{
    std::vector<Record> records;
    if (m_capacity == 0) {
        return records;
    }
    // The slots are copied out in one go and decoded without the lock, so a link that
    // records meanwhile waits for a copy of the ring, not for the records to be built.
    std::vector<Slot> copied;
    std::vector<Text> texts;
    uint64_t written = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        written = m_written;
        const uint64_t count = std::min<uint64_t>(written, static_cast<uint64_t>(m_capacity));
        copied.reserve(static_cast<std::size_t>(count));
        for (uint64_t i = written - count; i < written; ++i) {
            copied.push_back(
                m_slots[static_cast<std::size_t>(i % static_cast<uint64_t>(m_capacity))]);
        }
        texts = m_texts;
    }
    auto text = [&texts](uint32_t id) {
        if (id == 0) {
            return QString();
        }
        const Text& slot = texts[id % kTextSlots];
        // Overwritten by a newer event's text: the old one is gone.
        return slot.id == id ? slot.text : QString();
    };

    records.reserve(copied.size());
    for (std::size_t i = 0; i < copied.size(); ++i) {
        const Slot& slot = copied[i];
        const Kind kind = static_cast<Kind>(slot.kind);
        if (slot.continuation && i > 0 && !records.empty() && records.back().kind == kind) {
            records.back().bytes.append(slot.data, slot.size);
            continue;
        }
        Record record;
        record.tUs = slot.tUs;
        record.kind = kind;
        record.event = static_cast<Event>(slot.event);
        record.value = slot.value;
        record.section = section;
        if (kind == Kind::Event) {
            record.port = text(slot.portText);
            record.error = text(slot.errorText);
        } else {
            record.bytes = QByteArray(slot.data, slot.size);
        }
        records.push_back(std::move(record));
    }
    return records;
}

std::size_t FlightRecorder::memoryBytes() const
{
    return sizeof(FlightRecorder) + m_slots.capacity() * sizeof(Slot) +
           m_texts.capacity() * sizeof(Text);
}

}  // namespace Velmora::Worksurface
