// Runs every tests/qml/tst_*.qml (or the one given with -input) against the module in the
// build tree.
//
// Time: the runner owns the plugin's clock (DrivenClock, through the seam the plugin exports),
// and `qmlClock.advance(ms)` is the only way it moves. DrivenTestCase routes TestCase's wait()
// there, and with it the polls of tryCompare() and tryVerify(): every pool tick and timer on
// the way runs at its time, so a test's outcome does not depend on how fast the machine is.
// With TARVIX_QML_REAL_TIME=1 the plugin keeps the steady clock and advance() waits real
// milliseconds, as Qt Quick Test's own wait() does: the run that lets threads interleave as
// they do in an application.
//
// `qmlWarnings.count`: the QML warnings printed so far (the engine's and console.warn's), for
// tests that must fail on any.
//
// Each file's engine also gets `qmlFirmware`, which puts a firmware image where the plugin
// looks for it (a scratch home folder), so that a software section in its bootloader can be
// updated end to end. And `qmlWatchdog`: a test arms it before a step that could hang
// the QML thread (a handler that calls back into the plugin) and disarms it afterwards. A
// step still running when the time is up fails the whole run at once, naming the step,
// instead of stalling until ctest's own time-out.
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QObject>
#include <QQmlContext>
#include <QQmlEngine>
#include <QRegularExpression>
#include <QString>
#include <QTemporaryDir>
#include <QtQuickTest>
#include <QtTest>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "support/drivenclock.h"

class QmlWatchdog : public QObject
{
    Q_OBJECT

public:
    QmlWatchdog()
    {
        m_thread = std::thread([this]() { watch(); });
    }
    ~QmlWatchdog() override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_quit = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

    // Arms (or re-arms) the guard for `seconds` from now.
    Q_INVOKABLE void arm(const QString& what, int seconds)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_what = what.toStdString();
            m_deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
            m_armed = true;
        }
        m_changed.notify_all();
    }
    Q_INVOKABLE void disarm()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_armed = false;
        }
        m_changed.notify_all();
    }

private:
    void watch()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_quit) {
            if (!m_armed) {
                m_changed.wait(lock);
                continue;
            }
            const auto deadline = m_deadline;
            if (m_changed.wait_until(lock, deadline) == std::cv_status::timeout && m_armed &&
                !m_quit && m_deadline == deadline) {
                std::fprintf(stderr, "FAIL!  : watchdog: hung in %s\n", m_what.c_str());
                std::fflush(stderr);
                std::abort();
            }
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_armed = false;
    bool m_quit = false;
    std::string m_what;
    std::chrono::steady_clock::time_point m_deadline;
    std::thread m_thread;
};

// The image is `size` bytes, byte i being (i * 31 + 7) mod 256, so a test can compute what
// the section must receive. It lives in a scratch home folder's .firmware/worksurface.bin,
// where the plugin's settings look first; HOME points there only while an image exists.
class QmlFirmware : public QObject
{
    Q_OBJECT

public:
    ~QmlFirmware() override { remove(); }

    Q_INVOKABLE bool write(int size)
    {
        if (!m_home.isValid() || size < 0 ||
            !QDir(m_home.path()).mkpath(QStringLiteral(".firmware"))) {
            return false;
        }
        QByteArray image(size, '\0');
        for (int i = 0; i < size; ++i) {
            image[i] = static_cast<char>((i * 31 + 7) & 0xFF);
        }
        QFile file(m_home.filePath(QStringLiteral(".firmware/worksurface.bin")));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(image) != image.size()) {
            return false;
        }
        file.close();
        if (!m_homeReplaced) {
            m_savedHome = qgetenv("HOME");
            m_homeReplaced = true;
        }
        qputenv("HOME", QFile::encodeName(m_home.path()));
        return true;
    }

    Q_INVOKABLE void remove()
    {
        QFile::remove(m_home.filePath(QStringLiteral(".firmware/worksurface.bin")));
        if (m_homeReplaced) {
            qputenv("HOME", m_savedHome);
            m_homeReplaced = false;
        }
    }

private:
    QTemporaryDir m_home;
    QByteArray m_savedHome;
    bool m_homeReplaced = false;
};

// advance() waits real milliseconds: the plugin runs on the steady clock.
class RealTimeClock : public QObject
{
    Q_OBJECT

public:
    Q_INVOKABLE bool settle()
    {
        QCoreApplication::processEvents();
        return true;
    }
    Q_INVOKABLE void advance(double ms) { QTest::qWait(static_cast<int>(ms)); }
};

// Counts the QML warnings: the engine's own (they begin with the document's address) and those a
// script prints with console.warn() or console.error(), from the first reading of `count` on.
class QmlWarnings : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int count READ count)

