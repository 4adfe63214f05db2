<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>Localizable</name>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>By creating an account you agree to our &lt;terms&gt;terms of service&lt;/terms&gt; and &lt;privacy&gt;privacy policy&lt;/privacy&gt;.</source>
        <translation>Mit dem Erstellen eines Kontos stimmst du unseren &lt;terms&gt;Nutzungsbedingungen&lt;/terms&gt; und der &lt;privacy&gt;Datenschutzerklärung&lt;/privacy&gt; zu.</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>You already have a Orvella account using email and password.</source>
        <translation>Du hast bereits ein Orvella-Konto mit E-Mail-Adresse und Passwort.</translation>
    </message>
    <message>
        <source>You already have a Orvella account using Sign in with Apple.</source>
        <translation>Du hast bereits ein Orvella-Konto mit „Mit Apple anmelden“.</translation>
    </message>
    <message>
        <source>You already have a Orvella account using Sign in with Google.</source>
        <translation>Du hast bereits ein Orvella-Konto mit „Über Google anmelden“.</translation>
    </message>
    <message>
        <source>Invalid email or password. Please try again.</source>
        <translation>Ungültige E-Mail-Adresse oder ungültiges Passwort. Bitte versuche es erneut.</translation>
    </message>
    <message>
        <source>Enter a valid email address.</source>
        <translation>Gib eine gültige E-Mail-Adresse ein.</translation>
    </message>
    <message>
        <source>Enter your password.</source>
        <translation>Gib dein Passwort ein.</translation>
    </message>
    <message>
        <source>Failed to sign in to Orvella account.</source>
        <translation>Die Anmeldung beim Orvella-Konto ist fehlgeschlagen.</translation>
    </message>
    <message>
        <source>A Orvella account already exists for this email address.</source>
        <translation>Für diese E-Mail-Adresse gibt es bereits ein Orvella-Konto.</translation>
    </message>
    <message>
        <source>Failed to sign in to account: %ld</source>
        <translation>Anmeldung fehlgeschlagen: %ld</translation>
    </message>
    <message>
        <source>Failed to sign in to account. Received invalid response from server.</source>
        <translation>Anmeldung fehlgeschlagen. Der Server hat eine ungültige Antwort gesendet.</translation>
    </message>
    <message>
        <source>Failed to create account.</source>
        <translation>Das Konto konnte nicht erstellt werden.</translation>
    </message>
    <message>
        <source>Email address is already being used.</source>
        <translation>Diese E-Mail-Adresse wird bereits verwendet.</translation>
    </message>
    <message>
        <source>Your password is not strong enough.</source>
        <translation>Dein Passwort ist nicht sicher genug.</translation>
    </message>
    <message>
        <source>Your password is not long enough.</source>
        <translation>Dein Passwort ist nicht lang genug.</translation>
    </message>
    <message>
        <source>Failed to register device. Received invalid response from server.</source>
        <translation>Das Gerät konnte nicht registriert werden. Der Server hat eine ungültige Antwort gesendet.</translation>
    </message>
</context>
</TS>
