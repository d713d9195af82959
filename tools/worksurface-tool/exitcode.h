#pragma once

// The tool's exit codes, the same for every command. With several sections the first
// failure's code is returned (every section is still reported).
namespace ExitCode {
enum : int
{
    Success = 0,
    Usage = 1,              // bad command line
    PortError = 2,          // a port could not be opened
    NoAnswer = 3,           // a section did not answer in time
    FileError = 4,          // the firmware file (decode: the capture, trace: the trace) is
                            // missing, unreadable or not what the command takes
    ResendsExhausted = 5,   // the bootloader kept refusing a packet during an update
    BootloaderError = 6,    // the bootloader reported an error status
    NotInBootloader = 7,    // flash found a section running its application
    StillInBootloader = 8,  // flash: the section stayed in its bootloader after its updates
    Interrupted = 9,        // Ctrl-C or SIGTERM during flash or exercise
    WrongVersion = 10,      // flash: the section came back with another than --expect-version
    StoppedAnswering = 11,  // flash: the bootloader stopped answering in the middle of an
                            // update (the section waits in its bootloader: flash again)
};

// With several sections the first failure's code is the tool's: code takes candidate only
// while it is still Success.
inline void keepFirst(int& code, int candidate)
{
    if (code == Success) {
        code = candidate;
    }
}
}  // namespace ExitCode
