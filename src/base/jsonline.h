#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

namespace Velmora::Worksurface {

// One JSON object on one line, with its keys in the order they were added (scripts and
// people read the same lines; the documented order is kept).
class JsonLine
{
public:
    JsonLine& add(const char* key, const QString& value);
    JsonLine& add(const char* key, const char* value);
    JsonLine& add(const char* key, int value);
    JsonLine& add(const char* key, qint64 value);
    JsonLine& add(const char* key, bool value);
    // A number with a fixed count of decimals, e.g. a time in seconds.
    // A nested object.
    JsonLine& add(const char* key, const JsonLine& object);
    JsonLine& addFixed(const char* key, double value, int decimals);
    // An array of values each already written as JSON.
    JsonLine& addArray(const char* key, const QByteArrayList& values);

    // The keys of another line, after these.
    JsonLine& append(const JsonLine& other);

    QByteArray toJson() const;

private:
    void addRaw(const char* key, const QByteArray& json);

    QByteArray m_body;
};

}  // namespace Velmora::Worksurface
