#pragma once

// The sample's windows (--gui): the preferences window with two panes and a
// menu that opens the crash report dialog, the pending usage reports and an
// about alert. --screenshots writes a PNG of each into a folder.

#include <QObject>
#include <QString>

#include <memory>

class ORVDataCollectionManager;
class ORVPreferencesWindowController;
class ORVUserDefaults;
class QWidget;

class KalendroWindows : public QObject {
    Q_OBJECT
public:
    KalendroWindows(std::shared_ptr<ORVDataCollectionManager> usage, QString accountText, QObject *parent = nullptr);
    ~KalendroWindows() override;

    // Shows the preferences window; with `endsTheSample` the application
    // quits when it goes.
    void show(bool endsTheSample = true);
    // Writes preferences-general.png, preferences-account.png, alert.png,
    // crash-report.png and pending-submissions.png into the folder; false
    // when one could not be written.
    // With a sign-in window, also sign-in.png (the sign-in page showing a
    // refused password) and signed-in.png (its account page as it is).
    bool writeScreenshots(const QString &folder, class KalendroSignInWindow *signIn = nullptr);

    void showCrashReport();
    void showPendingReports();
    void showAbout();

private:
    std::shared_ptr<ORVDataCollectionManager> _usage;
    std::shared_ptr<ORVUserDefaults> _defaults;
    std::unique_ptr<ORVPreferencesWindowController> _preferences;
    QWidget *_pendingWindow = nullptr;
};
