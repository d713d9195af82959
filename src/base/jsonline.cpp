#include "base/jsonline.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace Velmora::Worksurface {

namespace {

QByteArray quoted(const QString& text)
{
    // Keys, names and hex are plain printable ASCII: quoted as they are, which is what Qt's
    // writer would make of them too, only much faster (a trace file has thousands of lines).
    bool plain = true;
    for (const QChar c : text) {
        const ushort u = c.unicode();
        if (u < 0x20 || u > 0x7e || u == '"' || u == '\\') {
            plain = false;
            break;
        }
    }
    if (plain) {
        return '"' + text.toLatin1() + '"';
    }
    // Qt's writer does the escaping; the array's brackets come off again.
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

}  // namespace

JsonLine& JsonLine::add(const char* key, const QString& value)
{
    addRaw(key, quoted(value));
    return *this;
}

JsonLine& JsonLine::add(const char* key, const char* value)
{
    return add(key, QString::fromUtf8(value));
}

JsonLine& JsonLine::add(const char* key, int value)
{
    addRaw(key, QByteArray::number(value));
    return *this;
}

JsonLine& JsonLine::add(const char* key, qint64 value)
{
    addRaw(key, QByteArray::number(value));
    return *this;
}

JsonLine& JsonLine::add(const char* key, bool value)
{
    addRaw(key, value ? QByteArrayLiteral("true") : QByteArrayLiteral("false"));
    return *this;
}

JsonLine& JsonLine::add(const char* key, const JsonLine& object)
{
    addRaw(key, object.toJson());
    return *this;
}

JsonLine& JsonLine::addFixed(const char* key, double value, int decimals)
{
    addRaw(key, QByteArray::number(value, 'f', decimals));
    return *this;
}

JsonLine& JsonLine::addArray(const char* key, const QByteArrayList& values)
{
    addRaw(key, '[' + values.join(',') + ']');
    return *this;
}

JsonLine& JsonLine::append(const JsonLine& other)
{
    if (!other.m_body.isEmpty()) {
        if (!m_body.isEmpty()) {
            m_body += ',';
        }
        m_body += other.m_body;
    }
    return *this;
}

QByteArray JsonLine::toJson() const
{
    return '{' + m_body + '}';
}

void JsonLine::addRaw(const char* key, const QByteArray& json)
{
    if (!m_body.isEmpty()) {
        m_body += ',';
    }
    m_body += quoted(QString::fromUtf8(key)) + ':' + json;
}

}  // namespace Velmora::Worksurface
