#include <QSignalSpy>
#include <QtTest>

#include "qml/sectioninfomodel.h"

using namespace Velmora::Worksurface;

// Records the names of the model's notify signals in the order they are emitted.
class SignalOrder : public QObject
{
public:
    explicit SignalOrder(SectionInfoModel* model)
    {
        connect(model, &SectionInfoModel::updatingChanged, this, [this] { names << "updating"; });
        connect(model, &SectionInfoModel::updateProgressChanged, this,
                [this] { names << "updateProgress"; });
        connect(model, &SectionInfoModel::versionChanged, this, [this] { names << "version"; });
        connect(model, &SectionInfoModel::temperatureChanged, this,
                [this] { names << "temperature"; });
    }
    QStringList names;
};

class TestSectionInfoModel : public QObject
{
    Q_OBJECT

private slots:
    void startsEmptyWithItsIndex()
    {
        SectionInfoModel model(2, nullptr);
        QCOMPARE(model.index(), 2);
        QCOMPARE(model.version(), 0);
        QCOMPARE(model.temperature(), 0);
        QCOMPARE(model.updating(), false);
        QCOMPARE(model.updateProgress(), 0);
    }

    void setUpdatingFalseWhenNotUpdatingChangesNothing()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        info.setUpdateProgress(42);
        SignalOrder order(&model);
        info.setUpdating(false);
        QVERIFY(order.names.isEmpty());
        QCOMPARE(model.updateProgress(), 42);
    }

    void updateStartAndEndEmitsTwiceAndEndsAtHundred()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        info.setUpdateProgress(37);
        SignalOrder order(&model);
        info.setUpdating(true);
        info.setUpdating(false);
        QCOMPARE(order.names, (QStringList{"updating", "updating", "updateProgress"}));
        QCOMPARE(model.updating(), false);
        QCOMPARE(model.updateProgress(), 100);
    }

    void updateEndAtHundredEmitsNoProgressChange()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        info.setUpdating(true);
        info.setUpdateProgress(100);
        SignalOrder order(&model);
        info.setUpdating(false);
        QCOMPARE(order.names, (QStringList{"updating"}));
        QCOMPARE(model.updateProgress(), 100);
    }

    void progressAboveHundredIsStoredAsHundred()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        QSignalSpy spy(&model, &SectionInfoModel::updateProgressChanged);
        info.setUpdateProgress(250);
        QCOMPARE(model.updateProgress(), 100);
        QCOMPARE(spy.count(), 1);
        info.setUpdateProgress(101);
        QCOMPARE(spy.count(), 1);
    }

    void updateInfoWithUnchangedValuesEmitsNothing()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        info.updateInfo(10, 34);
        SignalOrder order(&model);
        info.updateInfo(10, 34);
        QVERIFY(order.names.isEmpty());
    }

    void updateInfoWithOnlyTemperatureChangedEmitsOnlyTemperature()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        info.updateInfo(10, 34);
        SignalOrder order(&model);
        info.updateInfo(10, 40);
        QCOMPARE(order.names, (QStringList{"temperature"}));
        QCOMPARE(model.version(), 10);
        QCOMPARE(model.temperature(), 40);
    }

    void updateInfoEmitsVersionBeforeTemperature()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        SignalOrder order(&model);
        info.updateInfo(255, 1);
        QCOMPARE(order.names, (QStringList{"version", "temperature"}));
        QCOMPARE(model.version(), 255);
    }

    void propertiesAreReadOnlyForQml()
    {
        const QMetaObject& meta = SectionInfoModel::staticMetaObject;
        const QStringList names{"updating", "updateProgress", "version", "temperature"};
        for (int i = 0; i < names.size(); ++i) {
            const QMetaProperty property = meta.property(meta.propertyOffset() + i);
            QCOMPARE(QString(property.name()), names[i]);
            QVERIFY(!property.isWritable());
            QVERIFY(property.hasNotifySignal());
        }
        QCOMPARE(meta.methodCount() - meta.methodOffset(), 4);
        QCOMPARE(meta.method(meta.methodOffset()).name(), QByteArray("updatingChanged"));
        QCOMPARE(meta.method(meta.methodOffset() + 3).name(), QByteArray("temperatureChanged"));
    }
};

QTEST_GUILESS_MAIN(TestSectionInfoModel)
#include "tst_sectioninfomodel.moc"
