#pragma once

// The window components of OrvellaKit (the OrvellaKit::Widgets library).

#include <OrvellaKitWidgets/ORVCrashReportWindowController.h>
#include <OrvellaKitWidgets/ORVDataCollectionPendingItemsViewController.h>
#include <OrvellaKitWidgets/ORVMAlert.h>
#include <OrvellaKitWidgets/ORVMBackgroundView.h>
#include <OrvellaKitWidgets/ORVOnboardingFeatureItem.h>
#include <OrvellaKitWidgets/ORVPreferencesViewController.h>
#include <OrvellaKitWidgets/ORVPreferencesWindowController.h>
#include <OrvellaKitWidgets/ORVViewImage.h>
#include <OrvellaKitWidgets/ORVWidgets.h>
#include <OrvellaKitWidgets/ORVDuplicateAppManager.h>
