// Each QML-facing class states in its class-info the QML name, singleton-ness and uncreatable
// reason WorksurfacePlugin::registerTypes() gives it. Qt 6's type registrar writes the module's
// type description from that class-info alone, so a class-info that drifts from the
// registration, or a registered class without one, makes the description lie. Checked here
// three ways: against the text of registerTypes(), against the module as QML loads it through
// the plugin, and against the type description in the module folder.
#include <QFile>
#include <QMetaClassInfo>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QRegularExpression>
#include <QtTest>
#include <memory>

#include "bindings/bindingbase.h"
#include "bindings/buttonbinding.h"
#include "bindings/faderbinding.h"
#include "bindings/faderlockinfo.h"
#include "bindings/flashinfo.h"
#include "bindings/globalsurfacebinding.h"
#include "bindings/ledbinding.h"
#include "bindings/meterbinding.h"
#include "bindings/potbinding.h"
#include "bindings/responsecurve.h"
#include "bindings/rgbledbinding.h"
#include "bindings/rotarybinding.h"
#include "bindings/surfaceconnection.h"
#include "qml/fadersettings.h"
#include "qml/restmode.h"
#include "qml/sectioninfomodel.h"
#include "qml/sectionlinknotifier.h"
#include "qml/surfacelinksettings.h"
#include "qml/surfacesettings.h"
#include "qml/surfacetracesaver.h"
#include "qml/worksurfacefunctions.h"
#include "software/buttoncontrol.h"
#include "software/fadercontrol.h"
#include "software/metercontrol.h"
#include "software/potcontrol.h"
#include "software/rgbledcontrol.h"
#include "software/rotarycontrol.h"
#include "software/sectioncontrol.h"
#include "software/sectionfaults.h"
#include "software/surfacecontrolbase.h"

namespace {

const char* const kModule = "Tarvix.Worksurface";

// The folders registerTypes() takes its classes from.
const char* const kLayerFolders[] = {"bindings", "qml", "software"};

// Every QObject class declared in those folders' headers (everyLayerClassIsListed keeps this
// complete), whether QML sees it or not: a class with class-info but no registration must be
// found as well as the reverse.
const QMetaObject* const kLayerClasses[] = {
    &BindingBase::staticMetaObject,
    &ButtonBinding::staticMetaObject,
    &FaderBinding::staticMetaObject,
    &FaderLockInfo::staticMetaObject,
    &FlashInfo::staticMetaObject,
    &GlobalSurfaceBinding::staticMetaObject,
    &LedBinding::staticMetaObject,
    &MeterBinding::staticMetaObject,
    &PotBinding::staticMetaObject,
    &ResponseCurve::staticMetaObject,
    &RgbLedBinding::staticMetaObject,
    &RotaryBinding::staticMetaObject,
    &SurfaceConnection::staticMetaObject,
    &FaderSettings::staticMetaObject,
    &RestMode::staticMetaObject,
    &SectionInfoModel::staticMetaObject,
    &SectionLinkNotifier::staticMetaObject,
    &SurfaceLinkSettings::staticMetaObject,
    &SurfaceSettings::staticMetaObject,
    &SurfaceTraceSaver::staticMetaObject,
    &WorksurfaceFunctions::staticMetaObject,
    &ButtonControl::staticMetaObject,
    &FaderControl::staticMetaObject,
    &MeterControl::staticMetaObject,
    &PotControl::staticMetaObject,
    &RgbLedControl::staticMetaObject,
    &RotaryControl::staticMetaObject,
    &SectionControl::staticMetaObject,
    &Velmora::Worksurface::SectionFaults::staticMetaObject,
    &SurfaceControlBase::staticMetaObject,
};

QString unqualified(const char* className)
{
    const QString name = QString::fromLatin1(className);
    return name.mid(name.lastIndexOf(QLatin1Char(':')) + 1);
}

const QMetaObject* layerClass(const QString& name)
{
    for (const QMetaObject* meta : kLayerClasses) {
        if (unqualified(meta->className()) == name) {
            return meta;
        }
    }
    return nullptr;
}

// A class-info the class declares itself; one it only inherits does not count, as the
// registrar reads each class's own.
QString ownClassInfo(const QMetaObject& meta, const char* name)
{
    const int index = meta.indexOfClassInfo(name);
    if (index < meta.classInfoOffset()) {
        return QString();
    }
    return QString::fromUtf8(meta.classInfo(index).value());
}

QString readSource(const QString& relativePath)
{
    QFile file(QStringLiteral(TARVIX_SOURCE_DIR "/") + relativePath);
    if (!file.open(QIODevice::ReadOnly)) {
        return QString();
    }
    return QString::fromUtf8(file.readAll());
}

// One qmlRegister… call of registerTypes().
struct Registration
{
    QString kind;  // "SingletonType", "Type" or "UncreatableType"
    QString className;
    QString name;
    QString reason;  // only for "UncreatableType"
};

const QRegularExpression& registrationCall()
{
    static const QRegularExpression call(
        QStringLiteral("qmlRegister(SingletonType|UncreatableType|Type)\\s*<\\s*(\\w+)\\s*>\\s*\\("
                       "\\s*uri\\s*,\\s*major\\s*,\\s*minor\\s*,\\s*\"([^\"]*)\"\\s*"
                       "(?:,\\s*((?:\"[^\"]*\"\\s*)+))?(?:,\\s*&[\\w:]+\\s*)?\\)\\s*;"));
    return call;
}

QString registerTypesSource()
{
    QString text = readSource(QStringLiteral("src/plugin/worksurfaceplugin.cpp"));
    text.remove(QRegularExpression(QStringLiteral("//[^\n]*")));
    return text;
}

QVector<Registration> registrations()
{
    QVector<Registration> all;
    QRegularExpressionMatchIterator it = registrationCall().globalMatch(registerTypesSource());
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        QString reason;
        // Adjacent literals, should the reason ever be split over lines.
        QRegularExpressionMatchIterator pieces =
            QRegularExpression(QStringLiteral("\"([^\"]*)\"")).globalMatch(match.captured(4));
        while (pieces.hasNext()) {
            reason += pieces.next().captured(1);
        }
        all.append({match.captured(1), match.captured(2), match.captured(3), reason});
    }
    return all;
}

