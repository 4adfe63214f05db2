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
    <message>
        <source>Report</source>
        <translation>Bericht</translation>
    </message>
    <message>
        <source>Sending</source>
        <translation>Senden</translation>
    </message>
    <message>
        <source>Copy</source>
        <translation>Kopieren</translation>
    </message>
    <message>
        <source>Now</source>
        <translation>Jetzt</translation>
    </message>
    <message>
        <source>Today</source>
        <translation>Heute</translation>
    </message>
    <message>
        <source>Tomorrow</source>
        <translation>Morgen</translation>
    </message>
    <message>
        <source>Submit All Now</source>
        <translation>Alle jetzt senden</translation>
    </message>
    <message>
        <source>Delete</source>
        <translation>Löschen</translation>
    </message>
    <message>
        <source>%@ has been moved</source>
        <translation>%@ wurde verschoben</translation>
    </message>
    <message>
        <source>%1$@ has been moved from where it was originally launched. This can cause unexpected behavior. Would you like to quit and reopen %1$@ to avoid problems?</source>
        <translation>%1$@ wurde von dem Ort verschoben, von dem es gestartet wurde. Das kann zu unerwartetem Verhalten führen. Möchtest du %1$@ beenden und erneut öffnen, um Probleme zu vermeiden?</translation>
    </message>
    <message>
        <source>%1$@ has been moved from where it was originally launched. This can cause unexpected behavior. Please quit and relaunch %1$@.</source>
        <translation>%1$@ wurde von dem Ort verschoben, von dem es gestartet wurde. Das kann zu unerwartetem Verhalten führen. Bitte beende %1$@ und starte es erneut.</translation>
    </message>
    <message>
        <source>Relaunch</source>
        <translation>Neu starten</translation>
    </message>
    <message>
        <source>Don't Relaunch</source>
        <translation>Nicht neu starten</translation>
    </message>
    <message>
        <source>The usage reports could not be saved.</source>
        <translation>Die Nutzungsberichte konnten nicht gespeichert werden.</translation>
    </message>
    <message>
        <source>The usage report was queued before.</source>
        <translation>Der Nutzungsbericht wurde bereits eingereiht.</translation>
    </message>
    <message>
        <source>The folder for usage reports cannot be created.</source>
        <translation>Der Ordner für Nutzungsberichte kann nicht angelegt werden.</translation>
    </message>
    <message>
        <source>The submission delay is not a usable number of seconds.</source>
        <translation>Die Wartezeit bis zum Senden ist keine brauchbare Anzahl Sekunden.</translation>
    </message>
    <message>
        <source>The logs folder cannot be created.</source>
        <translation>Der Ordner für die Protokolle kann nicht angelegt werden.</translation>
    </message>
    <message>
        <source>Could not sign in with the browser.</source>
        <translation>Die Anmeldung über den Browser ist fehlgeschlagen.</translation>
    </message>
    <message>
        <source>The sign-in provider is not available (%@).</source>
        <translation>Der Anmeldedienst ist nicht erreichbar (%@).</translation>
    </message>
    <message>
        <source>The sign-in was not approved.</source>
        <translation>Die Anmeldung wurde nicht bestätigt.</translation>
    </message>
    <message>
        <source>The sign-in provider refused (%@).</source>
        <translation>Der Anmeldedienst hat abgelehnt (%@).</translation>
    </message>
    <message>
        <source>The sign-in provider's ID token is not valid (%@).</source>
        <translation>Das ID-Token des Anmeldedienstes ist ungültig (%@).</translation>
    </message>
    <message>
        <source>A sign-in is already under way.</source>
        <translation>Eine Anmeldung läuft bereits.</translation>
    </message>
    <message>
        <source>The sign-in provider is not configured.</source>
        <translation>Der Anmeldedienst ist nicht eingerichtet.</translation>
    </message>
    <message>
        <source>No port on this computer can receive the answer.</source>
        <translation>Auf diesem Computer kann kein Port die Antwort empfangen.</translation>
    </message>
    <message>
        <source>%@ has the answer. You can close this tab.</source>
        <translation>%@ hat die Antwort erhalten. Du kannst diesen Tab schließen.</translation>
    </message>
    <message>
        <source>No answer came from the browser in time.</source>
        <translation>Vom Browser kam nicht rechtzeitig eine Antwort.</translation>
    </message>
    <message>
        <source>The browser could not be opened.</source>
        <translation>Der Browser konnte nicht geöffnet werden.</translation>
    </message>
    <message>
        <source>The answer does not belong to this sign-in.</source>
        <translation>Die Antwort gehört nicht zu dieser Anmeldung.</translation>
    </message>
    <message>
        <source>The sign-in was cancelled.</source>
        <translation>Die Anmeldung wurde abgebrochen.</translation>
    </message>
    <message>
        <source>The request for the key has expired.</source>
        <translation>Die Anfrage nach dem Schlüssel ist abgelaufen.</translation>
    </message>
    <message>
        <source>Too many requests for the key were made; try again later.</source>
        <translation>Es wurden zu viele Anfragen nach dem Schlüssel gestellt; versuche es später noch einmal.</translation>
    </message>
    <message>
        <source>Another device has already answered this request.</source>
        <translation>Ein anderes Gerät hat diese Anfrage bereits beantwortet.</translation>
    </message>
    <message>
        <source>This request for the key has already been made.</source>
        <translation>Diese Anfrage nach dem Schlüssel wurde bereits gestellt.</translation>
    </message>
    <message>
        <source>No key pair could be made.</source>
        <translation>Es konnte kein Schlüsselpaar erzeugt werden.</translation>
    </message>
    <message>
        <source>Nobody is signed in.</source>
        <translation>Niemand ist angemeldet.</translation>
    </message>
    <message>
        <source>The request for the key was refused on the other device.</source>
        <translation>Die Anfrage nach dem Schlüssel wurde auf dem anderen Gerät abgelehnt.</translation>
    </message>
    <message>
        <source>The answer to the request for the key cannot be verified.</source>
        <translation>Die Antwort auf die Anfrage nach dem Schlüssel lässt sich nicht prüfen.</translation>
    </message>
    <message>
        <source>The device that asked for the key cannot be verified.</source>
        <translation>Das Gerät, das nach dem Schlüssel fragt, lässt sich nicht prüfen.</translation>
    </message>
    <message>
        <source>The encryption key is not 16 bytes long.</source>
        <translation>Der Verschlüsselungsschlüssel ist nicht 16 Bytes lang.</translation>
    </message>
    <message>
        <source>The request for the key is not waiting for an answer.</source>
        <translation>Die Anfrage nach dem Schlüssel wartet nicht auf eine Antwort.</translation>
    </message>
    <message>
        <source>The code does not match the one this device shows.</source>
        <translation>Der Code stimmt nicht mit dem überein, den dieses Gerät zeigt.</translation>
    </message>
    <message>
        <source>The key could not be encrypted.</source>
        <translation>Der Schlüssel konnte nicht verschlüsselt werden.</translation>
    </message>
    <message>
        <source>This request for the key has already been taken up.</source>
        <translation>Diese Anfrage nach dem Schlüssel wird bereits bearbeitet.</translation>
    </message>
    <message>
        <source>The account server did not answer in time.</source>
        <translation>Der Kontoserver hat nicht rechtzeitig geantwortet.</translation>
    </message>
    <message>
        <source>A recovery code has 28 letters and digits; this one has %ld.</source>
        <translation>Ein Wiederherstellungscode hat 28 Buchstaben und Ziffern; dieser hat %ld.</translation>
    </message>
    <message>
        <source>Recovery codes have no &quot;%@&quot; (nor 0, 1, I or O); check the character.</source>
        <translation>Wiederherstellungscodes enthalten kein „%@“ (auch kein 0, 1, I oder O); prüfe das Zeichen.</translation>
    </message>
    <message>
        <source>The recovery code has a typing mistake; compare it with the one you wrote down.</source>
        <translation>Der Wiederherstellungscode enthält einen Tippfehler; vergleiche ihn mit dem notierten.</translation>
    </message>
