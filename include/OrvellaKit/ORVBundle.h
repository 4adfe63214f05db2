#pragma once

// ORVBundle: an application's folder and its information dictionary.
//
// A bundle is a folder holding the executable and "Info.json", a JSON object
// with keys such as "CFBundleIdentifier", "CFBundleVersion",
// "CFBundleDisplayName", "CFBundleName", "CFBundleExecutable" and
// "BuildIdentifier". The main bundle is the folder of the running
// executable, as it was at launch: the path is read once when the library is
// loaded, so a binary that is later moved or replaced still knows where it
// started. The application may instead set its dictionary at start.

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <memory>
#include <mutex>

class ORVBundle {
public:
    // The bundle of the running application.
    static ORVBundle &mainBundle();
    // The bundle in the folder `path`; null when the folder does not exist.
    // A folder without a readable Info.json gives an empty dictionary.
    static std::shared_ptr<ORVBundle> bundleWithPath(const QString &path);
    // The bundle whose folder holds the executable at `executablePath`, when
    // that folder has an Info.json; otherwise null.
    static std::shared_ptr<ORVBundle> bundleForExecutable(const QString &executablePath);

    explicit ORVBundle(QString bundlePath, QString executablePath = {});

    QString bundlePath() const;
    // The executable's path at launch (main bundle), or the folder's
    // "CFBundleExecutable" inside the folder.
    QString executablePath() const;

    QVariantMap infoDictionary() const;
    // Replaces the dictionary (an application that does not ship Info.json).
    void setInfoDictionary(const QVariantMap &info);
    QVariant objectForInfoDictionaryKey(const QString &key) const;

    // The localisations to use, best first: the first entry of
    // "CFBundleLocalizations" (default: "CFBundleDevelopmentRegion", else
    // "en") that matches one of the user's interface languages, else the
    // development region.
    QStringList preferredLocalizations() const;

    // "CFBundleIdentifier", or a null string.
    QString bundleIdentifier() const;

    // The reason the last Info.json read failed, or a null string.
    QString loadError() const;

private:
    void loadIfNeeded() const;

    mutable std::mutex _lock;
    QString _bundlePath;
    QString _executablePath;
    mutable bool _loaded = false;
    mutable QVariantMap _info;
    mutable QString _loadError;
};

// The executable path this process was started from (read at load time).
QString ORVLaunchExecutablePath();