const Registration* registrationOf(const QVector<Registration>& all, const QString& className)
{
    for (const Registration& registration : all) {
        if (registration.className == className) {
            return &registration;
        }
    }
    return nullptr;
}

// A component of a type description: the C++ class, what it exports, how QML may use it.
struct DescribedType
{
    QString className;
    QStringList exports;
    bool singleton = false;
    bool creatable = true;
};

// The components of a .qmltypes file, whether qmlplugindump or the type registrar wrote it:
// each Component's own bindings, its child objects (properties, methods, enums) left out.
QVector<DescribedType> describedTypes(const QString& text)
{
    QVector<DescribedType> types;
    const QString opening = QStringLiteral("Component {");
    for (int start = text.indexOf(opening); start >= 0; start = text.indexOf(opening, start)) {
        int depth = 0;
        int end = start + opening.size() - 1;
        for (; end < text.size(); ++end) {
            if (text.at(end) == QLatin1Char('{')) {
                ++depth;
            } else if (text.at(end) == QLatin1Char('}') && --depth == 0) {
                break;
            }
        }
        QString body = text.mid(start + opening.size(), end - start - opening.size());
        start = end;
        static const QRegularExpression innermostBlock(QStringLiteral("\\{[^{}]*\\}"));
        while (body.contains(innermostBlock)) {
            body.remove(innermostBlock);
        }
        DescribedType type;
        type.className =
            QRegularExpression(QStringLiteral("\\bname:\\s*\"([^\"]*)\"")).match(body).captured(1);
        const QString exports = QRegularExpression(QStringLiteral("\\bexports:\\s*\\[([^\\]]*)\\]"))
                                    .match(body)
                                    .captured(1);
        QRegularExpressionMatchIterator it =
            QRegularExpression(QStringLiteral("\"([^\"]*)\"")).globalMatch(exports);
        while (it.hasNext()) {
            type.exports << it.next().captured(1);
        }
        type.singleton =
            body.contains(QRegularExpression(QStringLiteral("\\bisSingleton:\\s*true")));
        type.creatable =
            !body.contains(QRegularExpression(QStringLiteral("\\bisCreatable:\\s*false")));
        types.append(type);
    }
    return types;
}

}  // namespace

