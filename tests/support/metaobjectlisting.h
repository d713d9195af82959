#pragma once

#include <QMetaMethod>
#include <QMetaObject>
#include <QStringList>

// The signatures of a class's own methods of one kind (signals, slots, invokables), in
// declaration order, for tests that pin what QML sees of a type.
QStringList methodSignatures(const QMetaObject& meta, QMetaMethod::MethodType type);
