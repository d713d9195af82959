#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

// Records signals of one or more senders, by name and in the order they came, so that a
// test compares the whole sequence: {"pressed", "released", "rotated -3"}.
class SignalLog : public QObject
{
public:
    SignalLog() = default;

    // Each emission of `signal` adds `name`.
    template <typename Sender, typename Signal>
    void record(const Sender* sender, Signal signal, const QString& name)
    {
        connect(sender, signal, this, [this, name]() { events << name; });
    }

    // Each emission adds "<name> <value>".
    template <typename Sender, typename Value>
    void recordWithValue(const Sender* sender, void (Sender::*signal)(Value), const QString& name)
    {
        connect(sender, signal, this, [this, name](Value value) {
            events << QStringLiteral("%1 %2").arg(name).arg(value);
        });
    }

    QStringList events;
};
