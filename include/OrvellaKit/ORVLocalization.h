#pragma once

// User-facing texts come from the framework's string tables, one Qt
// translation context per table ("Localizable", "DuplicateApp"). The
// translations are built into the library; ORVInstallTranslations() loads
// those of a locale into the application.

#include <QCoreApplication>
#include <QLocale>
#include <QString>

#define ORVLocalizedString(key) QCoreApplication::translate("Localizable", key)
#define ORVLocalizedStringFromTable(key, table) QCoreApplication::translate(table, key)

// Installs the framework's translator for `locale` into the application.
// Returns false when the framework has no translation for it (the texts
// then stay in English). A second call replaces the first translator.
bool ORVInstallTranslations(const QLocale &locale = QLocale());
// Removes the framework's translator: the texts are English again.
void ORVRemoveTranslations();
