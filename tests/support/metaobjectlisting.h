#pragma once

#include <QMetaMethod>
#include <QMetaObject>
#include <QMetaProperty>
#include <QStringList>

// The signatures of a class's own methods of one kind (signals, slots, invokables), in
// declaration order, for tests that pin what QML sees of a type.
QStringList methodSignatures(const QMetaObject& meta, QMetaMethod::MethodType type);

// A property's type as its Q_PROPERTY declares it ("PotType", "QColor"). Qt 6's moc
// qualifies the class's own enums ("PotBinding::PotType"); QML sees the same enum either way.
QString propertyTypeName(const QMetaObject& meta, const QMetaProperty& property);
