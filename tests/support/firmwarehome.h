#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// What the settings' firmware lookup looks at, under a test's control: the home folder and
// the application's built-in image ":/firmware/worksurface.bin" (a small test image whose
// contents are "resource firmware image\n", built into the test support library).
//
// While a FirmwareHome lives, HOME is a fresh, empty temporary folder (or what setHome()
// says) and the built-in image is there; the old HOME comes back when it goes.
class FirmwareHome
{
public:
    FirmwareHome();
    ~FirmwareHome();
    FirmwareHome(const FirmwareHome&) = delete;
    FirmwareHome& operator=(const FirmwareHome&) = delete;

    bool isValid() const;
    // The temporary folder HOME names at first.
    QString path() const;
    // HOME names another folder (or a relative name) for the rest of the test.
    void setHome(const QString& home);
    // The image the lookup finds first: <path()>/.firmware/worksurface.bin.
    QString imagePath() const;

private:
    QTemporaryDir m_folder;
    QByteArray m_savedHome;
};

// Stands for an application shipped without a built-in image while it lives.
class WithoutResourceImage
{
public:
    WithoutResourceImage();
    ~WithoutResourceImage();
    WithoutResourceImage(const WithoutResourceImage&) = delete;
    WithoutResourceImage& operator=(const WithoutResourceImage&) = delete;
};

// Writes a file, making its folder first; false if either fails.
bool writeFile(const QString& path, const QByteArray& contents);
