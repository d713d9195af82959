#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <cstdint>

#include "serial/serialmessage.h"
#include "updater/bootloaderpacket.h"

class QSocketNotifier;
class QTimer;

// Plays one worksurface section on the far end of a pseudo-terminal, so the plugin's
// serial code runs against a real tty device instead of a mock.
//
// The simulator opens a pty pair with openpty(), puts both ends into raw mode and reads
// the master end with a QSocketNotifier on the thread that created it. The plugin side
// opens slavePath() with QSerialPort exactly as it opens a console's "/dev/ttymxcN".
// Everything happens on the event loop of the creating thread: tests drive it with
// QSignalSpy::wait() or QTRY_* and generous time-outs (5 s); in practice each exchange
// completes in milliseconds.
//
// Before handing out a pty the simulator opens its slave once with QSerialPort and closes
// it again: QSerialPort locks devices by name, and a pty number that another test process
// has just freed may still be locked for a moment; such a pty is skipped. isOpen() is
// false (see errorString()) if no usable pty could be made.
//
// The simulator keeps its own descriptor of the slave end open for its whole life. That
// way the pty survives the plugin closing and reopening its port (the link's restart
// after a silent section), and the simulator can ask the kernel how many bytes still
// wait in the slave's input queue (waitUntilPeerHasRead()).
//
// Two modes:
//
// - Application (the default): the section's firmware runs. Every byte the plugin writes
//   is recorded (receivedBytes()) and split into frames by the section's own frame
//   decoder: [length, type, device id, payload..., checksum], length 3..25, type below
//   23, checksum the 8-bit sum of the bytes before it. Valid frames are recorded
//   (receivedMessages()) and announced with messageReceived(); discarded bytes with
//   badDataReceived(). A ping (type 0 with an empty payload) is answered, while
//   answersPings() is true and the simulator is not silent, with the version report:
//   type 0, device 0, payload [lead byte, version, temperature] (by default 0A 22 28, i.e.
//   the frame 06 00 00 0A 22 28 5A). The bootloader's auto-baud request 0x55 0x55 found
//   at a frame boundary is answered with NotBootLoader (0xAA), as a running application
//   does when the plugin probes for the bootloader on opening the link.
//
// - Bootloader: the microcontroller sits in its serial bootloader. Bytes are read as
//   bootloader packets: 0x00 is ignored; 0xCC and 0x33 from the plugin (its ACK of a
//   status packet, or a NAK) are counted; 0x55 0x55 (AutoBaud) is answered with
//   CommandAck (0xCC); any other byte is a size byte s (3..67) of a packet
//   [s, checksum, command, payload...] whose checksum is the 8-bit sum of command and
//   payload. A packet with a bad checksum is answered with CommandNak (0x33). A good one
//   is answered with CommandAck, unless it was picked to be refused (nakNextPackets(),
//   nakCommand()), in which case it is answered with CommandNak and not executed. Then:
//     Ping       nothing more
//     Download   remembers address and size (big-endian 32-bit each), empties the image
//     SendData   appends its payload (64 bytes) to the image
//     GetStatus  after the ACK sends the status packet [3, status, status]; the status is
//                the next one queued with enqueueStatusReply(), else statusReply()
//                (Success unless changed)
//     Reset, Run leave the bootloader: the simulator switches to application mode, so a
//                later AutoBaud is answered with NotBootLoader (0xAA)
//     other      acknowledged; the next status becomes InvalidCommand
//   commandCount() counts every well-formed packet heard by command code (0x55 for
//   AutoBaud, 0xCC and 0x33 for the plugin's single-byte answers), refused ones included;
//   a packet with a bad checksum is not counted.
//
// Silence: while silent (setSilent(true)) the section hears and records everything but
// writes nothing on its own and executes no bootloader packet; setSilent(false) makes it
// speak again. What the test sends explicitly (send*(), sendRaw()) always goes out.
//
// Hang-up: hangUp() closes both of the simulator's descriptors, like a section whose
// cable was pulled. The slave then reads as end of file: QSerialPort reports
// QSerialPort::ReadError or ResourceError (which one depends on the errno Qt finds left
// over), and the plugin's connection closes the port on it; the device node disappears,
// so reopening it fails with
// DeviceNotFoundError. There is no way back: a test that needs the section again makes a
// new simulator.
//
// Writes from the simulator are queued and written without blocking. With
// setPacedBaudRate() the queue is drained at the line's pace (baud / 10 bytes per second,
// 8N1), which a benchmark uses to see the real 115200-baud timing: each byte reaches the
// other end once the line has carried it (a short answer is waited for on the simulator's
// thread, to the microsecond); by default bytes go out at once.
class PtySectionSimulator : public QObject
{
    Q_OBJECT
public:
    enum class Mode
    {
        Application,
        Bootloader,
    };

    explicit PtySectionSimulator(QObject* parent = nullptr);
    ~PtySectionSimulator() override;

