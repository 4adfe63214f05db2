#pragma once

/// \file
/// The framework's cancel error and the abstract-method exception.
///
/// Threads: any thread.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVExport.h>

extern ORVELLAKIT_EXPORT const QString ORVOrvellaKitErrorDomain; ///< "com.orvella.orvellakit"
/// The code of a cancelled operation, in ORVOrvellaKitErrorDomain and in
/// ORVCocoaErrorDomain alike.
constexpr qint64 ORVUserCancelledErrorCode = 3072;
/// The multiplexer was given an item that had been started already (its
/// completion belongs to someone else), or whose start() threw: the key is
/// released and every handler waiting for it gets this error.
constexpr qint64 ORVWorkItemMultiplexerItemNotStartableErrorCode = 3073;

/// "com.orvella.orvellakit" 3072, no user info.
ORVELLAKIT_EXPORT ORVError orv_orvellaKitCancelError();
/// Whether the error is "com.orvella.orvellakit" 3072 (any user info).
ORVELLAKIT_EXPORT bool orv_isOrvellaKitCancelError(const ORVError &error);
/// "NSCocoaErrorDomain" 3072.
ORVELLAKIT_EXPORT bool orv_isCocoaCancelError(const ORVError &error);

/// Returns (does not throw) the exception that a base class raises from a
/// method its subclasses must override: "AbstractMethodException", reason
/// "You must override <selector> in a subclass". A null selector fails
/// "selector != NULL".
ORVELLAKIT_EXPORT ORVException orv_abstractMethodException(const char *selector);

extern ORVELLAKIT_EXPORT const QString ORVAbstractMethodExceptionName; ///< "AbstractMethodException"
