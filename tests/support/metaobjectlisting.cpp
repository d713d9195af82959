#include "support/metaobjectlisting.h"

QStringList methodSignatures(const QMetaObject& meta, QMetaMethod::MethodType type)
{
    QStringList names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        if (method.methodType() == type) {
            names << QString::fromLatin1(method.methodSignature());
        }
    }
    return names;
}

QString propertyTypeName(const QMetaObject& meta, const QMetaProperty& property)
{
    QString name = QString::fromLatin1(property.typeName());
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    const QString ownPrefix = QString::fromLatin1(meta.className()) + QStringLiteral("::");
    if (property.isEnumType() && name.startsWith(ownPrefix)) {
        name.remove(0, ownPrefix.size());
    }
#else
    Q_UNUSED(meta);
#endif
    return name;
}
