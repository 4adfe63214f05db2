// The sample's sign-in window on the offscreen platform, its buttons wired
// to a real token manager and the reference server: the server's refusals
// appear beside their fields in the framework's (translated) words, and a
// browser sign-in ends on the account page.

#include "TokenManagerFixture.h"

#include "KalendroSignInWindow.h"

#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVOrvellaKeyTransfer.h>
#include <OrvellaKitWidgets/ORVOpenIDSignIn.h>

#include <QLineEdit>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPushButton>

using namespace orv::test;

namespace {

class SignInWindowTest : public SignedOutTokenManagerTest {
protected:
    void SetUp() override
    {
        SignedOutTokenManagerTest::SetUp();
        server.service().addOpenIDClient("kalendro-tests");

        KalendroSignInWindow::Actions actions;
        const auto signedIn = [this](std::shared_ptr<ORVOrvellaAccount> account, const ORVError &error) {
            if (account)
                window->showSignedIn(QStringLiteral("Signed in as ") + account->emailAddress());
            else
                window->showError(error);
        };
        actions.signIn = [this, signedIn](const QString &email, const QString &password) {
            tokens->registerDevice({email, password}, signedIn);
        };
        actions.createAccount = [this](const QString &name, const QString &email, const QString &password) {
            tokens->createAccountWithName(name, email, password, [this](const ORVError &error) {
                if (error)
                    window->showError(error);
                else
                    window->showMessage(QStringLiteral("created"));
            });
        };
        actions.signInWithBrowser = [this, signedIn](ORVOrvellaAccountType) {
            ORVOpenIDProviderConfiguration provider;
            provider.issuer = QUrl(QString::fromStdString(server.service().issuer("google")));
            provider.clientIdentifier = QStringLiteral("kalendro-tests");
            browserSignIn = std::make_unique<ORVOpenIDSignIn>(provider);
            browserSignIn->setOpenURLHandler([this](const QUrl &url) {
                QNetworkReply *reply = web.get(QNetworkRequest(url));
                QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
                return true;
            });
            browserSignIn->signIn(tokens, signedIn);
        };
        actions.emailLink = [](const QString &) {};
        actions.signOut = [this] {
            ++signOuts;
            window->showSignIn();
        };
        actions.showPreferences = [] {};
        actions.resetKey = [this] { ++resets; };
        actions.enterRecoveryCode = [this](const QString &code) {
            ORVError error;
            if (!ORVEncryptionKeyFromRecoveryCode(code, &error))
                window->showKeyChoices(error.localizedFailureReason());
        };
        actions.takeUpDevice = [this] { ++takeUps; };
        actions.approveDevice = [this](const QString &code) { approvedWith = code; };
        window = std::make_unique<KalendroSignInWindow>(actions);
        window->show();
    }
    void TearDown() override
    {
        window.reset();
        browserSignIn.reset();
        ORVRemoveTranslations();
        SignedOutTokenManagerTest::TearDown();
    }

    // Types into the form, presses the button, waits until the window is
    // ready again; what the field now says.
    QString press(const QString &button, const QString &email, const QString &password,
                  const QLineEdit *answeredBeside, const QString &name = QString())
    {
        window->nameField()->setText(name);
        window->emailField()->setText(email);
        window->passwordField()->setText(password);
        QPushButton *pressed = window->button(button);
        EXPECT_TRUE(pressed);
        if (!pressed)
            return QString();
        pressed->click();
        EXPECT_FALSE(pressed->isEnabled()); // busy until the answer
        EXPECT_TRUE(waitUntil([&] { return pressed->isEnabled(); }, 10s));
        return window->fieldError(answeredBeside);
    }

