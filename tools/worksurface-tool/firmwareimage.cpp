#include "firmwareimage.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <cctype>

#include "updater/sectionupdater.h"

using Velmora::Worksurface::SectionUpdater;

namespace {

// How much of a file tells what it is.
constexpr int kHeadSize = 4096;

// A line of a text image: hex digits after the record's `from` leading characters.
bool isHexRecord(const QByteArray& line, int from)
{
    const QByteArray body = line.trimmed().mid(from);
    if (body.size() < 8) {
        return false;
    }
    for (const char c : body) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

}  // namespace

FirmwareImage::FirmwareImage(const QString& path, qint64 maxSize) : m_path(path), m_maxSize(maxSize)
{
    const QFileInfo info(path);
    QFile file(info.absoluteFilePath());
    if (!file.open(QIODevice::ReadOnly)) {
        m_readError = file.errorString();
        return;
    }
    if (!info.isFile()) {
        m_readError = QStringLiteral("Not a regular file");
        return;
    }
    m_readable = true;
    m_size = file.size();
    m_bytes = m_size <= m_maxSize ? file.readAll() : file.read(kHeadSize);
}

QString FirmwareImage::absolutePath() const
{
    return QFileInfo(m_path).absoluteFilePath();
}

qint64 FirmwareImage::blocks() const
{
    return (m_size + SectionUpdater::kBlockSize - 1) / SectionUpdater::kBlockSize;
}

QString FirmwareImage::problem() const
{
    if (m_size == 0) {
        return QStringLiteral("is empty");
    }
    const QByteArray head = m_bytes.left(kHeadSize);
    if (head.startsWith("\x7f"
                        "ELF")) {
        return QStringLiteral(
            "is an ELF file, not a binary image (make one with objcopy -O binary)");
    }
    // Text images: every line a record of hex digits, Intel HEX lines beginning with a
    // colon, S-records with S and the record type.
    const QByteArray first = head.split('\n').value(0).trimmed();
    if (first.startsWith(':') && isHexRecord(first, 1)) {
        return QStringLiteral(
            "is Intel HEX text, not a binary image (make one with objcopy -I ihex -O binary)");
    }
    if (first.size() > 2 && first.at(0) == 'S' && first.at(1) >= '0' && first.at(1) <= '9' &&
        isHexRecord(first, 2)) {
        return QStringLiteral(
            "is S-record text, not a binary image (make one with objcopy -I srec -O binary)");
    }
    if (m_size > m_maxSize) {
        return QStringLiteral("is %1 bytes, more than the %2 a section takes (--max-size)")
            .arg(m_size)
            .arg(m_maxSize);
    }
    return QString();
}

QString FirmwareImage::sha256() const
{
    return QString::fromLatin1(
        QCryptographicHash::hash(m_bytes, QCryptographicHash::Sha256).toHex());
}
