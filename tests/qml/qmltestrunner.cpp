// Runs every tests/qml/tst_*.qml against the module in the build tree.
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
#include <QString>
#include <QTemporaryDir>
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

class QmlTestSetup : public QObject
{
    Q_OBJECT

public slots:
    // Each engine gets the watchdog, and sees which Qt runs it where the QML engines differ
    // (qtMajorVersion).
    void qmlEngineAvailable(QQmlEngine* engine)
    {
        engine->rootContext()->setContextProperty(QStringLiteral("qmlWatchdog"), &m_watchdog);
        engine->rootContext()->setContextProperty(QStringLiteral("qmlFirmware"), &m_firmware);
        engine->rootContext()->setContextProperty(QStringLiteral("qtMajorVersion"),
                                                  QT_VERSION_MAJOR);
        // Under emulation (the aarch64 build) the re-entrancy matrix runs every n-th cell;
        // everywhere else every cell.
        const int stride = qEnvironmentVariableIntValue("TARVIX_REENTRANCY_STRIDE");
        engine->rootContext()->setContextProperty(QStringLiteral("reentrancyStride"),
                                                  stride > 1 ? stride : 1);
        // The second run of the suite, with the links on the surface thread: what reaches a
        // software control from the plugin comes a hop later there.
        engine->rootContext()->setContextProperty(QStringLiteral("linkThreadRun"),
                                                  qgetenv("TARVIX_WORKSURFACE_LINK_THREAD") == "1");
    }

private:
    QmlWatchdog m_watchdog;
    QmlFirmware m_firmware;
};

QUICK_TEST_MAIN_WITH_SETUP(tarvixworksurface, QmlTestSetup)

#include "qmltestrunner.moc"
