#include "support/ptysectionsimulator.h"

#include <fcntl.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>
#include <QEventLoop>
#include <QPair>
#include <QSerialPort>
#include <QSocketNotifier>
#include <QTimer>
#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "tasks/shortslice.h"

using namespace Velmora::Worksurface;

namespace {

// Pacing runs on a 1 ms precise timer: its tick and half of it, in nanoseconds. What is due
// within a tick is waited for on the simulator's thread (waitUntil()), the rest on the timer.
constexpr qint64 kTickNs = 1000000;
constexpr qint64 kHalfTickNs = kTickNs / 2;

// A paced line keeps time to the microsecond: the thread that plays it has its timers and
// sleeps end when asked, not up to the kernel's default 50 us slack later (for every
// answer of an update, a 50 us the real line does not take), and it runs in short turns,
// so that an answer due while another thread holds the CPU (a QML thread running script)
// leaves when due instead of at the end of that thread's turn: a section answers from its
// own microcontroller and never waits for the console's CPU. Once per thread.
void keepTimeTightly()
{
    // Both are best effort: a line kept less tightly is only later, never wrong.
    static thread_local const bool done = [] {
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        askForShortSlice();
        return true;
    }();
    (void)done;
}

// How much later than asked a sleep of under a millisecond ends: the kernel's wake-up, some
// tens of microseconds (25 to 50 us on the 2-core build machine, more on a loaded one).
constexpr qint64 kWakeUpNs = 60000;

// Waits on the simulator's thread until `clock` reads `dueNs` (less than a timer tick away;
// nothing if that has passed). A section's microcontroller answers within microseconds of
// the last byte, so the sleep stops short by a wake-up and the rest is spun out on the clock:
// slept to the end, each paced answer and each short packet taken in would be some 40 us
// late, five times in every block of an update.
void waitUntil(const QElapsedTimer& clock, qint64 dueNs)
{
    const qint64 sleepNs = dueNs - clock.nsecsElapsed() - kWakeUpNs;
    if (sleepNs > 0) {
        const timespec pause{0, static_cast<long>(sleepNs)};
        nanosleep(&pause, nullptr);
    }
    while (clock.nsecsElapsed() < dueNs) {
    }
}

// Frames the section accepts: length byte 3..25 (4..26 bytes).
constexpr int MinFrameLength = 3;
constexpr int MaxFrameLength = 25;
// Bootloader packets the plugin sends: 3 (Ping, GetStatus, Reset) to 67 (SendData) bytes.
constexpr int MinPacketSize = 3;
constexpr int MaxPacketSize = 67;
// How long the kernel may take to hand bytes from the master to the slave's queue.
constexpr int HandOverMs = 2;

// Raw mode: bytes pass unchanged in both directions. The slave end also gets line
// settings that the plugin must change (9600 baud, 2 stop bits, RTS/CTS), so that its set-up is
// seen.
bool makeRaw(int fd, bool awkwardLine)
{
    termios tio;
    if (::tcgetattr(fd, &tio) != 0) {
        return false;
    }
    ::cfmakeraw(&tio);
    const speed_t speed = awkwardLine ? B9600 : B115200;
    ::cfsetispeed(&tio, speed);
    ::cfsetospeed(&tio, speed);
    if (awkwardLine) {
        tio.c_cflag |= CSTOPB | CRTSCTS;
    }
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VTIME] = 0;
    return ::tcsetattr(fd, TCSANOW, &tio) == 0;
}

int baudOf(speed_t speed)
{
    switch (speed) {
        case B9600:
            return 9600;
        case B19200:
            return 19200;
        case B38400:
            return 38400;
        case B57600:
            return 57600;
        case B115200:
            return 115200;
        case B230400:
            return 230400;
        default:
            return -1;
    }
}

uint8_t u8(char c)
{
    return static_cast<uint8_t>(c);
}

}  // namespace

