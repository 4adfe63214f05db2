#pragma once

/// \file
/// User-facing texts come from the framework's string tables, one Qt
/// translation context per table ("Localizable", "DuplicateApp"). The
/// translations are built into the library; ORVInstallTranslations() loads
/// those of a locale into the application.
///
/// The lookup macros may be used on any thread. The translator is a child of
/// the application object, so install and remove it on the main thread.

#include <OrvellaKit/ORVExport.h>

#include <QCoreApplication>
#include <QLocale>
#include <QString>

/// The translation of `key` (a C string literal) in the table "Localizable".
#define ORVLocalizedString(key) QCoreApplication::translate("Localizable", key)
/// The translation of `key` in the table (translation context) `table`.
#define ORVLocalizedStringFromTable(key, table) QCoreApplication::translate(table, key)

/// Installs the framework's translator for `locale` into the application.
/// Returns false when the framework has no translation for it (the texts
/// then stay in English). A second call replaces the first translator; one
/// that returns false leaves the installed translator in place. Also false
/// before the QCoreApplication exists.
ORVELLAKIT_EXPORT bool ORVInstallTranslations(const QLocale &locale = QLocale());
/// Removes the framework's translator: the texts are English again.
ORVELLAKIT_EXPORT void ORVRemoveTranslations();
