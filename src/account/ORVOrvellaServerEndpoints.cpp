#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>
#include <OrvellaKit/ORVStringWithFormat.h>

#include <QRegularExpression>

#include <algorithm>

const QString ORVOrvellaAccountWebURLString = QStringLiteral("https://account.orvella.com/");
const QString ORVOrvellaPublicSiteURLString = QStringLiteral("https://www.orvella.com");
const QString ORVOrvellaAccountTermsURLString = QStringLiteral("https://www.orvella.com/terms");
const QString ORVOrvellaAccountPrivacyPolicyURLString = QStringLiteral("https://www.orvella.com/privacy");

namespace {

const char *servicePath(quint64 endpoint)
{
    switch (endpoint) {
    case 1: return "https://%@/v1/scheduling/";
    case 2: return "https://%@/kalendro/weather/v2/";
    case 3: return "https://%@/notify/v1/";
    case 4: return "https://%@/keyvalue/v1/";
    case 5: return "https://%@/kalendro/schedjoules/v1/";
    case 6: return "https://%@/push/";
    case 7: return "https://%@/v1/account/email/";
    case 9: return "https://%@/v1/notifications/";
    case 10: return "https://%@/v1/account/details/";
    case 11: return "https://%@/v1/account/register/";
    case 12: return "https://%@/v1/account/device/";
    case 13: return "https://%@/v1/auth/device/";
    case 14: return "https://%@/v1/auth/login/";
    case 15: return "https://%@/v1/auth/google/login/";
    case 16: return "https://%@/v1/auth/apple/login/";
    case 17: return "https://%@/v1/auth/magic/instant/";
    case 18: return "https://%@/v1/auth/magic/device/";
    case 20: return "https://%@/v1/account/password/reset/";
    case 22: return "https://%@/v1/auth/apple/mac-client/begin/?app=%@";
    case 23: return "https://%@/v1/util/features/";
    default: return nullptr;
    }
}

} // namespace

QUrl ORVOrvellaAccountURLForServerEndpoint(ORVOrvellaServerEndpoint endpoint, const QString &host,
                                           const QString &applicationName)
{
    switch (endpoint) {
    case ORVOrvellaServerEndpointAccountWebPage:
        return QUrl(ORVOrvellaAccountWebURLString);
    case ORVOrvellaServerEndpointContactPage:
        return QUrl(ORVOrvellaPublicSiteURLString + QStringLiteral("/contact"));
    case ORVOrvellaServerEndpointOnboardingPage:
        return QUrl(ORVOrvellaPublicSiteURLString + QStringLiteral("/kalendro/onboarding"));
    case ORVOrvellaServerEndpointOnboardingLearnMorePage:
        return QUrl(ORVOrvellaPublicSiteURLString + QStringLiteral("/kalendro/onboarding/kalendro2learnmore"));
    default:
        break;
    }
    const char *format = servicePath(endpoint);
    if (!format)
        return QUrl();
    const QString text = endpoint == ORVOrvellaServerEndpointAppleMacClientBegin
                             ? ORVStringWithFormat(format, host, applicationName)
                             : ORVStringWithFormat(format, host);
    if (text.isNull())
        return QUrl();
    // The arguments are inserted as they stand; QUrl's tolerant parsing
    // keeps them as typed.
    return QUrl(text);
}

ORVAttributedString::ORVAttributedString(QString text, QList<Link> links)
    : _text(std::move(text)), _links(std::move(links))
{
}

QString ORVAttributedString::toHtml() const
{
    QString html;
    qsizetype position = 0;
    for (const Link &link : _links) {
        html += _text.mid(position, link.start - position).toHtmlEscaped();
        html += QStringLiteral("<a href=\"%1\">%2</a>")
                    .arg(link.url.toString(QUrl::FullyEncoded).toHtmlEscaped(),
                         _text.mid(link.start, link.length).toHtmlEscaped());
        position = link.start + link.length;
    }
    html += _text.mid(position).toHtmlEscaped();
    return html;
}

ORVAttributedString ORVOrvellaAccountAttributedPrivacyPolicyString()
{
    QString text = ORVLocalizedString("By creating an account you agree to our <terms>terms of service</terms> and "
                                      "<privacy>privacy policy</privacy>.");
    QList<ORVAttributedString::Link> links;
    const std::pair<const char *, QString> tags[] = {
        {"<terms>(.+)</terms>", ORVOrvellaAccountTermsURLString},
        {"<privacy>(.+)</privacy>", ORVOrvellaAccountPrivacyPolicyURLString},
    };
    for (const auto &[pattern, url] : tags) {
        const QRegularExpressionMatch match = QRegularExpression(QString::fromLatin1(pattern)).match(text);
        if (!match.hasMatch())
            continue;
        const QString captured = match.captured(1);
        const qsizetype start = match.capturedStart(0);
        const qsizetype end = match.capturedEnd(0);
        text.replace(start, match.capturedLength(0), captured);
        // Earlier links move with the text; one inside the replaced range
        // is covered by the new link, whose attribute wins there.
        for (auto it = links.begin(); it != links.end();) {
            if (it->start >= end) {
                it->start -= match.capturedLength(0) - captured.size();
            } else if (it->start + it->length > start) {
                it = links.erase(it);
                continue;
            }
            ++it;
        }
        links.append({start, captured.size(), QUrl(url)});
    }
    std::sort(links.begin(), links.end(), [](const auto &a, const auto &b) { return a.start < b.start; });
    return ORVAttributedString(text, links);
}
