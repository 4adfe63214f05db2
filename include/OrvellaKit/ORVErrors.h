#pragma once

// The framework's cancel error and the abstract-method exception.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVException.h>

extern const QString ORVOrvellaKitErrorDomain; // "com.orvella.orvellakit"
constexpr qint64 ORVUserCancelledErrorCode = 3072;
// The multiplexer was given an item that had been started already (its
// completion belongs to someone else), or whose start() threw: the key is
// released and every handler waiting for it gets this error.
constexpr qint64 ORVWorkItemMultiplexerItemNotStartableErrorCode = 3073;

// "com.orvella.orvellakit" 3072, no user info.
ORVError orv_orvellaKitCancelError();
bool orv_isOrvellaKitCancelError(const ORVError &error);
// "NSCocoaErrorDomain" 3072.
bool orv_isCocoaCancelError(const ORVError &error);

// Returns (does not throw) the exception that a base class raises from a
// method its subclasses must override: "AbstractMethodException", reason
// "You must override <selector> in a subclass". A null selector fails
// "selector != NULL".
ORVException orv_abstractMethodException(const char *selector);

extern const QString ORVAbstractMethodExceptionName; // "AbstractMethodException"
