// Runs every tests/qml/tst_*.qml against the module in the build tree.
//
// Each file's engine also gets `qmlWatchdog`: a test arms it before a step that could hang
// the QML thread (a handler that calls back into the plugin) and disarms it afterwards. A
// step still running when the time is up fails the whole run at once, naming the step,
// instead of stalling until ctest's own time-out.
#include <QObject>
#include <QQmlContext>
#include <QQmlEngine>
#include <QString>
#include <QtQuickTest>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

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

class QmlTestSetup : public QObject
{
    Q_OBJECT

public slots:
    // Each engine gets the watchdog, and sees which Qt runs it where the QML engines differ
    // (qtMajorVersion).
    void qmlEngineAvailable(QQmlEngine* engine)
    {
        engine->rootContext()->setContextProperty(QStringLiteral("qmlWatchdog"), &m_watchdog);
        engine->rootContext()->setContextProperty(QStringLiteral("qtMajorVersion"),
                                                  QT_VERSION_MAJOR);
        // Under emulation (the aarch64 build) the re-entrancy matrix runs every n-th cell;
        // everywhere else every cell.
        const int stride = qEnvironmentVariableIntValue("TARVIX_REENTRANCY_STRIDE");
        engine->rootContext()->setContextProperty(QStringLiteral("reentrancyStride"),
                                                  stride > 1 ? stride : 1);
    }

private:
    QmlWatchdog m_watchdog;
};

QUICK_TEST_MAIN_WITH_SETUP(tarvixworksurface, QmlTestSetup)

#include "qmltestrunner.moc"