class TestQmlClassInfo : public QObject
{
    Q_OBJECT

private slots:
    void everyLayerClassIsListed()
    {
        static const QRegularExpression declaration(
            QStringLiteral("\\bclass\\s+(\\w+)\\b[^;{]*\\{\\s*Q_OBJECT\\b"));
        QStringList declared;
        for (const char* folder : kLayerFolders) {
            const QString path = QStringLiteral(TARVIX_SOURCE_DIR "/src/") + folder;
            const QStringList headers = QDir(path).entryList({QStringLiteral("*.h")}, QDir::Files);
            QVERIFY2(!headers.isEmpty(), qPrintable(path));
            for (const QString& header : headers) {
                QRegularExpressionMatchIterator it = declaration.globalMatch(
                    readSource(QStringLiteral("src/%1/%2").arg(folder, header)));
                while (it.hasNext()) {
                    declared << it.next().captured(1);
                }
            }
        }
        QStringList listed;
        for (const QMetaObject* meta : kLayerClasses) {
            listed << unqualified(meta->className());
        }
        declared.sort();
        listed.sort();
        QCOMPARE(listed, declared);
    }

    void registerTypesIsReadInFull()
    {
        const QVector<Registration> all = registrations();
        const int calls =
            registerTypesSource().count(QRegularExpression(QStringLiteral("\\bqmlRegister\\w*")));
        QVERIFY(calls > 0);
        QCOMPARE(all.size(), calls);
        QSet<QString> names;
        for (const Registration& registration : all) {
            QVERIFY2(layerClass(registration.className), qPrintable(registration.className));
            QVERIFY2(!names.contains(registration.name), qPrintable(registration.name));
            names.insert(registration.name);
            QCOMPARE(registration.reason.isEmpty(), registration.kind != "UncreatableType");
        }
    }

    void eachRegisteredClassStatesItsRegistration_data()
    {
        QTest::addColumn<QString>("className");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("reason");
        for (const Registration& registration : registrations()) {
            QTest::newRow(qPrintable(registration.className))
                << registration.className << registration.kind << registration.name
                << registration.reason;
        }
    }

    void eachRegisteredClassStatesItsRegistration()
    {
        QFETCH(QString, className);
        QFETCH(QString, kind);
        QFETCH(QString, name);
        QFETCH(QString, reason);
        const QMetaObject* meta = layerClass(className);
        QVERIFY(meta);
        QCOMPARE(ownClassInfo(*meta, "QML.Element"), name);
        QCOMPARE(ownClassInfo(*meta, "QML.Singleton"),
                 kind == "SingletonType" ? QStringLiteral("true") : QString());
        QCOMPARE(ownClassInfo(*meta, "QML.Creatable"),
                 kind == "UncreatableType" ? QStringLiteral("false") : QString());
        QCOMPARE(ownClassInfo(*meta, "QML.UncreatableReason"), reason);
    }

    void eachNamedClassIsRegistered_data()
    {
        QTest::addColumn<QString>("className");
        for (const QMetaObject* meta : kLayerClasses) {
            QTest::newRow(meta->className()) << unqualified(meta->className());
        }
    }

    void eachNamedClassIsRegistered()
    {
        QFETCH(QString, className);
        const QMetaObject* meta = layerClass(className);
        const bool named = !ownClassInfo(*meta, "QML.Element").isEmpty();
        const QVector<Registration> all = registrations();
        QCOMPARE(registrationOf(all, className) != nullptr, named);
        if (!named) {
            // Without a name the registrar would not read the rest either.
            QCOMPARE(ownClassInfo(*meta, "QML.Singleton"), QString());
            QCOMPARE(ownClassInfo(*meta, "QML.Creatable"), QString());
            QCOMPARE(ownClassInfo(*meta, "QML.UncreatableReason"), QString());
        }
    }