</context>
<context>
    <name>ORVCrashReportWindowController</name>
    <message>
        <source>Problem Report</source>
        <translation>Problembericht</translation>
    </message>
    <message>
        <source>%@ quit unexpectedly.</source>
        <translation>%@ wurde unerwartet beendet.</translation>
    </message>
    <message>
        <source>A report of what happened helps us fix the problem. Add your name and e-mail address if we may contact you about it.</source>
        <translation>Ein Bericht über das Geschehene hilft uns, das Problem zu beheben. Gib deinen Namen und deine E-Mail-Adresse an, wenn wir dich dazu kontaktieren dürfen.</translation>
    </message>
    <message>
        <source>&amp;Name:</source>
        <translation>&amp;Name:</translation>
    </message>
    <message>
        <source>&amp;E-mail:</source>
        <translation>&amp;E-Mail:</translation>
    </message>
    <message>
        <source>&amp;Comments (what were you doing when it happened?):</source>
        <translation>&amp;Kommentare (was hast du gerade gemacht?):</translation>
    </message>
    <message>
        <source>Show &amp;Details…</source>
        <translation>&amp;Details anzeigen …</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>&amp;Send Report</source>
        <translation>Bericht &amp;senden</translation>
    </message>
</context>
<context>
    <name>ORVDataCollectionPendingItemsViewController</name>
    <message>
        <source>Pending Reports</source>
        <translation>Ausstehende Berichte</translation>
    </message>
    <message>
        <source>These usage reports are waiting to be sent. Delete the ones you do not want to share.</source>
        <translation>Diese Nutzungsberichte warten auf das Senden. Lösche die, die du nicht teilen möchtest.</translation>
    </message>
    <message>
        <source>All reports will be sent when you close this view.</source>
        <translation>Alle Berichte werden gesendet, wenn du diese Ansicht schließt.</translation>
    </message>
    <message>
        <source>Delete</source>
        <translation>Löschen</translation>
    </message>
    <message>
        <source>Submit All Now</source>
        <translation>Alle jetzt senden</translation>
    </message>
</context>
<context>
    <name>DuplicateApp</name>
    <message>
        <source>Another copy of %@ is open</source>
        <translation>Eine weitere Kopie von %@ ist geöffnet</translation>
    </message>
    <message>
        <source>You can not have two copies of %@ open at the same time.

Would you like to quit the copy you just opened or the one that is already open?</source>
        <translation>Es können nicht zwei Kopien von %@ gleichzeitig geöffnet sein.

Möchtest du die gerade geöffnete Kopie beenden oder die, die bereits geöffnet ist?</translation>
    </message>
    <message>
        <source>An older version of %@ is already open. Would you like to quit the older version?</source>
        <translation>Eine ältere Version von %@ ist bereits geöffnet. Möchtest du die ältere Version beenden?</translation>
    </message>
    <message>
        <source>Would you like to quit the other copy?</source>
        <translation>Möchtest du die andere Kopie beenden?</translation>
    </message>
    <message>
        <source>Quit Older Version</source>
        <translation>Ältere Version beenden</translation>
    </message>
    <message>
        <source>Quit Other Copy</source>
        <translation>Andere Kopie beenden</translation>
    </message>
    <message>
        <source>Quit This Copy</source>
        <translation>Diese Kopie beenden</translation>
    </message>
    <message>
        <source>Ignore</source>
        <translation>Ignorieren</translation>
    </message>
</context>
</TS>
