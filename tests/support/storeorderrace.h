#pragma once

#include <QColor>
#include <QString>
#include <atomic>
#include <functional>
#include <thread>

#include "support/recordingsender.h"

// A recording sender that dawdles inside every LED and colour send before it records it:
// it widens the gap a component would leave between storing a value and sending it, so
// that two threads sending in the opposite order to the one they stored show up at once.
// The dawdle is a few scheduler yields, not a wait for time to pass.
class DawdlingSender : public RecordingSender
{
public:
    void sendLed(uint8_t deviceId, uint8_t first, uint8_t second, int64_t delayMs) override
    {
        dawdle();
        RecordingSender::sendLed(deviceId, first, second, delayMs);
    }
    void sendColor(uint8_t deviceId, uint32_t color, uint8_t extra, int64_t delayMs) override
    {
        dawdle();
        RecordingSender::sendColor(deviceId, color, extra, delayMs);
    }

    // The payload of the last message recorded (empty when none was).
    std::vector<uint8_t> lastPayload() const
    {
        const std::vector<SentMessage> all = sent();
        return all.empty() ? std::vector<uint8_t>{} : all.back().message.payload;
    }

private:
    static void dawdle()
    {
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();
        }
    }
};

// Runs `rounds` rounds in which two threads, released together, call store(0, round) and
// store(1, round) on one component; after each round, check(round) compares the last frame
// sent with the value the component kept and returns what differs (empty when they agree).
// Returns the first difference, naming its round, or an empty string.
inline QString raceTwoStores(int rounds, const std::function<void(int, int)>& store,
                             const std::function<QString(int)>& check)
{
    for (int round = 0; round < rounds; ++round) {
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        const auto worker = [&](int which) {
            ready.fetch_add(1);
            while (!go.load()) {
                std::this_thread::yield();
            }
            store(which, round);
        };
        std::thread first(worker, 0);
        std::thread second(worker, 1);
        while (ready.load() < 2) {
            std::this_thread::yield();
        }
        go.store(true);
        first.join();
        second.join();
        const QString difference = check(round);
        if (!difference.isEmpty()) {
            return QStringLiteral("round %1: %2").arg(round).arg(difference);
        }
    }
    return QString();
}

// What differs between the colour a component kept and the last colour frame it sent.
inline QString colorDifference(const QColor& kept, const std::vector<uint8_t>& sent)
{
    const std::vector<uint8_t> expected{uint8_t(kept.red()), uint8_t(kept.green()),
                                        uint8_t(kept.blue()), 0};
    if (sent == expected) {
        return QString();
    }
    return QStringLiteral("kept %1, last sent %2")
        .arg(kept.name(),
             QString::fromLatin1(
                 QByteArray(reinterpret_cast<const char*>(sent.data()), int(sent.size())).toHex()));
}

// Two different colours per round, one for each thread.
inline QColor racingColor(int which, int round)
{
    return QColor(round % 256, which == 0 ? 0x11 : 0xEE, 7);
}
