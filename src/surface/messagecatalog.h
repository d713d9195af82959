#pragma once

#include <QString>
#include <cstdint>

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

class ISettings;
class JsonLine;

// Which controls a section has: a strip section only its strips' faders, switches and
// rotaries; the master section also the master controls and the side rotaries. The default
// names every control the device-id table knows (a capture of unknown origin).
struct MessageScope
{
    bool master = true;
    int strips = 255;
    int sideRotaries = 255;
};

// The one table of names the bench tool and the trace files use: message types by name, the control
// a device id belongs to (from the core's device-id table, read backwards) and a message's value in
// the control's own terms. Text and JSON output both take their words from here.
class MessageCatalog
{
public:
    // What a message says, in words.
    struct Description
    {
        QString typeName;  // "fader position"
        QString control;   // "fader 3"; empty when the device id names no control
        bool hasValue = false;
        QString valueText;  // "position 399"
        // The JSON value: a number where the value is a number, else valueWord.
        bool numeric = false;
        int number = 0;
        QString valueWord;  // "on", "pressed", "#ff0000", ...
        // The section's version report: its value is the pair (version, temperature).
        bool versionReport = false;
        int version = 0;
        int temperature = 0;
    };

    using Scope = MessageScope;
    static Scope scopeFor(const ISettings& settings, uint8_t section);

    // "fader position" for 7, ...; "type 23" and up for what is no message type.
    static QString typeName(uint8_t type);
    // The control a message of this type with this device id addresses, e.g. "mute 2",
    // "master fader", "side rotary 2", "headphone pot"; "section" for the section's own
    // messages; empty when there is none.
    static QString controlName(uint8_t type, uint8_t deviceId, const Scope& scope = Scope());
    // Whether the message is a control's report (or the section's own version report), the
    // kind of message a component of the section takes; the link's own messages (serial
    // error, calibration done, bootloader report, echo) are not.
    static bool isControlReport(const SerialMessage& message, const Scope& scope = Scope());
    static Description describe(const SerialMessage& message, const Scope& scope = Scope());
    // The documented JSON keys of a frame: type, typeName, device, then control and value where
    // the message has them (a version report's value is {version, temperature}).
    static void addTo(JsonLine& line, const SerialMessage& message, const Description& d);
};

}  // namespace Velmora::Worksurface