    // The module as an application imports it: each name the class-info states is there, a
    // singleton as the one instance of that class, a creatable type as an element of that
    // class, an uncreatable one refused with exactly the stated reason.
    void theModuleIsWhatTheClassInfoSays_data()
    {
        QTest::addColumn<QString>("className");
        for (const QMetaObject* meta : kLayerClasses) {
            if (!ownClassInfo(*meta, "QML.Element").isEmpty()) {
                QTest::newRow(meta->className()) << unqualified(meta->className());
            }
        }
    }

    void theModuleIsWhatTheClassInfoSays()
    {
        QFETCH(QString, className);
        const QMetaObject& meta = *layerClass(className);
        const QString name = ownClassInfo(meta, "QML.Element");
        const bool singleton = ownClassInfo(meta, "QML.Singleton") == QLatin1String("true");
        const bool creatable = ownClassInfo(meta, "QML.Creatable") != QLatin1String("false");

        QQmlEngine engine;
        engine.addImportPath(QStringLiteral(TARVIX_QML_ROOT));
        QQmlComponent element(&engine);
        element.setData(QString("import Tarvix.Worksurface 1.0\n%1 {}").arg(name).toUtf8(), QUrl());
        // A component in error is not created: its errors are the answer.
        std::unique_ptr<QObject> object(element.isReady() ? element.create() : nullptr);
        if (singleton) {
            QVERIFY(!object);
            QQmlComponent reference(&engine);
            reference.setData(QString("import QtQml 2.15\nimport Tarvix.Worksurface 1.0\n"
                                      "QtObject { property var instance: %1 }")
                                  .arg(name)
                                  .toUtf8(),
                              QUrl());
            std::unique_ptr<QObject> holder(reference.create());
            QVERIFY2(holder, qPrintable(reference.errorString()));
            QObject* instance = holder->property("instance").value<QObject*>();
            QVERIFY(instance);
            QCOMPARE(unqualified(instance->metaObject()->className()), className);
        } else if (creatable) {
            QVERIFY2(object, qPrintable(element.errorString()));
            QCOMPARE(unqualified(object->metaObject()->className()), className);
        } else {
            QVERIFY(!object);
            QCOMPARE(element.errors().value(0).description(),
                     ownClassInfo(meta, "QML.UncreatableReason"));
        }
    }

    // What Qt Creator and qmllint read: the module folder's plugins.qmltypes (against Qt 6 the
    // registrar's, against Qt 5 the dump of the loaded plugin) exports each registered name,
    // as the class registerTypes() registers under it, with its kind, and nothing else.
    void theTypeDescriptionExportsEachRegistration()
    {
        QFile file(QStringLiteral(TARVIX_QML_ROOT "/Tarvix/Worksurface/plugins.qmltypes"));
        QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.fileName()));
        const QVector<DescribedType> described = describedTypes(QString::fromUtf8(file.readAll()));
        QVERIFY(!described.isEmpty());
        const QVector<Registration> all = registrations();
        int exports = 0;
        for (const DescribedType& type : described) {
            exports += type.exports.size();
        }
        QCOMPARE(exports, all.size());
        for (const Registration& registration : all) {
            const QString exported = QString("%1/%2 1.0").arg(kModule, registration.name);
            const DescribedType* match = nullptr;
            for (const DescribedType& type : described) {
                if (type.exports.contains(exported)) {
                    match = &type;
                }
            }
            QVERIFY2(match, qPrintable(exported));
            QCOMPARE(match->className, registration.className);
            QCOMPARE(match->singleton, registration.kind == "SingletonType");
            QCOMPARE(match->creatable, registration.kind == "Type");
        }
    }
};

// QML's own types are enough here: no GUI application, so no platform plugin.
QTEST_GUILESS_MAIN(TestQmlClassInfo)
#include "tst_qmlclassinfo.moc"