public:
    QmlWarnings() { s_instance = this; }
    ~QmlWarnings() override
    {
        // Qt Test puts its own back when a run ends: this one is taken out only if it is
        // still the handler.
        const QtMessageHandler current = qInstallMessageHandler(s_previous);
        if (current != &QmlWarnings::handle) {
            qInstallMessageHandler(current);
        }
        s_instance = nullptr;
    }
    // Qt Test puts in its own handler when a file's run begins, without passing messages on:
    // each reading puts this one back in front of it.
    int count()
    {
        const QtMessageHandler current = qInstallMessageHandler(&QmlWarnings::handle);
        if (current != &QmlWarnings::handle) {
            s_previous = current;
        }
        return m_count.load();
    }

private:
    static bool isQmlWarning(QtMsgType type, const QMessageLogContext& context,
                             const QString& message)
    {
        if (type == QtDebugMsg || type == QtInfoMsg) {
            return false;
        }
        const QByteArray category(context.category != nullptr ? context.category : "");
        if (category == "qml" || category == "js") {
            return true;
        }
        // The engine's warnings begin with the document's address and line.
        static const QRegularExpression engineWarning(QStringLiteral("^(file|qrc):\\S*:\\d+"));
        const QByteArray file(context.file != nullptr ? context.file : "");
        return file.endsWith(".qml") || engineWarning.match(message).hasMatch();
    }
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        if (s_instance != nullptr && isQmlWarning(type, context, message)) {
            ++s_instance->m_count;
        }
        if (s_previous != nullptr) {
            s_previous(type, context, message);
        }
    }

    static inline QmlWarnings* s_instance = nullptr;
    static inline QtMessageHandler s_previous = nullptr;
    std::atomic<int> m_count{0};
};

class QmlTestSetup : public QObject
{
    Q_OBJECT

public:
    QmlTestSetup()
    {
        // Before the engine loads the plugin and the plugin makes any pool.
        if (qgetenv("TARVIX_QML_REAL_TIME") != "1") {
            m_drivenClock =
                std::make_unique<DrivenClock>(DrivenClock::pluginDrive(TARVIX_PLUGIN_FILE));
        }
    }

public slots:
    // Each engine gets the watchdog, and sees which Qt runs it where the QML engines differ
    // (qtMajorVersion).
    void qmlEngineAvailable(QQmlEngine* engine)
    {
        engine->rootContext()->setContextProperty(QStringLiteral("qmlWatchdog"), &m_watchdog);
        engine->rootContext()->setContextProperty(QStringLiteral("qmlFirmware"), &m_firmware);
        QObject* clock = m_drivenClock ? static_cast<QObject*>(m_drivenClock.get()) : &m_realTime;
        engine->rootContext()->setContextProperty(QStringLiteral("qmlClock"), clock);
        engine->rootContext()->setContextProperty(QStringLiteral("qmlClockDriven"),
                                                  m_drivenClock != nullptr);
        if (!m_warnings) {
            m_warnings = std::make_unique<QmlWarnings>();
        }
        engine->rootContext()->setContextProperty(QStringLiteral("qmlWarnings"), m_warnings.get());
        engine->rootContext()->setContextProperty(QStringLiteral("qtMajorVersion"),
                                                  QT_VERSION_MAJOR);
        // Under emulation (the aarch64 build) the re-entrancy matrix runs every n-th cell;
        // everywhere else every cell.
        const int stride = qEnvironmentVariableIntValue("TARVIX_REENTRANCY_STRIDE");
        engine->rootContext()->setContextProperty(QStringLiteral("reentrancyStride"),
                                                  stride > 1 ? stride : 1);
        // The matrix in shards ("k/n": the cells whose number is k modulo n), so that ctest
        // runs them side by side; every cell is in exactly one shard.
        int shard = 0;
        int shards = 1;
        const QList<QByteArray> parts = qgetenv("TARVIX_REENTRANCY_SHARD").split('/');
        if (parts.size() == 2 && parts[1].toInt() > 0) {
            shard = parts[0].toInt();
            shards = parts[1].toInt();
        }
        engine->rootContext()->setContextProperty(QStringLiteral("reentrancyShard"), shard);
        engine->rootContext()->setContextProperty(QStringLiteral("reentrancyShards"), shards);
        // The second run of the suite, with the links on the surface thread: what reaches a
        // software control from the plugin comes a hop later there.
        engine->rootContext()->setContextProperty(QStringLiteral("linkThreadRun"),
                                                  qgetenv("TARVIX_WORKSURFACE_LINK_THREAD") == "1");
    }

private:
    QmlWatchdog m_watchdog;
    QmlFirmware m_firmware;
    std::unique_ptr<DrivenClock> m_drivenClock;
    RealTimeClock m_realTime;
    std::unique_ptr<QmlWarnings> m_warnings;
};

QUICK_TEST_MAIN_WITH_SETUP(tarvixworksurface, QmlTestSetup)

#include "qmltestrunner.moc"