    // True while the pty exists: it opened and has not been hung up.
    bool isOpen() const;
    // What went wrong when the pty could not be made.
    QString errorString() const;
    // The slave device ("/dev/pts/N") for the plugin to open.
    QString slavePath() const;
    // Takes in what the plugin's end has written so far, as the event loop would when the
    // line is readable, but at once: a test sees what is on the line when a write returns.
    void readLineNow();

    // The slave's line settings as the plugin's end last set them. The simulator leaves
    // the slave at 9600 baud, 2 stop bits and hardware flow control (in raw mode, so no
    // byte is altered), so a test sees whether the plugin set its line up; a pty passes
    // bytes unchanged whatever these say. Linux keeps a pty at 8 data bits without parity
    // whatever is asked for, so those two fields cannot show a change.
    struct LineSettings
    {
        int inputBaud = 0;
        int outputBaud = 0;
        int dataBits = 0;
        bool parity = false;
        int stopBits = 0;
        bool hardwareFlowControl = false;
        bool softwareFlowControl = false;
        bool raw = false;  // no echo, no canonical input, no byte translation
    };
    LineSettings lineSettings() const;

    // --- Application behaviour -----------------------------------------------------------

    bool answersPings() const;
    void setAnswersPings(bool answer);
    // The payload of the version report: [lead byte, version, temperature].
    void setVersionReport(uint8_t version, uint8_t temperature, uint8_t leadByte = 10);
    QByteArray versionReportPayload() const;
    // Whether AutoBaud heard in application mode is answered with NotBootLoader (default
    // true).
    bool answersAutoBaudInApplication() const;
    void setAnswersAutoBaudInApplication(bool answer);

    bool isSilent() const;
    void setSilent(bool silent);

    Mode mode() const;
    // Switching mode forgets bytes that were half a frame or half a packet.
    void setMode(Mode mode);

    // --- Bootloader behaviour ------------------------------------------------------------

    // Refuse the next count well-formed packets (any command) with CommandNak.
    void nakNextPackets(int count);
    // Refuse the next count packets of this command (count -1: all of them).
    void nakCommand(uint8_t command, int count = 1);
    // The status sent after GetStatus when none is queued (Success by default).
    uint8_t statusReply() const;
    void setStatusReply(uint8_t status);
    // A one-time status for the next GetStatus (queued in order, used before the default).
    void enqueueStatusReply(uint8_t status);

    // The image written with SendData since the last Download.
    QByteArray image() const;
    uint32_t downloadAddress() const;
    uint32_t downloadSize() const;
    // Well-formed packets heard in bootloader mode by command code, refused and ignored
    // ones included; AutoBaud (0x55) is counted in both modes.
    int commandCount(uint8_t command) const;
    // Well-formed bootloader packets heard, in order (AutoBaud and single bytes excluded).
    QList<Velmora::Worksurface::BootloaderPacket> receivedPackets() const;

    // --- Sending -------------------------------------------------------------------------

    // The frame a section writes for a message: its length byte is 3 plus the payload
    // size (the section always sends exactly its payload), then type, device id, payload
    // and the 8-bit sum of all of them.
    static QByteArray encodeFrame(uint8_t type, uint8_t deviceId,
                                  const QByteArray& payload = QByteArray());
    void sendMessage(const Velmora::Worksurface::SerialMessage& message);
    void sendFrame(uint8_t type, uint8_t deviceId, const QByteArray& payload = QByteArray());
    void sendVersionReport();
    // Reports as the section's controls send them.
    void sendFaderPosition(uint8_t deviceId, uint16_t position);
    void sendFaderTouch(uint8_t deviceId, bool touched);
    void sendRotaryStep(uint8_t deviceId, int8_t steps);
    void sendRotaryTouch(uint8_t deviceId, bool touched);
    void sendButton(uint8_t deviceId, bool pressed);
    void sendPotValue(uint8_t deviceId, uint16_t value);
    void sendCalibrationDone();
    // "I received bad data": type 2, device 0.
    void sendSerialError();

    // Queues bytes as they are, no framing.
    void sendRaw(const QByteArray& bytes);
    // Writes count pseudo-random bytes (the same for the same seed) and returns them.
    QByteArray sendNoise(int count, quint32 seed = 1);

    // Writes bytes in pieces of the given sizes (what is left after the listed sizes is one
    // last piece). After each piece the simulator drains it into the pty (tcdrain) and
    // runs the event loop until the plugin's end has taken the piece out of the slave's
    // input queue (see waitUntilPeerHasRead()), so a QSerialPort reading on this thread
    // sees every piece in its own readyRead. If the plugin's port is not open or reads
    // elsewhere, the pieces wait in the kernel and arrive coalesced; the concatenation is
    // the same either way, so tests assert the concatenation and may assert the number of
    // deliveries only when the port reads on this thread. Returns false if some piece
    // was not read within timeoutMs. Not for use with pacing.
    bool sendRawSplit(const QByteArray& bytes, const QList<int>& chunkSizes, int timeoutMs = 5000);

