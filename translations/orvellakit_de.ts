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
</context>
</TS>
