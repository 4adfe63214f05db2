#pragma once

#include <QString>

// The library's version, "major.minor.patch".
QString ORVOrvellaKitVersionString();
