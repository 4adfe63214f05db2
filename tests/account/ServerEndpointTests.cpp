#include "OrvTestSupport.h"

#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVOrvellaServerEndpoints.h>

TEST(ServerEndpoints, TableAndFixedPages)
{
    const QString host = QStringLiteral("api.example.org:8443");
    struct Case {
        quint64 endpoint;
        const char *url; // "" for none
    };
    const Case cases[] = {
        {0, ""},
        {8, ""},
        {31, ""},
        {1, "https://api.example.org:8443/v1/scheduling/"},
        {4, "https://api.example.org:8443/keyvalue/v1/"},
        {13, "https://api.example.org:8443/v1/auth/device/"},
        {18, "https://api.example.org:8443/v1/auth/magic/device/"},
        {22, "https://api.example.org:8443/v1/auth/apple/mac-client/begin/?app=Kalendro"},
        {23, "https://api.example.org:8443/v1/util/features/"},
        {24, "https://account.orvella.com/"},
        {26, "https://www.orvella.com/contact"},
        {29, "https://www.orvella.com/kalendro/onboarding/kalendro2learnmore"},
    };
    for (const Case &c : cases) {
        const QUrl url = ORVOrvellaAccountURLForServerEndpoint(static_cast<ORVOrvellaServerEndpoint>(c.endpoint), host,
                                                               QStringLiteral("Kalendro"));
        EXPECT_EQ(url.toString(), QString::fromLatin1(c.url)) << c.endpoint;
    }
    // The host is inserted as it stands, and the account page ignores it.
    EXPECT_EQ(ORVOrvellaAccountURLForServerEndpoint(ORVOrvellaServerEndpointAccountWebPage, QStringLiteral("x")),
              QUrl(ORVOrvellaAccountWebURLString));
    EXPECT_EQ(ORVOrvellaAccountTermsURLString, QStringLiteral("https://www.orvella.com/terms"));
}

TEST(ServerEndpoints, ConsentSentenceLinks)
{
    const ORVAttributedString english = ORVOrvellaAccountAttributedPrivacyPolicyString();
    EXPECT_EQ(english.string(),
              QStringLiteral("By creating an account you agree to our terms of service and privacy policy."));
    ASSERT_EQ(english.links().size(), 2);
    EXPECT_EQ(english.string().mid(english.links()[0].start, english.links()[0].length), "terms of service");
    EXPECT_EQ(english.links()[0].url, QUrl(ORVOrvellaAccountTermsURLString));
    EXPECT_EQ(english.string().mid(english.links()[1].start, english.links()[1].length), "privacy policy");
    EXPECT_EQ(english.links()[1].url, QUrl(ORVOrvellaAccountPrivacyPolicyURLString));
    EXPECT_EQ(english.toHtml(), QStringLiteral("By creating an account you agree to our <a "
                                               "href=\"https://www.orvella.com/terms\">terms of service</a> and <a "
                                               "href=\"https://www.orvella.com/privacy\">privacy policy</a>."));

    // A translation places the links where its own words are.
    ASSERT_TRUE(ORVInstallTranslations(QLocale(QLocale::German, QLocale::Germany)));
    const ORVAttributedString german = ORVOrvellaAccountAttributedPrivacyPolicyString();
    ORVInstallTranslations(QLocale(QLocale::English));
    ASSERT_EQ(german.links().size(), 2);
    EXPECT_EQ(german.string().mid(german.links()[0].start, german.links()[0].length), "Nutzungsbedingungen");
    EXPECT_EQ(german.string().mid(german.links()[1].start, german.links()[1].length), "Datenschutzerklärung");
    EXPECT_FALSE(german.string().contains('<'));

    // Plain text stays plain and HTML in it is escaped.
    const ORVAttributedString plain(QStringLiteral("a < b"));
    EXPECT_TRUE(plain.links().isEmpty());
    EXPECT_EQ(plain.toHtml(), QStringLiteral("a &lt; b"));
}
