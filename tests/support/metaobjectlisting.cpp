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
