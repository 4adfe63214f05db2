#pragma once

/// \file
/// ORVBundle and ORVLaunchExecutablePath().

#include <OrvellaKit/ORVExport.h>

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <memory>
#include <mutex>

/// An application's folder and its information dictionary.
///
/// A bundle is a folder holding the executable and "Info.json", a JSON object
/// with keys such as "CFBundleIdentifier", "CFBundleVersion",
/// "CFBundleDisplayName", "CFBundleName", "CFBundleExecutable" and
/// "BuildIdentifier". The main bundle is the folder of the running
/// executable, as it was at launch: the path is read once when the library is
/// loaded, so a binary that is later moved or replaced still knows where it
/// started. The application may instead set its dictionary at start.
///
/// Info.json is read once, on the first call that needs the dictionary (the
/// main bundle's when the QCoreApplication is made, at the latest), and kept.
///
/// Thread rule: any thread; every member takes the bundle's lock.
/// Ownership: the main bundle lives as long as the process; the other
/// factories return a new bundle owned by the caller.
class ORVELLAKIT_EXPORT ORVBundle {
public:
    /// The bundle of the running application.
    static ORVBundle &mainBundle();
    /// The bundle in the folder `path`; null when the folder does not exist.
    /// A folder without a readable Info.json gives an empty dictionary.
    static std::shared_ptr<ORVBundle> bundleWithPath(const QString &path);
    /// The bundle whose folder holds the executable at `executablePath`, when
    /// that folder has an Info.json; otherwise null.
    static std::shared_ptr<ORVBundle> bundleForExecutable(const QString &executablePath);

    /// A bundle for the folder `bundlePath`; nothing is read until the
    /// dictionary is needed. `executablePath` empty: the folder's
    /// "CFBundleExecutable".
    explicit ORVBundle(QString bundlePath, QString executablePath = {});

    /// The bundle's folder, as given.
    QString bundlePath() const;
    /// The executable's path at launch (main bundle), or the folder's
    /// "CFBundleExecutable" inside the folder.
    QString executablePath() const;

    /// The contents of Info.json (or the dictionary that was set); empty
    /// when there is none or it cannot be read.
    QVariantMap infoDictionary() const;
    /// Replaces the dictionary (an application that does not ship Info.json).
    void setInfoDictionary(const QVariantMap &info);
    /// The dictionary's value for `key`, or an invalid QVariant.
    QVariant objectForInfoDictionaryKey(const QString &key) const;

    /// The localisations to use, best first: the first entry of
    /// "CFBundleLocalizations" (default: "CFBundleDevelopmentRegion", else
    /// "en") that matches one of the user's interface languages, else the
    /// development region (the first listed one when the development region
    /// is not listed). The list holds that one entry.
    QStringList preferredLocalizations() const;

    /// "CFBundleIdentifier", or a null string.
    QString bundleIdentifier() const;

    /// The reason the last Info.json read failed, or a null string.
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

/// The executable path this process was started from (read at load time).
/// Any thread.
ORVELLAKIT_EXPORT QString ORVLaunchExecutablePath();