    std::unique_ptr<KalendroSignInWindow> window;
    std::unique_ptr<ORVOpenIDSignIn> browserSignIn;
    QNetworkAccessManager web;
    int signOuts = 0;
    int resets = 0;
    int takeUps = 0;
    QString approvedWith;
};

TEST_F(SignInWindowTest, ServerRefusalsAppearBesideTheirFieldsInTheFrameworksWords)
{
    EXPECT_EQ(press("Sign In", "ada@example.org", "wrong horse", window->passwordField()),
              ORVLocalizedString("Invalid email or password. Please try again."));
    EXPECT_TRUE(window->fieldError(window->emailField()).isEmpty());
    EXPECT_EQ(press("Create Account", "ada@example.org", "a long enough password", window->emailField(), "Ada"),
              ORVLocalizedString("Email address is already being used."));
    EXPECT_TRUE(window->fieldError(window->passwordField()).isEmpty());
    EXPECT_EQ(press("Create Account", "new@example.org", "short", window->passwordField(), "New"),
              ORVLocalizedString("Your password is not long enough."));

    // In German, with the framework's translation.
    ASSERT_TRUE(ORVInstallTranslations(QLocale(QLocale::German, QLocale::Germany)));
    EXPECT_EQ(press("Sign In", "ada@example.org", "wrong horse", window->passwordField()),
              QStringLiteral("Ungültige E-Mail-Adresse oder ungültiges Passwort. Bitte versuche es erneut."));
    EXPECT_FALSE(window->isShowingAccount());
}

TEST_F(SignInWindowTest, SignInWithGoogleShowsTheAccountAndSignOutComesBack)
{
    server.service().setAuthorizationAnswer(orv::server::AuthorizationAnswer{"grace@example.org", "", "", ""});
    window->button("Sign in with Google")->click();
    ASSERT_TRUE(waitUntil([&] { return window->isShowingAccount(); }, 10s)) << window->message().toStdString();
    EXPECT_EQ(window->accountText(), QStringLiteral("Signed in as grace@example.org"));
    window->button("Sign Out")->click();
    EXPECT_EQ(signOuts, 1);
    EXPECT_FALSE(window->isShowingAccount());
    EXPECT_TRUE(window->passwordField()->text().isEmpty());
}

TEST_F(SignInWindowTest, KeyPageResetsOnTheSecondPressAndApprovalAsksForConsentBeforeTheCode)
{
    window->showKeyChoices();
    ASSERT_TRUE(window->isShowingKeyChoices());
    window->button("Reset")->click();
    EXPECT_EQ(resets, 0);
    EXPECT_TRUE(window->keyMessage().contains("Confirm Reset"));
    window->button("Confirm Reset")->click();
    EXPECT_EQ(resets, 1);

    // While asking another device, only "Stop Asking" works.
    window->showKeyRequestRunning(true);
    ASSERT_TRUE(window->button("Stop Asking"));
    EXPECT_FALSE(window->button("Enter recovery code")->isEnabled());
    EXPECT_FALSE(window->button("Reset")->isEnabled());
    window->showKeyRequestRunning(false);
    EXPECT_TRUE(window->button("Approve from another device"));
    EXPECT_TRUE(window->button("Enter recovery code")->isEnabled());

    // A mistyped recovery code: the framework's reason, in German.
    ASSERT_TRUE(ORVInstallTranslations(QLocale(QLocale::German, QLocale::Germany)));
    QString typo = ORVEncryptionKeyRecoveryCode(QByteArray(16, '\x2a'));
    typo[0] = typo[0] == 'A' ? 'B' : 'A';
    window->recoveryCodeField()->setText(typo);
    window->button("Enter recovery code")->click();
    EXPECT_TRUE(window->keyMessage().contains("Tippfehler")) << window->keyMessage().toStdString();

    // The asking device's name is shown as it is, not as markup, and its
    // code is asked for only once the user said to continue.
    window->showSignedIn(QStringLiteral("Signed in"));
    window->showApprovalRequest(QStringLiteral("<b>Laptop</b>"));
    EXPECT_TRUE(window->approvalText().contains(QStringLiteral("“<b>Laptop</b>”"))) << window->approvalText().toStdString();
    EXPECT_FALSE(window->approvalCodeField()->isVisible());
    EXPECT_FALSE(window->button("Approve")->isVisible());
    window->button("Continue")->click();
    EXPECT_EQ(takeUps, 1);
    window->showApprovalCodeEntry();
    EXPECT_TRUE(window->approvalCodeField()->isVisible());
    window->approvalCodeField()->setText(QStringLiteral("482 913"));
    window->button("Approve")->click();
    EXPECT_EQ(approvedWith, QStringLiteral("482 913"));
    window->showApprovalRequest(QString());
    EXPECT_TRUE(window->approvalText().isEmpty());
}

} // namespace
