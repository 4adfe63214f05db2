#pragma once

// The names the README's C++ examples take from the surrounding
// application: declared here with the types the examples imply, never
// defined (the examples are compiled, not linked or run). Everything else an
// example uses must come from OrvellaKit's own headers, unchanged.
//
// Add a name here only when an example uses it as something the application
// has (a value, a function, a class of its own); a misspelt or missing
// library name must stay an error.

#include <OrvellaKit/OrvellaKit.h>
#include <OrvellaKitWidgets/OrvellaKitWidgets.h>

#include <QApplication>
#include <QByteArray>
#include <QImage>
#include <QList>
#include <QPainter>
#include <QPalette>
#include <QPointF>
#include <QRectF>
#include <QString>
#include <QUrl>
#include <QWidget>

#include <functional>
#include <memory>

// The application object of main().
extern QApplication app;

// Launch: the application's account storage.
std::shared_ptr<ORVOrvellaAccount> currentAccount();
void store(const std::shared_ptr<ORVOrvellaAccount> &account);

// Foundation: a reply being read and what a request is about.
extern const QByteArray body; // a server reply's body
extern const QByteArray data; // bytes to encrypt
extern const QByteArray key;  // a 16-byte AES key
extern const QString identifier;
extern const QString name;
extern const int status;
void finish(const ORVError &error);

// Work items: the asynchronous work a thumbnail does and who shows it.
void render(std::function<void(ORVError error)> completion);
void show(const std::shared_ptr<ORVWorkItem> &item, const ORVError &error);
extern const QUrl url;
extern const ORVWorkItem::CompletionHandler handler;
void tidyCache();
void refreshWindow();

// Logging: a class of a source file that logs.
class Foo {
public:
    Foo();
    void requestFailed(const QString &identifier, const ORVError &error);
};

// Signing in: what the sign-in form holds and how it reports a failure.
extern const QString email;
extern const QString password;
void showError(const QString &reason);
// The account key: a code to show, and what the user typed.
void showCode(const QString &code);
extern const QString typedCode;
extern const QString recoveryCode;

// Settings: an object that observes a key.
class CalendarView {
public:
    void themeChanged(const QString &key);
};

// Collections, text and colours.
class Calendar;
extern const QList<QString> words;
extern const QString title;
extern const QString html;
extern const QString noteText;
extern const QString a;
extern const QString b;
extern const QString phone;

// Geometry and images.
extern const QPointF origin;
extern const QPointF velocity;
extern const QRectF frame;
extern const QRectF from;
extern const QRectF to;
extern const double progress;
extern const QList<QPointF> samples;
extern QWidget *window;
extern QWidget *widget;
extern QPainter painter;
extern const QByteArray pngBytes;
extern const QPalette palette;
extern ORVPreferencesWindowController *preferences;

// Window components: the application's own panes and its crash report.
class GeneralSettingsWidget : public QWidget {
};
class AccountPane : public ORVPreferencesViewController {
public:
    QString title() const override;
    QString helpAnchor() const override;
};
extern const QString crashLog;
void sendCrashReport(const QString &crashLog, const QString &comments);
extern const QUrl featuresURL;
void showFeature(const std::shared_ptr<ORVOnboardingFeatureItem> &item);

// Duplicate copies: the application's icon.
extern const QImage icon;
