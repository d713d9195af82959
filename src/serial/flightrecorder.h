#pragma once

#include <QByteArray>
#include <QString>
#include <array>
#include <cstdint>
#include <mutex>
#include <vector>

namespace Velmora::Worksurface {

// A link's flight recorder: a fixed ring of what most recently crossed the link, frames in
// both directions with the parser's verdict, bootloader packets and the link's own events,
// each stamped with the monotonic clock in microseconds. The oldest entries are overwritten.
//
// Cheap enough to stay on: the ring is allocated once, when the link is built, and a frame
// is copied into a fixed slot; nothing is allocated per frame. Bytes longer than one slot
// holds (a run of noise, a bootloader packet) take several slots, marked as continuations,
// and are joined again by snapshot(). Events that name a port or an error keep those texts
// in a small ring of their own, so a frame's slot stays small. A capacity of 0 records
// nothing and allocates nothing.
//
// Threads: written only by the link's own thread; snapshot() may be called from any thread
// (saving a trace from QML while the links run on the surface thread). The mutex guards the
// ring only and nothing is called while it is held.
class FlightRecorder
{
public:
    static constexpr int kDefaultCapacity = 4096;
    // Larger capacities are cut to this (about 56 MiB of ring).
    static constexpr int kMaxCapacity = 1 << 20;
    // Bytes one slot holds; a frame is at most 26 bytes, so every frame takes one slot.
    static constexpr int kSlotBytes = 32;
    // Texts kept for events (port names, port errors).
    static constexpr int kTextSlots = 64;

    enum class Kind : uint8_t
    {
        FrameIn,        // a received frame the parser accepted
        FrameOut,       // a frame written to the line
        BadChecksum,    // received bytes that looked like a frame but failed its checksum
        Noise,          // received bytes the parser skipped while resynchronising
        BootloaderIn,   // bytes the section's bootloader sent during an update
        BootloaderOut,  // a bootloader packet written during an update
        Event,          // a link event
    };

    enum class Event : uint8_t
    {
        State,             // value: the new linkState
        PortOpen,          // text: the port; value: 1 opened, 0 failed; error: why it failed
        PortError,         // text: the port; error: the device's error
        Restart,           // the silent link is closed and opened again
        Reconnect,         // a reconnection attempt
        UpdateStart,       // a firmware update begins
        UpdateProgress,    // value: percent, every 10 %
        UpdateEnd,         // the update finished
        UpdateFailed,      // value: the failure's reason
        CalibrationStart,  // the section is told to calibrate
        CalibrationEnd,    // the section reported calibration done
    };

    // One entry as snapshot() gives it: bytes joined, texts resolved.
    struct Record
    {
        int64_t tUs = 0;
        Kind kind = Kind::Event;
        Event event = Event::State;
        int value = 0;
        QByteArray bytes;
        QString port;
        QString error;
        int section = 0;
    };

    explicit FlightRecorder(int capacity = kDefaultCapacity);

    FlightRecorder(const FlightRecorder&) = delete;
    FlightRecorder& operator=(const FlightRecorder&) = delete;

    int capacity() const { return m_capacity; }
    // Slots written since the recorder was built (more than the capacity once it wrapped).
    uint64_t written() const;

    // Bytes seen on the line. Long byte runs take several slots.
    void record(int64_t nowNs, Kind kind, const char* bytes, int size);
    void record(int64_t nowNs, Kind kind, const QByteArray& bytes)
    {
        record(nowNs, kind, bytes.constData(), bytes.size());
    }
    void recordEvent(int64_t nowNs, Event event, int value = 0, const QString& port = QString(),
                     const QString& error = QString());

    // What the ring holds now, oldest first, every record marked with this section.
    std::vector<Record> snapshot(int section = 0) const;

    // Bytes the recorder holds for its ring, whatever it holds now.
    std::size_t memoryBytes() const;

private:
    struct Slot
    {
        int64_t tUs;
        uint32_t portText;   // event: text id of the port, 0 for none
        uint32_t errorText;  // event: text id of the error, 0 for none
        int32_t value;       // event: its value
        uint8_t kind;
        uint8_t event;
        uint8_t size;          // bytes used in data
        uint8_t continuation;  // 1: more bytes of the slot before
        char data[kSlotBytes];
    };

    struct Text
    {
        uint32_t id = 0;
        QString text;
    };

    Slot& nextSlotLocked();
    uint32_t keepTextLocked(const QString& text);

    const int m_capacity;
    mutable std::mutex m_mutex;
    std::vector<Slot> m_slots;
    uint64_t m_written = 0;
    std::vector<Text> m_texts;
    uint32_t m_nextText = 1;
};

}  // namespace Velmora::Worksurface
