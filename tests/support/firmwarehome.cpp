#include "support/firmwarehome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtGlobal>

// Outside any namespace, as Qt's resource macros want.
static void registerResourceImage()
{
    Q_INIT_RESOURCE(firmwareimage);
}

static void unregisterResourceImage()
{
    Q_CLEANUP_RESOURCE(firmwareimage);
}

FirmwareHome::FirmwareHome() : m_savedHome(qgetenv("HOME"))
{
    // The image lives in a static library: registering it here is what links it in. A
    // second registration of the same data is ignored.
    registerResourceImage();
    qputenv("HOME", QFile::encodeName(m_folder.path()));
}

FirmwareHome::~FirmwareHome()
{
    qputenv("HOME", m_savedHome);
}

bool FirmwareHome::isValid() const
{
    return m_folder.isValid();
}

QString FirmwareHome::path() const
{
    return m_folder.path();
}

void FirmwareHome::setHome(const QString& home)
{
    qputenv("HOME", QFile::encodeName(home));
}

QString FirmwareHome::imagePath() const
{
    return m_folder.path() + QStringLiteral("/.firmware/worksurface.bin");
}

WithoutResourceImage::WithoutResourceImage()
{
    unregisterResourceImage();
}

WithoutResourceImage::~WithoutResourceImage()
{
    registerResourceImage();
}

bool writeFile(const QString& path, const QByteArray& contents)
{
    if (!QDir().mkpath(QFileInfo(path).path())) {
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    return file.write(contents) == contents.size();
}