    // 0 (default): write at once. Otherwise drain the outgoing queue at baud / 10 bytes a
    // second (8N1), e.g. 115200 -> 11,520 bytes/s, one byte every ~87 us on average: a
    // 1 ms precise timer writes whatever is due by the middle of its next tick, so bytes
    // leave in groups of about 12, on average when the line would send them.
    // The first byte of a write into an empty queue goes out at once.
    void setPacedBaudRate(int baud);
    int pacedBaudRate() const;
    // Paces what the plugin sends as well, which a pty carries at once: each chunk read is
    // taken in only when a line at `baud` (8N1) would have delivered its last byte, after
    // the chunks before it. 0 (the default): at once.
    void setPacedInputBaudRate(int baud);
    // Bytes queued but not yet written into the pty.
    int pendingOutgoing() const;
    // Runs the event loop until the outgoing queue is empty; false on time-out or hang-up.
    bool waitForBytesWritten(int timeoutMs = 5000);
    // Runs the event loop until the slave's input queue is empty (the plugin has read what
    // was written) and at least 2 ms have passed, so that bytes still in the kernel's
    // hand-over from master to slave are not missed. False on time-out or hang-up.
    bool waitUntilPeerHasRead(int timeoutMs = 5000);

    // Closes the pty: the section's cable is pulled.
    void hangUp();

    // --- What the plugin sent ------------------------------------------------------------

    QByteArray receivedBytes() const;
    QList<Velmora::Worksurface::SerialMessage> receivedMessages() const;
    QList<Velmora::Worksurface::SerialMessage> receivedMessages(uint8_t type) const;
    // Bytes the frame decoder discarded (application mode) or that were no packet
    // (bootloader mode).
    QByteArray badBytes() const;
    // Pings heard (type 0 with an empty payload), answered or not.
    int pingCount() const;
    // Forgets everything recorded (bytes, messages, bad bytes, pings, packets, counts).
    void clearReceived();

signals:
    // Every chunk read from the pty, as read.
    void bytesReceived(const QByteArray& chunk);
    // Each decoded frame in application mode, in stream order.
    void messageReceived(int type, int deviceId, const QByteArray& payload);
    // The bytes one read discarded.
    void badDataReceived(const QByteArray& bytes);
    void pingAnswered();
    // Each well-formed bootloader packet, before it is answered.
    void bootloaderPacketReceived(int command, const QByteArray& payload);
    // AutoBaud heard (either mode).
    void autoBaudReceived();
    // The bootloader left for the application (Reset or Run), or setMode() changed it.
    void modeChanged();
    void hungUp();

private:
    void onReadable();
    void onWritable();
    void processInput();
    bool processApplication();
    bool processBootloader();
    void handleFrame(const Velmora::Worksurface::SerialMessage& message);
    void handlePacket(uint8_t command, const QByteArray& payload);
    void answer(const QByteArray& bytes);
    void pump();
    // How many queued bytes the paced line lets out now.
    qint64 pacedAllowance();
    void closeFds();
    bool runEventLoopFor(int ms);

    int m_masterFd = -1;
    int m_slaveFd = -1;
    QString m_slavePath;
    QString m_error;
    QSocketNotifier* m_readNotifier = nullptr;
    QSocketNotifier* m_writeNotifier = nullptr;
    QTimer* m_paceTimer = nullptr;

    Mode m_mode = Mode::Application;
    bool m_answersPings = true;
    bool m_answersAutoBaud = true;
    bool m_silent = false;
    QByteArray m_versionPayload;

    // Input not yet consumed by the decoder, from m_inputPos on.
    QByteArray m_input;
    int m_inputPos = 0;
    QByteArray m_badInRead;

    QByteArray m_received;
    QList<Velmora::Worksurface::SerialMessage> m_messages;
    QByteArray m_bad;
    int m_pings = 0;

    int m_nakNext = 0;
    QMap<uint8_t, int> m_nakByCommand;
    uint8_t m_statusReply;
    uint8_t m_lastStatus;
    QList<uint8_t> m_queuedStatus;
    QByteArray m_image;
    uint32_t m_downloadAddress = 0;
    uint32_t m_downloadSize = 0;
    QMap<uint8_t, int> m_commandCounts;
    QList<Velmora::Worksurface::BootloaderPacket> m_packets;

    QByteArray m_output;
    int m_pacedBaud = 0;
    QElapsedTimer m_paceClock;
    qint64 m_pacedWritten = 0;

    // Input pacing: chunks read but not yet delivered by the paced line, with the time (on
    // m_inputClock) at which their last byte arrives.
    void takeIn(const QByteArray& chunk);
    void deliverArrived();
    int m_pacedInputBaud = 0;
    QElapsedTimer m_inputClock;
    qint64 m_inputLineFreeNs = 0;
    QList<QPair<qint64, QByteArray>> m_arriving;
    QTimer* m_arrivalTimer = nullptr;
};