PtySectionSimulator::PtySectionSimulator(QObject* parent)
    : QObject(parent),
      m_statusReply(BootloaderCommand::Success),
      m_lastStatus(BootloaderCommand::Success)
{
    setVersionReport(34, 40, 10);

    // QSerialPort guards every device with a lock file named after it. Pty numbers are
    // reused at once, so a pty just freed by another test process may still have its lock
    // held for a moment; such a pty is put aside (kept open, so it is not handed out
    // again) and another one taken.
    QList<QPair<int, int>> asideFds;
    for (int attempt = 0; attempt < 8 && m_masterFd < 0; ++attempt) {
        int master = -1;
        int slave = -1;
        if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
            m_error =
                QStringLiteral("openpty failed: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            break;
        }
        char name[128] = {};
        if (::ptsname_r(master, name, sizeof(name)) != 0) {
            m_error =
                QStringLiteral("ptsname failed: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            ::close(master);
            ::close(slave);
            break;
        }
        if (!makeRaw(master, false) || !makeRaw(slave, true)) {
            m_error =
                QStringLiteral("raw mode failed: %1").arg(QString::fromLocal8Bit(strerror(errno)));
            ::close(master);
            ::close(slave);
            break;
        }
        const QString path = QString::fromLocal8Bit(name);
        QSerialPort probe;
        probe.setPortName(path);
        if (!probe.open(QIODevice::ReadWrite)) {
            m_error = QStringLiteral("%1 cannot be opened: %2").arg(path, probe.errorString());
            asideFds.append(qMakePair(master, slave));
            continue;
        }
        // Closing restores the line settings the probe found.
        probe.close();
        m_error.clear();
        m_masterFd = master;
        m_slaveFd = slave;
        m_slavePath = path;
    }
    for (const QPair<int, int>& fds : asideFds) {
        ::close(fds.first);
        ::close(fds.second);
    }
    if (m_masterFd < 0) {
        return;
    }
    ::fcntl(m_masterFd, F_SETFD, FD_CLOEXEC);
    ::fcntl(m_slaveFd, F_SETFD, FD_CLOEXEC);
    ::fcntl(m_masterFd, F_SETFL, ::fcntl(m_masterFd, F_GETFL) | O_NONBLOCK);
    ::fcntl(m_slaveFd, F_SETFL, ::fcntl(m_slaveFd, F_GETFL) | O_NONBLOCK);

    m_readNotifier = new QSocketNotifier(m_masterFd, QSocketNotifier::Read, this);
    connect(m_readNotifier, &QSocketNotifier::activated, this, &PtySectionSimulator::onReadable);
    m_writeNotifier = new QSocketNotifier(m_masterFd, QSocketNotifier::Write, this);
    m_writeNotifier->setEnabled(false);
    connect(m_writeNotifier, &QSocketNotifier::activated, this, &PtySectionSimulator::onWritable);
    m_paceTimer = new QTimer(this);
    m_paceTimer->setTimerType(Qt::PreciseTimer);
    m_paceTimer->setInterval(1);
    connect(m_paceTimer, &QTimer::timeout, this, &PtySectionSimulator::pump);
    m_arrivalTimer = new QTimer(this);
    m_arrivalTimer->setTimerType(Qt::PreciseTimer);
    m_arrivalTimer->setSingleShot(true);
    connect(m_arrivalTimer, &QTimer::timeout, this, &PtySectionSimulator::deliverArrived);
}

PtySectionSimulator::~PtySectionSimulator()
{
    closeFds();
}

bool PtySectionSimulator::isOpen() const
{
    return m_masterFd >= 0;
}

void PtySectionSimulator::readLineNow()
{
    onReadable();
}

QString PtySectionSimulator::errorString() const
{
    return m_error;
}

QString PtySectionSimulator::slavePath() const
{
    return m_slavePath;
}

PtySectionSimulator::LineSettings PtySectionSimulator::lineSettings() const
{
    LineSettings settings;
    termios tio;
    if (m_slaveFd < 0 || ::tcgetattr(m_slaveFd, &tio) != 0) {
        return settings;
    }
    settings.inputBaud = baudOf(::cfgetispeed(&tio));
    settings.outputBaud = baudOf(::cfgetospeed(&tio));
    switch (tio.c_cflag & CSIZE) {
        case CS5:
            settings.dataBits = 5;
            break;
        case CS6:
            settings.dataBits = 6;
            break;
        case CS7:
            settings.dataBits = 7;
            break;
        default:
            settings.dataBits = 8;
            break;
    }
    settings.parity = (tio.c_cflag & PARENB) != 0;
    settings.stopBits = (tio.c_cflag & CSTOPB) ? 2 : 1;
    settings.hardwareFlowControl = (tio.c_cflag & CRTSCTS) != 0;
    settings.softwareFlowControl = (tio.c_iflag & (IXON | IXOFF)) != 0;
    settings.raw = (tio.c_lflag & (ECHO | ICANON | ISIG | IEXTEN)) == 0 &&
                   (tio.c_iflag & (ICRNL | INLCR | IGNCR | ISTRIP)) == 0 &&
                   (tio.c_oflag & OPOST) == 0;
    return settings;
}

bool PtySectionSimulator::answersPings() const
{
    return m_answersPings;
}

void PtySectionSimulator::setAnswersPings(bool answer)
{
    m_answersPings = answer;
}

void PtySectionSimulator::setVersionReport(uint8_t version, uint8_t temperature, uint8_t leadByte)
{
    m_versionPayload = QByteArray();
    m_versionPayload.append(static_cast<char>(leadByte));
    m_versionPayload.append(static_cast<char>(version));
    m_versionPayload.append(static_cast<char>(temperature));
}

QByteArray PtySectionSimulator::versionReportPayload() const
{
    return m_versionPayload;
}

bool PtySectionSimulator::answersAutoBaudInApplication() const
{
    return m_answersAutoBaud;
}

void PtySectionSimulator::setAnswersAutoBaudInApplication(bool answer)
{
    m_answersAutoBaud = answer;
}

bool PtySectionSimulator::isSilent() const
{
    return m_silent;
}

void PtySectionSimulator::setSilent(bool silent)
{
    m_silent = silent;
}

PtySectionSimulator::Mode PtySectionSimulator::mode() const
{
    return m_mode;
}

void PtySectionSimulator::setMode(Mode mode)
{
    if (m_mode == mode) {
        return;
    }
    m_mode = mode;
    m_input.clear();
    m_inputPos = 0;
    emit modeChanged();
}

void PtySectionSimulator::nakNextPackets(int count)
{
    m_nakNext = qMax(0, count);
}

void PtySectionSimulator::nakCommand(uint8_t command, int count)
{
    m_nakByCommand[command] = count;
}

uint8_t PtySectionSimulator::statusReply() const
{
    return m_statusReply;
}

void PtySectionSimulator::setStatusReply(uint8_t status)
{
    m_statusReply = status;
}

void PtySectionSimulator::enqueueStatusReply(uint8_t status)
{
    m_queuedStatus.append(status);
}

QByteArray PtySectionSimulator::image() const
{
    return m_image;
}

uint32_t PtySectionSimulator::downloadAddress() const
{
    return m_downloadAddress;
}

uint32_t PtySectionSimulator::downloadSize() const
{
    return m_downloadSize;
}

int PtySectionSimulator::commandCount(uint8_t command) const
{
    return m_commandCounts.value(command, 0);
}

QList<BootloaderPacket> PtySectionSimulator::receivedPackets() const
{
    return m_packets;
}

QByteArray PtySectionSimulator::encodeFrame(uint8_t type, uint8_t deviceId,
                                            const QByteArray& payload)
{
    QByteArray frame;
    frame.reserve(payload.size() + 4);
    frame.append(static_cast<char>(MinFrameLength + payload.size()));
    frame.append(static_cast<char>(type));
    frame.append(static_cast<char>(deviceId));
    frame.append(payload);
    uint8_t sum = 0;
    for (char c : frame) {
        sum = static_cast<uint8_t>(sum + u8(c));
    }
    frame.append(static_cast<char>(sum));
    return frame;
}

void PtySectionSimulator::sendMessage(const SerialMessage& message)
{
    QByteArray payload;
    for (uint8_t b : message.payload) {
        payload.append(static_cast<char>(b));
    }
    sendFrame(message.type, message.deviceId, payload);
}

void PtySectionSimulator::sendFrame(uint8_t type, uint8_t deviceId, const QByteArray& payload)
{
    sendRaw(encodeFrame(type, deviceId, payload));
}

void PtySectionSimulator::sendVersionReport()
{
    sendFrame(MessageType::Ping, 0, m_versionPayload);
}

void PtySectionSimulator::sendFaderPosition(uint8_t deviceId, uint16_t position)
{
    QByteArray payload;
    payload.append(static_cast<char>(position >> 8));
    payload.append(static_cast<char>(position & 0xFF));
    sendFrame(MessageType::FaderPosition, deviceId, payload);
}

void PtySectionSimulator::sendFaderTouch(uint8_t deviceId, bool touched)
{
    sendFrame(MessageType::FaderTouch, deviceId, QByteArray(1, touched ? 1 : 0));
}

void PtySectionSimulator::sendRotaryStep(uint8_t deviceId, int8_t steps)
{
    sendFrame(MessageType::RotaryStep, deviceId, QByteArray(1, static_cast<char>(steps)));
}

void PtySectionSimulator::sendRotaryTouch(uint8_t deviceId, bool touched)
{
    sendFrame(MessageType::RotaryTouch, deviceId, QByteArray(1, touched ? 1 : 0));
}

void PtySectionSimulator::sendButton(uint8_t deviceId, bool pressed)
{
    sendFrame(MessageType::ButtonState, deviceId, QByteArray(1, pressed ? 1 : 0));
}

void PtySectionSimulator::sendPotValue(uint8_t deviceId, uint16_t value)
{
    QByteArray payload;
    payload.append(static_cast<char>(value >> 8));
    payload.append(static_cast<char>(value & 0xFF));
    sendFrame(MessageType::PotValue, deviceId, payload);
}

void PtySectionSimulator::sendCalibrationDone()
{
    sendFrame(MessageType::Calibration, 0);
}

void PtySectionSimulator::sendSerialError()
{
    sendFrame(MessageType::SerialError, 0);
}

void PtySectionSimulator::sendRaw(const QByteArray& bytes)
{
    if (!isOpen() || bytes.isEmpty()) {
        return;
    }
    if (m_output.isEmpty()) {
        // Idle time earns no credit: pacing starts again with this write.
        m_paceClock.start();
        m_pacedWritten = 0;
    }
    m_output.append(bytes);
    pump();
}

QByteArray PtySectionSimulator::sendNoise(int count, quint32 seed)
{
    // A small xorshift generator: the same noise for the same seed on every platform.
    quint32 state = seed ? seed : 0x9E3779B9u;
    QByteArray noise;
    noise.reserve(qMax(0, count));
    for (int i = 0; i < count; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        noise.append(static_cast<char>(state >> 24));
    }
    sendRaw(noise);
    return noise;
}

bool PtySectionSimulator::sendRawSplit(const QByteArray& bytes, const QList<int>& chunkSizes,
                                       int timeoutMs)
{
    int offset = 0;
    QList<int> sizes = chunkSizes;
    while (offset < bytes.size()) {
        int size = bytes.size() - offset;
        if (!sizes.isEmpty()) {
            size = qBound(0, sizes.takeFirst(), bytes.size() - offset);
        }
        if (size == 0) {
            continue;
        }
        sendRaw(bytes.mid(offset, size));
        offset += size;
        if (!waitForBytesWritten(timeoutMs)) {
            return false;
        }
        ::tcdrain(m_masterFd);
        if (!waitUntilPeerHasRead(timeoutMs)) {
            return false;
        }
    }
    return true;
}

void PtySectionSimulator::setPacedBaudRate(int baud)
{
    m_pacedBaud = qMax(0, baud);
    m_paceClock.start();
    m_pacedWritten = 0;
    pump();
}

int PtySectionSimulator::pacedBaudRate() const
{
    return m_pacedBaud;
}

int PtySectionSimulator::pendingOutgoing() const
{
    return m_output.size();
}

bool PtySectionSimulator::runEventLoopFor(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
    return isOpen();
}

bool PtySectionSimulator::waitForBytesWritten(int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (isOpen() && !m_output.isEmpty()) {
        if (clock.elapsed() > timeoutMs) {
            return false;
        }
        runEventLoopFor(1);
    }
    return isOpen();
}

bool PtySectionSimulator::waitUntilPeerHasRead(int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (isOpen()) {
        int waiting = 0;
        if (::ioctl(m_slaveFd, FIONREAD, &waiting) != 0) {
            return false;
        }
        if (waiting == 0 && m_output.isEmpty() && clock.elapsed() >= HandOverMs) {
            return true;
        }
        if (clock.elapsed() > timeoutMs) {
            return false;
        }
        runEventLoopFor(1);
    }
    return false;
}

void PtySectionSimulator::hangUp()
{
    if (!isOpen()) {
        return;
    }
    closeFds();
    emit hungUp();
}

QByteArray PtySectionSimulator::receivedBytes() const
{
    return m_received;
}

QList<SerialMessage> PtySectionSimulator::receivedMessages() const
{
    return m_messages;
}

QList<SerialMessage> PtySectionSimulator::receivedMessages(uint8_t type) const
{
    QList<SerialMessage> result;
    for (const SerialMessage& message : m_messages) {
        if (message.type == type) {
            result.append(message);
        }
    }
    return result;
}

QByteArray PtySectionSimulator::badBytes() const
{
    return m_bad;
}

int PtySectionSimulator::pingCount() const
{
    return m_pings;
}

void PtySectionSimulator::clearReceived()
{
    m_received.clear();
    m_messages.clear();
    m_bad.clear();
    m_pings = 0;
    m_packets.clear();
    m_commandCounts.clear();
}

void PtySectionSimulator::onReadable()
{
    if (!isOpen()) {
        return;
    }
    QByteArray chunk;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(m_masterFd, buffer, sizeof(buffer));
        if (n > 0) {
            chunk.append(buffer, static_cast<int>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        // EAGAIN: all read. EIO cannot happen while the simulator holds the slave open.
        break;
    }
    if (chunk.isEmpty()) {
        return;
    }
    if (m_pacedInputBaud <= 0) {
        takeIn(chunk);
        return;
    }
    if (!m_inputClock.isValid()) {
        m_inputClock.start();
    }
    const qint64 nowNs = m_inputClock.nsecsElapsed();
    const qint64 bytesPerSecond = m_pacedInputBaud / 10;
    const qint64 startNs = qMax(nowNs, m_inputLineFreeNs);
    m_inputLineFreeNs = startNs + chunk.size() * qint64(1000000000) / bytesPerSecond;
    m_arriving.append(qMakePair(m_inputLineFreeNs, chunk));
    if (!m_arrivalTimer->isActive()) {
        deliverArrived();
    }
}

void PtySectionSimulator::setPacedInputBaudRate(int baud)
{
    m_pacedInputBaud = qMax(0, baud);
    if (m_pacedInputBaud == 0) {
        m_arrivalTimer->stop();
        while (!m_arriving.isEmpty()) {
            takeIn(m_arriving.takeFirst().second);
        }
    }
}

void PtySectionSimulator::deliverArrived()
{
    keepTimeTightly();
    // A chunk is taken in when the line has delivered its last byte: one due within a timer
    // tick is waited for here, to the microsecond; a later one first on the timer, set to
    // fire before it is due, and the rest then here. (Taken in at the nearest tick
    // instead, a three-byte GetStatus would arrive 260 us early every block.)
    while (!m_arriving.isEmpty()) {
        const qint64 waitNs = m_arriving.first().first - m_inputClock.nsecsElapsed();
        if (waitNs >= kTickNs) {
            m_arrivalTimer->start(static_cast<int>(waitNs / kTickNs));
            return;
        }
        waitUntil(m_inputClock, m_arriving.first().first);
        takeIn(m_arriving.takeFirst().second);
    }
}

void PtySectionSimulator::takeIn(const QByteArray& chunk)
{
    if (!isOpen()) {
        return;
    }
    m_received.append(chunk);
    emit bytesReceived(chunk);
    m_input.append(chunk);
    processInput();
}

void PtySectionSimulator::onWritable()
{
    pump();
}

void PtySectionSimulator::processInput()
{
    m_badInRead.clear();
    for (;;) {
        const bool more =
            (m_mode == Mode::Application) ? processApplication() : processBootloader();
        if (!more || !isOpen()) {
            break;
        }
    }
    // Consumed bytes are dropped in one go, so resynchronising stays linear.
    if (m_inputPos > 0) {
        m_input.remove(0, m_inputPos);
        m_inputPos = 0;
    }
    if (!m_badInRead.isEmpty()) {
        m_bad.append(m_badInRead);
        const QByteArray bad = m_badInRead;
        m_badInRead.clear();
        emit badDataReceived(bad);
    }
}

// One step of the section's frame decoder; false when it needs more bytes.
bool PtySectionSimulator::processApplication()
{
    const int available = m_input.size() - m_inputPos;
    if (available <= 0) {
        return false;
    }
    const char* data = m_input.constData() + m_inputPos;
    const uint8_t first = u8(data[0]);

    if (first == BootloaderCommand::AutoBaud) {
        if (available < 2) {
            return false;
        }
        if (u8(data[1]) == BootloaderCommand::AutoBaud) {
            m_inputPos += 2;
            ++m_commandCounts[BootloaderCommand::AutoBaud];
            emit autoBaudReceived();
            if (m_answersAutoBaud && !m_silent) {
                answer(QByteArray(1, static_cast<char>(BootloaderCommand::NotBootLoader)));
            }
            return true;
        }
    }

    if (first < MinFrameLength || first > MaxFrameLength) {
        m_badInRead.append(data[0]);
        ++m_inputPos;
        return true;
    }
    const int size = first + 1;
    if (available < size) {
        return false;
    }
    uint8_t sum = 0;
    for (int i = 0; i < size - 1; ++i) {
        sum = static_cast<uint8_t>(sum + u8(data[i]));
    }
    const uint8_t type = u8(data[1]);
    if (type >= MessageType::NoMessage || sum != u8(data[size - 1])) {
        m_badInRead.append(data[0]);
        ++m_inputPos;
        return true;
    }
    SerialMessage message;
    message.type = type;
    message.deviceId = u8(data[2]);
    message.variableLength = (type == MessageType::Echo);
    for (int i = 3; i < size - 1; ++i) {
        message.payload.push_back(u8(data[i]));
    }
    m_inputPos += size;
    handleFrame(message);
    return true;
}

void PtySectionSimulator::handleFrame(const SerialMessage& message)
{
    m_messages.append(message);
    QByteArray payload;
    for (uint8_t b : message.payload) {
        payload.append(static_cast<char>(b));
    }
    emit messageReceived(message.type, message.deviceId, payload);
    if (message.type == MessageType::Ping && message.payload.empty()) {
        ++m_pings;
        if (m_answersPings && !m_silent) {
            answer(encodeFrame(MessageType::Ping, 0, m_versionPayload));
            emit pingAnswered();
        }
    }
}

// One step of the bootloader's packet reader; false when it needs more bytes.
bool PtySectionSimulator::processBootloader()
{
    const int available = m_input.size() - m_inputPos;
    if (available <= 0) {
        return false;
    }
    const char* data = m_input.constData() + m_inputPos;
    const uint8_t first = u8(data[0]);

    switch (first) {
        case 0x00:
            ++m_inputPos;
            return true;
        case BootloaderCommand::CommandAck:
        case BootloaderCommand::CommandNak:
            ++m_inputPos;
            ++m_commandCounts[first];
            return true;
        case BootloaderCommand::AutoBaud:
            if (available < 2) {
                return false;
            }
            if (u8(data[1]) == BootloaderCommand::AutoBaud) {
                m_inputPos += 2;
                ++m_commandCounts[BootloaderCommand::AutoBaud];
                emit autoBaudReceived();
                if (!m_silent) {
                    answer(QByteArray(1, static_cast<char>(BootloaderCommand::CommandAck)));
                }
                return true;
            }
            break;
        default:
            break;
    }

    if (first < MinPacketSize || first > MaxPacketSize) {
        m_badInRead.append(data[0]);
        ++m_inputPos;
        return true;
    }
    if (available < first) {
        return false;
    }
    uint8_t sum = 0;
    for (int i = 2; i < first; ++i) {
        sum = static_cast<uint8_t>(sum + u8(data[i]));
    }
    const bool checksumOk = (sum == u8(data[1]));
    const uint8_t command = u8(data[2]);
    const QByteArray payload(data + 3, first - 3);
    m_inputPos += first;
    if (!checksumOk) {
        // The bootloader asks for the packet again.
        if (!m_silent) {
            answer(QByteArray(1, static_cast<char>(BootloaderCommand::CommandNak)));
        }
        return true;
    }
    handlePacket(command, payload);
    return true;
}

void PtySectionSimulator::handlePacket(uint8_t command, const QByteArray& payload)
{
    ++m_commandCounts[command];
    m_packets.append(BootloaderPacket(command, payload));
    emit bootloaderPacketReceived(command, payload);
    if (m_silent) {
        return;
    }

    bool refuse = false;
    if (m_nakNext > 0) {
        --m_nakNext;
        refuse = true;
    }
    auto byCommand = m_nakByCommand.find(command);
    if (byCommand != m_nakByCommand.end() && byCommand.value() != 0) {
        if (byCommand.value() > 0) {
            --byCommand.value();
        }
        refuse = true;
    }
    if (refuse) {
        answer(QByteArray(1, static_cast<char>(BootloaderCommand::CommandNak)));
        return;
    }

    answer(QByteArray(1, static_cast<char>(BootloaderCommand::CommandAck)));
    auto word = [&payload](int offset) -> uint32_t {
        if (payload.size() < offset + 4) {
            return 0;
        }
        return (uint32_t(u8(payload[offset])) << 24) | (uint32_t(u8(payload[offset + 1])) << 16) |
               (uint32_t(u8(payload[offset + 2])) << 8) | uint32_t(u8(payload[offset + 3]));
    };
    switch (command) {
        case BootloaderCommand::Ping:
            break;
        case BootloaderCommand::Download:
            m_downloadAddress = word(0);
            m_downloadSize = word(4);
            m_image.clear();
            break;
        case BootloaderCommand::SendData:
            m_image.append(payload);
            break;
        case BootloaderCommand::GetStatus: {
            uint8_t status = m_statusReply;
            if (!m_queuedStatus.isEmpty()) {
                status = m_queuedStatus.takeFirst();
            } else if (m_lastStatus != BootloaderCommand::Success) {
                status = m_lastStatus;
            }
            m_lastStatus = BootloaderCommand::Success;
            QByteArray packet;
            packet.append(static_cast<char>(3));
            packet.append(static_cast<char>(status));
            packet.append(static_cast<char>(status));
            answer(packet);
            break;
        }
        case BootloaderCommand::Reset:
        case BootloaderCommand::Run:
            // The application starts: whatever follows is read as frames.
            m_mode = Mode::Application;
            emit modeChanged();
            break;
        default:
            m_lastStatus = BootloaderCommand::InvalidCommand;
            break;
    }
}

void PtySectionSimulator::answer(const QByteArray& bytes)
{
    sendRaw(bytes);
}

qint64 PtySectionSimulator::pacedAllowance()
{
    keepTimeTightly();
    // A byte reaches the other end once the line has carried all ten of its bits: the
    // queue's last byte is due (written + queued) byte times after pacing started.
    const qint64 bytesPerSecond = m_pacedBaud / 10;
    const qint64 nowNs = m_paceClock.nsecsElapsed();
    const qint64 endNs = (m_pacedWritten + m_output.size()) * qint64(1000000000) / bytesPerSecond;
    if (endNs - nowNs < kTickNs) {
        // All of it is due within a timer tick, as a section's short answer is: wait for
        // its last byte here, to the microsecond, and write it whole. Sent at once, a
        // one-byte ACK would beat the line by its 87 us, and every block of an update has
        // three answers; left to the next tick it would be up to a millisecond late.
        waitUntil(m_paceClock, endNs);
        return m_output.size();
    }
    // A longer stream goes on the 1 ms timer, half a tick ahead: bytes due before the middle
    // of the next tick go now, so that on average they leave when the line would send
    // them instead of up to a whole tick late.
    return (nowNs + kHalfTickNs) * bytesPerSecond / 1000000000 - m_pacedWritten;
}

void PtySectionSimulator::pump()
{
    if (!isOpen()) {
        m_output.clear();
        return;
    }
    while (!m_output.isEmpty()) {
        qint64 allowed = m_output.size();
        if (m_pacedBaud > 0) {
            allowed = pacedAllowance();
            if (allowed <= 0) {
                break;
            }
        }
        const ssize_t n = ::write(m_masterFd, m_output.constData(), static_cast<size_t>(allowed));
        if (n > 0) {
            m_output.remove(0, static_cast<int>(n));
            m_pacedWritten += n;
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        // The slave's input queue is full (EAGAIN): wait until the pty can take more.
        break;
    }
    const bool blocked = !m_output.isEmpty();
    if (m_writeNotifier) {
        m_writeNotifier->setEnabled(blocked && m_pacedBaud == 0);
    }
    if (blocked && m_pacedBaud > 0) {
        if (!m_paceTimer->isActive()) {
            m_paceTimer->start();
        }
    } else {
        m_paceTimer->stop();
    }
}

void PtySectionSimulator::closeFds()
{
    // The notifiers go before their descriptor; deleteLater because hangUp() may be
    // called from a slot that one of them is currently delivering.
    for (QSocketNotifier** notifier : {&m_readNotifier, &m_writeNotifier}) {
        if (*notifier) {
            (*notifier)->setEnabled(false);
            (*notifier)->deleteLater();
            *notifier = nullptr;
        }
    }
    if (m_paceTimer) {
        m_paceTimer->stop();
    }
    m_output.clear();
    if (m_masterFd >= 0) {
        ::close(m_masterFd);
        m_masterFd = -1;
    }
    if (m_slaveFd >= 0) {
        ::close(m_slaveFd);
        m_slaveFd = -1;
    }
}
