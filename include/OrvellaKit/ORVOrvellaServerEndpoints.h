#pragma once

/// \file
/// URLs of the account server's services and of the fixed web pages, from
/// one table, and the consent sentence shown when an account is created.
///
/// Thread rule: the functions of this file may be called on any thread.

#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVOrvellaAccount.h>

#include <QList>
#include <QString>
#include <QUrl>

// Configuration: the account web page and the public web site. Service
// endpoints use the host the caller passes; these pages do not.

/// The account web page: "https://account.orvella.com/"
ORVELLAKIT_EXPORT extern const QString ORVOrvellaAccountWebURLString;
/// The public web site: "https://www.orvella.com"
ORVELLAKIT_EXPORT extern const QString ORVOrvellaPublicSiteURLString;
/// The terms of service: public site + "/terms"
ORVELLAKIT_EXPORT extern const QString ORVOrvellaAccountTermsURLString;
/// The privacy policy: public site + "/privacy"
ORVELLAKIT_EXPORT extern const QString ORVOrvellaAccountPrivacyPolicyURLString;

/// The URL of `endpoint`: for a service "https://" + host + its path (the
/// host may carry a port; nothing is escaped), for a page its fixed address.
/// `applicationName` is used only by ORVOrvellaServerEndpointAppleMacClientBegin.
/// An empty URL for a number that is not an endpoint.
ORVELLAKIT_EXPORT QUrl ORVOrvellaAccountURLForServerEndpoint(ORVOrvellaServerEndpoint endpoint, const QString &host,
                                                             const QString &applicationName = QString());

/// Text with links on some of its ranges.
///
/// Thread rule: a value; any thread, as long as one object is not changed
/// while another thread reads it. Ownership: holds copies of what it is given.
class ORVELLAKIT_EXPORT ORVAttributedString {
public:
    /// A link on a range of the text.
    struct Link {
        qsizetype start = 0;  ///< first character of the range (UTF-16 units)
        qsizetype length = 0; ///< length of the range (UTF-16 units)
        QUrl url;             ///< where the link leads
        /// Same range and URL.
        bool operator==(const Link &) const = default;
    };

    /// Empty text without links.
    ORVAttributedString() = default;
    /// `text` with `links`, which must be in text order and not overlap.
    explicit ORVAttributedString(QString text, QList<Link> links = {});

    /// The plain text.
    const QString &string() const { return _text; }
    /// The links, in text order.
    const QList<Link> &links() const { return _links; }
    /// The text with each link as `<a href>`, HTML-escaped, for a QLabel
    /// (Qt::RichText, openExternalLinks).
    QString toHtml() const;

    /// Same text and links.
    bool operator==(const ORVAttributedString &) const = default;

private:
    QString _text;
    QList<Link> _links; ///< in text order, never overlapping
};

/// The consent sentence shown when an account is created, with its links.
/// It is "By creating an account you agree to our \<terms\>terms of service\</terms\>
/// and \<privacy\>privacy policy\</privacy\>." translated, with each tag pair
/// replaced by its text linked to the terms or the privacy page. A tag pair
/// missing from a translation leaves that part as plain text.
ORVELLAKIT_EXPORT ORVAttributedString ORVOrvellaAccountAttributedPrivacyPolicyString();
