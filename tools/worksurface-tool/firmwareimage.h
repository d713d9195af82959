#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

// The file flash writes, read before any port is opened. A section's bootloader writes the
// file's bytes as they are, so the file must be the binary image: what it is instead (empty,
// an ELF file, Intel HEX or S-record text, larger than a section takes) is named here.
class FirmwareImage
{
public:
    // path as the user gave it; maxSize the largest image a section takes (--max-size).
    FirmwareImage(const QString& path, qint64 maxSize);

    const QString& path() const { return m_path; }
    // The path the updater reads the image from.
    QString absolutePath() const;
    bool isReadable() const { return m_readable; }
    // Why the file could not be read, in the system's words ("No such file or directory").
    const QString& readError() const { return m_readError; }
    qint64 size() const { return m_size; }
    // 64-byte blocks the bootloader is sent.
    qint64 blocks() const;
    // Why no section can take the file ("is empty", "is an ELF file, …"), or empty.
    QString problem() const;
    // The SHA-256 of the file's bytes, in hex.
    QString sha256() const;

private:
    QString m_path;
    qint64 m_maxSize;
    bool m_readable = false;
    QString m_readError;
    qint64 m_size = 0;
    // The whole file when it is not too large; its first 4 KiB otherwise.
    QByteArray m_bytes;
};
