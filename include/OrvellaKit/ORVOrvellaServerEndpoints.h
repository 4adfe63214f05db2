#pragma once

// URLs of the account server's services and of the fixed web pages, from
// one table, and the consent sentence shown when an account is created.

#include <OrvellaKit/ORVOrvellaAccount.h>

#include <QList>
#include <QString>
#include <QUrl>

// Configuration: the account web page and the public web site. Service
// endpoints use the host the caller passes; these pages do not.
extern const QString ORVOrvellaAccountWebURLString;    // "https://account.orvella.com/"
extern const QString ORVOrvellaPublicSiteURLString;    // "https://www.orvella.com"
extern const QString ORVOrvellaAccountTermsURLString;  // public site + "/terms"
extern const QString ORVOrvellaAccountPrivacyPolicyURLString; // public site + "/privacy"

// The URL of `endpoint`: for a service "https://" + host + its path (the
// host may carry a port; nothing is escaped), for a page its fixed address.
// `applicationName` is used only by ORVOrvellaServerEndpointAppleMacClientBegin.
// An empty URL for a number that is not an endpoint.
QUrl ORVOrvellaAccountURLForServerEndpoint(ORVOrvellaServerEndpoint endpoint, const QString &host,
                                           const QString &applicationName = QString());

// Text with links on some of its ranges.
class ORVAttributedString {
public:
    struct Link {
        qsizetype start = 0;
        qsizetype length = 0;
        QUrl url;
        bool operator==(const Link &) const = default;
    };

    ORVAttributedString() = default;
    explicit ORVAttributedString(QString text, QList<Link> links = {});

    const QString &string() const { return _text; }
    const QList<Link> &links() const { return _links; }
    // The text with each link as <a href>, HTML-escaped, for a QLabel
    // (Qt::RichText, openExternalLinks).
    QString toHtml() const;

    bool operator==(const ORVAttributedString &) const = default;

private:
    QString _text;
    QList<Link> _links; // in text order, never overlapping
};

// "By creating an account you agree to our <terms>terms of service</terms>
// and <privacy>privacy policy</privacy>." translated, with each tag pair
// replaced by its text linked to the terms or the privacy page. A tag pair
// missing from a translation leaves that part as plain text.
ORVAttributedString ORVOrvellaAccountAttributedPrivacyPolicyString();
