#include "support/sentmessage.h"

#include <QByteArray>

using namespace Velmora::Worksurface;

QString describe(const SentMessage& sent)
{
    const QByteArray payload(reinterpret_cast<const char*>(sent.message.payload.data()),
                             static_cast<int>(sent.message.payload.size()));
    return QStringLiteral("type %1 device %2 payload %3 @%4")
        .arg(sent.message.type)
        .arg(sent.message.deviceId)
        .arg(QString::fromLatin1(payload.toHex()))
        .arg(sent.atNs);
}

QStringList describe(const std::vector<SentMessage>& sent)
{
    QStringList lines;
    for (const SentMessage& one : sent) {
        lines << describe(one);
    }
    return lines;
}

QString expectedMessage(uint8_t type, uint8_t deviceId, const char* payloadHex, qint64 atNs)
{
    const QByteArray bytes = QByteArray::fromHex(payloadHex);
    return describe(SentMessage{
        SerialMessage(type, deviceId, std::vector<uint8_t>(bytes.cbegin(), bytes.cend())), atNs});
}
