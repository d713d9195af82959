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

    void linkStartsClosedWithoutPortAndWithoutFailure()
    {
        SectionInfoModel model(1, nullptr);
        QCOMPARE(model.linkState(), int(SectionInfoModel::Closed));
        QCOMPARE(model.portName(), QString());
        QCOMPARE(model.portError(), QString());
        QCOMPARE(model.lastUpdateFailure(), -1);
    }

    void linkStateEnumHasTheConnectionsStatesAndValues()
    {
        const QMetaEnum states = QMetaEnum::fromType<SectionInfoModel::LinkState>();
        QCOMPARE(QByteArray(states.name()), QByteArray("LinkState"));
        QCOMPARE(states.keyCount(), 7);
        const char* keys[] = {"Connected",   "Closed",      "Connecting", "Updating",
                              "Calibrating", "SerialError", "NoResponse"};
        for (int value = 0; value < 7; ++value) {
            QCOMPARE(states.keyToValue(keys[value]), value);
        }
    }

    void linkPropertiesAreReadOnlyAndNotifyAfterTheFirstFour()
    {
        const QMetaObject& meta = SectionInfoModel::staticMetaObject;
        const QStringList expected{"linkState:int:linkStateChanged()",
                                   "portName:QString:portNameChanged()",
                                   "portError:QString:portErrorChanged()",
                                   "lastUpdateFailure:int:lastUpdateFailureChanged()"};
        QStringList found;
        for (int i = meta.propertyOffset() + 4; i < meta.propertyCount(); ++i) {
            const QMetaProperty property = meta.property(i);
            QVERIFY(!property.isWritable());
            found << QString("%1:%2:%3")
                         .arg(property.name(), property.typeName(),
                              QString::fromLatin1(property.notifySignal().methodSignature()));
        }
        QCOMPARE(found, expected);
        QVERIFY(meta.indexOfSignal("updateFailed(int)") >= 0);
    }

    void linkStateNotifiesOnlyOnChange()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        QSignalSpy spy(&model, &SectionInfoModel::linkStateChanged);
        info.setLinkState(SectionInfoModel::Closed);
        QCOMPARE(spy.count(), 0);
        info.setLinkState(SectionInfoModel::Connecting);
        info.setLinkState(SectionInfoModel::Connecting);
        info.setLinkState(SectionInfoModel::Connected);
        QCOMPARE(spy.count(), 2);
        QCOMPARE(model.linkState(), int(SectionInfoModel::Connected));
    }

    void portNameAndErrorNotifyEachOnItsOwnChange()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        QSignalSpy names(&model, &SectionInfoModel::portNameChanged);
        QSignalSpy errors(&model, &SectionInfoModel::portErrorChanged);
        info.setPort("/dev/ttymxc1", QString());
        QCOMPARE(names.count(), 1);
        QCOMPARE(errors.count(), 0);
        info.setPort("/dev/ttymxc1", "Device not found: /dev/ttymxc1");
        QCOMPARE(names.count(), 1);
        QCOMPARE(errors.count(), 1);
        QCOMPARE(model.portError(), QString("Device not found: /dev/ttymxc1"));
        info.setPort("/dev/ttymxc1", QString());
        QCOMPARE(errors.count(), 2);
        QCOMPARE(model.portError(), QString());
    }

    void failedUpdateIsSignalledEveryTimeAndASuccessResetsTheFailure()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        QSignalSpy failed(&model, &SectionInfoModel::updateFailed);
        QSignalSpy changed(&model, &SectionInfoModel::lastUpdateFailureChanged);
        info.setUpdateResult(2);
        info.setUpdateResult(2);
        QCOMPARE(failed.count(), 2);
        QCOMPARE(failed.at(1).at(0).toInt(), 2);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(model.lastUpdateFailure(), 2);
        info.setUpdateResult(-1);
        QCOMPARE(failed.count(), 2);
        QCOMPARE(changed.count(), 2);
        QCOMPARE(model.lastUpdateFailure(), -1);
    }

    void resetLinkForgetsTheLinkButKeepsWhatTheSectionReported()
    {
        SectionInfoModel model(0, nullptr);
        ISectionInfo& info = model;
        info.updateInfo(7, 40);
        info.setUpdateProgress(55);
        info.setLinkState(SectionInfoModel::NoResponse);
        info.setPort("/dev/ttymxc0", "Device gone: /dev/ttymxc0");
        info.setUpdateResult(0);
        QSignalSpy state(&model, &SectionInfoModel::linkStateChanged);
        QSignalSpy failure(&model, &SectionInfoModel::lastUpdateFailureChanged);
        QSignalSpy failed(&model, &SectionInfoModel::updateFailed);
        model.resetLink();
        QCOMPARE(model.linkState(), int(SectionInfoModel::Closed));
        QCOMPARE(model.portName(), QString());
        QCOMPARE(model.portError(), QString());
        QCOMPARE(model.lastUpdateFailure(), -1);
        QCOMPARE(state.count(), 1);
        QCOMPARE(failure.count(), 1);
        QCOMPARE(failed.count(), 0);
        QCOMPARE(model.version(), 7);
        QCOMPARE(model.temperature(), 40);
        QCOMPARE(model.updateProgress(), 55);
    }
};

QTEST_GUILESS_MAIN(TestSectionInfoModel)
#include "tst_sectioninfomodel.moc"
