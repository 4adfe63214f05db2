#pragma once

/// \file
/// The window components of OrvellaKit (the OrvellaKit::Widgets library):
/// includes every public header of the widgets library. The core headers
/// they use come along; include `<OrvellaKit/OrvellaKit.h>` for all of them.
///
/// Link OrvellaKit::Widgets. Its classes are used on the main (GUI) thread
/// unless their header says otherwise.

#include <OrvellaKitWidgets/ORVCrashReportWindowController.h>
#include <OrvellaKitWidgets/ORVDataCollectionPendingItemsViewController.h>
#include <OrvellaKitWidgets/ORVDuplicateAppManager.h>
#include <OrvellaKitWidgets/ORVMAlert.h>
#include <OrvellaKitWidgets/ORVMBackgroundView.h>
#include <OrvellaKitWidgets/ORVOnboardingFeatureItem.h>
#include <OrvellaKitWidgets/ORVOpenIDSignIn.h>
#include <OrvellaKitWidgets/ORVPreferencesViewController.h>
#include <OrvellaKitWidgets/ORVPreferencesWindowController.h>
#include <OrvellaKitWidgets/ORVViewImage.h>
#include <OrvellaKitWidgets/ORVWidgets.h>
#include <OrvellaKitWidgets/ORVWidgetsExport.h>
